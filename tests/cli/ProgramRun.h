// A program the command-line suites run as a user would: a separate process whose stdout and
// stderr are pipes back to the test, read as lines arrive, with a deadline on every wait. The
// destructor kills a program still running and reaps it, so a failing test leaves nothing behind.
//
// Used from the test's own thread only.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace harkwell::testing {

class ProgramRun {
 public:
  // Starts `program` (a path) with `arguments`, in the test's environment with `environment`
  // added on top (an entry replaces a variable of the same name). Null when it could not start.
  static std::unique_ptr<ProgramRun> start(
      const std::string& program, const std::vector<std::string>& arguments,
      const std::map<std::string, std::string>& environment = {});
  ~ProgramRun();
  ProgramRun(const ProgramRun&) = delete;
  ProgramRun& operator=(const ProgramRun&) = delete;

  pid_t pid() const { return pid_; }
  // The next line of stdout, without its newline; nothing when the deadline passes or stdout ends
  // first.
  std::optional<std::string> readLine(std::chrono::milliseconds deadline);
  void sendSignal(int signal) const;
  // Closes the test's end of the program's stdout, as `harkwell watch | head -1` does.
  void closeOutput();
  // Waits for the program to exit, reading the rest of its output. Its exit status, 128 + the
  // signal when a signal ended it, or nothing when it is still running at the deadline.
  std::optional<int> waitForExit(std::chrono::milliseconds deadline);

  // Everything of stdout not yet returned by readLine(), and all of stderr, read so far.
  const std::string& unreadOutput() const { return out_; }
  const std::string& errorOutput() const { return err_; }

 private:
  ProgramRun() = default;
  // Reads what is ready on the pipes, waiting at most until `until`; false when both have ended.
  bool pump(std::chrono::steady_clock::time_point until);

  pid_t pid_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;
  std::string out_;
  std::string err_;
  std::optional<int> status_;
};

// What a finished run printed and how it ended.
struct ProgramResult {
  int status = -1;  // as ProgramRun::waitForExit; -1 when it did not end in time
  std::string out;
  std::string err;
};

// Runs the harkwell program under test to the end (at most `deadline`).
ProgramResult RunHarkwell(const std::vector<std::string>& arguments,
                          const std::map<std::string, std::string>& environment = {},
                          std::chrono::milliseconds deadline = std::chrono::seconds(30));
// Starts the harkwell program under test.
std::unique_ptr<ProgramRun> StartHarkwell(
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
