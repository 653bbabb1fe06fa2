// Waiting for a daemon a test started to take connections on its unix socket: no event tells that
// another process has bound a socket, so the socket is tried again shortly until it answers, the
// daemon exits, or the deadline passes.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "tests/support/ChildProcess.h"

namespace harkwell::testing {

// Whether something accepts connections on the unix socket at `path`.
bool UnixSocketAnswers(const std::string& path);

// Empty once `daemon` (called `name` in messages) answers on `socketPath`. Otherwise why not, with
// what `output` returns (the daemon's output); a daemon still running at the deadline is killed.
std::string WaitForDaemonSocket(ChildProcess& daemon, const std::string& name,
                                const std::string& socketPath, std::chrono::milliseconds deadline,
                                const std::function<std::string()>& output);

}  // namespace harkwell::testing
