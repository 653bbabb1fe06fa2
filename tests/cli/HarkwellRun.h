// Running the harkwell program under test as a user runs it: a separate process (a ChildProcess
// with pipes) whose output the test reads as lines arrive, with a deadline on every wait.
//
// Used from the test's own thread only.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"

namespace harkwell::testing {

// What a finished run printed and how it ended.
struct ProgramResult {
  int status = -1;  // as ChildProcess::waitForExitCode; -1 when it did not end in time
  std::string out;
  std::string err;
};

// Runs the harkwell program under test to the end (at most `deadline`).
ProgramResult RunHarkwell(const std::vector<std::string>& arguments,
                          const std::map<std::string, std::string>& environment = {},
                          std::chrono::milliseconds deadline = std::chrono::seconds(30));
// Starts the harkwell program under test, in the test's environment with `environment` added on
// top; its stdout and stderr are pipes. Null when it could not start.
std::unique_ptr<ChildProcess> StartHarkwell(
    const std::vector<std::string>& arguments,
    const std::map<std::string, std::string>& environment = {});

// Writes `text` to a new file in a fresh temporary folder and removes both when destroyed.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& text, const std::string& name = "scenario.json");
  ~TemporaryFile();
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string folder_;
  std::string path_;
};

}  // namespace harkwell::testing
