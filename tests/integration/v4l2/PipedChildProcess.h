// A real, separate process for the V4L2 suites: a shell that holds a device node open, a helper
// that scans /proc as another user. Its stdin and stdout are pipes to the test, so the test can
// wait for the child to say it is ready instead of sleeping. The destructor kills a child that is
// still running and reaps it, so a failing test leaves no process behind.
//
// Used from the test's own thread only.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace harkwell::testing {

class PipedChildProcess {
 public:
  // Starts `argv` (argv[0] is a path; no PATH search). With `runAsUser`, the child takes that user
  // ID and group ID (and no supplementary groups) before it runs the program. Null when it could
  // not be started.
  static std::unique_ptr<PipedChildProcess> start(const std::vector<std::string>& argv,
                                                  std::optional<uid_t> runAsUser = std::nullopt);

  ~PipedChildProcess();
  PipedChildProcess(const PipedChildProcess&) = delete;
  PipedChildProcess& operator=(const PipedChildProcess&) = delete;

  pid_t pid() const { return pid_; }

  // The next line the child writes, without its newline; nothing when the deadline passes or the
  // child closes its output first.
  std::optional<std::string> readLine(
      std::chrono::milliseconds deadline = std::chrono::seconds(10));
  bool writeLine(const std::string& line);
  void closeInput();

  // Waits up to `deadline` for the child to exit; its wait status, or nothing if still running.
  std::optional<int> waitForExit(std::chrono::milliseconds deadline = std::chrono::seconds(10));
  // Kills the child (SIGKILL) and reaps it; returns the wait status (or nothing if already reaped).
  std::optional<int> kill();

 private:
  PipedChildProcess() = default;

  pid_t pid_ = -1;
  int pidFd_ = -1;
  int input_ = -1;   // the child's stdin
  int output_ = -1;  // the child's stdout
  std::string buffered_;
};

// A shell that opens `path` read-only on descriptor 3, says "ready" and becomes `sleep`, so the
// path stays open in a separate process until that process is killed. Null when it did not get
// that far.
std::unique_ptr<PipedChildProcess> StartNodeHolder(const std::string& path,
                                                   std::optional<uid_t> runAsUser = std::nullopt);

}  // namespace harkwell::testing
