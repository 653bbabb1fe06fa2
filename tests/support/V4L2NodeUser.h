// The V4L2 suites' helper program in its "hold" mode (see V4L2TestHelper.cpp): a separate process
// that opens a node and maps it, as a program streaming from a camera maps its buffers, and
// unmaps and closes it on command. Header-only, because the helper's path comes from the
// HARKWELL_V4L2_TEST_HELPER definition that linking harkwell_v4l2_test_support gives.
//
// Used from the test's thread only.
#pragma once

#include <memory>
#include <string>

#include "tests/support/ChildProcess.h"

namespace harkwell::testing {

// Writes `command` to a node user and waits for its answer; true when the answer starts with
// `expectedWord` ("opened", "mapped", "unmapped", "closed").
inline bool TellNodeUser(ChildProcess& user, const std::string& command,
                         const std::string& expectedWord) {
  if (!user.writeLine(command)) return false;
  const auto answer = user.readLine();
  return answer && answer->rfind(expectedWord + " ", 0) == 0;
}

// The helper run from `executable` (the helper itself, or a copy of it under another name, which
// stands in for a program of that name), with `path` open; with `mapped`, one page of it mapped.
// Null when it did not get that far.
inline std::unique_ptr<ChildProcess> StartNodeUser(
    const std::string& path, bool mapped,
    const std::string& executable = HARKWELL_V4L2_TEST_HELPER) {
  auto child = ChildProcess::launch({executable, "hold"}, {.pipeInput = true});
  if (!child || !TellNodeUser(*child, "open " + path, "opened")) return nullptr;
  if (mapped && !TellNodeUser(*child, "map", "mapped")) return nullptr;
  return child;
}

}  // namespace harkwell::testing
