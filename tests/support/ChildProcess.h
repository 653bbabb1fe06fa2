// A program the tests start and stop: a server daemon, a recorder. The child gets the environment
// given here (nothing else of the test's, and none of its open descriptors), its output goes to a
// file, and the kernel kills it if the test process dies first, so no daemon outlives a crashed
// test. Start it from a thread that lives as long as the child should (the kernel ties the child to
// the starting thread).
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace harkwell::testing {

class ChildProcess {
 public:
  ChildProcess() = default;
  // Kills a child still running and waits for it.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Finds `program` on PATH (or takes it as a path when it has a '/').
  static std::optional<std::string> findProgram(const std::string& program);

  // Starts `argv` (argv[0] found on PATH) with exactly `environment`, stdout and stderr appended to
  // `outputPath`. False, with a reason in `error`, when it could not be started.
  bool start(const std::vector<std::string>& argv,
             const std::map<std::string, std::string>& environment, const std::string& outputPath,
             std::string* error);

  bool isRunning();
  pid_t pid() const { return pid_; }
  // Waits up to `deadline` for the child to exit by itself; its wait status, or nullopt when it is
  // still running (or none was started).
  std::optional<int> waitForExit(std::chrono::milliseconds deadline);
  // Blocks until the child exits, however long that takes; its wait status, and in `usage` (when
  // given) the resources it used. Nullopt when none was started.
  std::optional<int> waitUntilExit(rusage* usage = nullptr);
  // Sends `signal` and waits up to `deadline` for the child to exit; then kills it. Returns the
  // wait status, or nullopt when no child was running.
  std::optional<int> stop(int signal, std::chrono::milliseconds deadline);

 private:
  pid_t pid_ = -1;
};

}  // namespace harkwell::testing
