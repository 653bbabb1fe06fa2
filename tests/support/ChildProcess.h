// A separate process the tests start and stop: a server daemon, a recorder, a shell that holds a
// device node open, the harkwell program run as a user runs it. Its standard output and error go
// either to a file or to pipes that this object reads line by line with a deadline; its standard
// input is /dev/null or a pipe the test writes lines to. The child gets the default signal mask
// and dispositions and none of the test's other open descriptors. On Linux the kernel kills it if
// the thread that started it ends first, so no daemon outlives a crashed test; start it from a
// thread that lives as long as the child should. The destructor kills a child still running and
// reaps it, so a failing test leaves nothing behind.
//
// Used from one thread at a time (the test's own, as a rule).
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace harkwell::testing {

struct ChildProcessOptions {
  // Variables added on top of the test's own environment (an entry replaces a variable of the same
  // name); with `exactEnvironment`, the child's whole environment.
  std::map<std::string, std::string> environment;
  bool exactEnvironment = false;
  // Where stdout and stderr go: appended to this file, or else pipes that readLine(),
  // unreadOutput() and errorOutput() read.
  std::optional<std::string> outputPath;
  // Standard input: a pipe that writeLine() writes to, or else /dev/null.
  bool pipeInput = false;
  // The child takes this user ID and group ID (and no supplementary groups) before it runs.
  std::optional<uid_t> runAsUser;
};

class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Finds `program` on PATH (or takes it as a path when it has a '/').
  static std::optional<std::string> findProgram(const std::string& program);

  // Starts `argv` (argv[0] a path, or a name found on PATH). False, with a reason in `error`, when
  // it could not be started.
  bool start(const std::vector<std::string>& argv, const ChildProcessOptions& options,
             std::string* error = nullptr);
  // The same with exactly `environment` and stdout and stderr appended to `outputPath`.
  bool start(const std::vector<std::string>& argv,
             const std::map<std::string, std::string>& environment, const std::string& outputPath,
             std::string* error) {
    return start(argv,
                 {.environment = environment, .exactEnvironment = true, .outputPath = outputPath},
                 error);
  }
  // A started child, or null when it could not be started.
  static std::unique_ptr<ChildProcess> launch(const std::vector<std::string>& argv,
                                              const ChildProcessOptions& options = {});

  bool isRunning();
  pid_t pid() const { return pid_; }

  // The next line of stdout, without its newline; nothing when the deadline passes or stdout ends
  // first. Reads stderr on the way, so a child that writes much there never blocks.
  std::optional<std::string> readLine(
      std::chrono::milliseconds deadline = std::chrono::seconds(10));
  // Everything of stdout not yet returned by readLine(), and all of stderr, read so far.
  const std::string& unreadOutput() const { return out_; }
  const std::string& errorOutput() const { return err_; }
  // Closes the test's end of the child's stdout, as `harkwell watch | head -1` does.
  void closeOutput();
  bool writeLine(const std::string& line);
  void closeInput();

  void sendSignal(int signal) const;
  // Waits up to `deadline` for the child to exit, reading what it writes meanwhile and what is
  // left in the pipes afterwards; its wait status, or nullopt when it is still running (or none
  // was started).
  std::optional<int> waitForExit(std::chrono::milliseconds deadline = std::chrono::seconds(10));
  // The same, as a shell reports it: the exit status, or 128 + the signal that ended the child.
  std::optional<int> waitForExitCode(std::chrono::milliseconds deadline);
  // Blocks until the child exits, however long that takes; its wait status, and in `usage` (when
  // given) the resources it used. Nullopt when none was started.
  std::optional<int> waitUntilExit(rusage* usage = nullptr);
  // Sends `signal` and waits up to `deadline` for the child to exit; then kills it. Returns the
  // wait status, or nullopt when no child was running.
  std::optional<int> stop(int signal, std::chrono::milliseconds deadline);
  // Kills the child (SIGKILL) and reaps it; its wait status, or nullopt when none was running.
  std::optional<int> kill();

 private:
  // Reads what is ready on the output pipes, waiting at most until `until`; false once both have
  // ended (or there are none).
  bool pump(std::chrono::steady_clock::time_point until);
  void reaped(int status);

  pid_t pid_ = -1;
  std::optional<int> status_;  // the wait status once reaped
  int input_ = -1;             // the child's stdin
  int outFd_ = -1;             // the child's stdout
  int errFd_ = -1;             // the child's stderr
  std::string out_;
  std::string err_;
};

// A shell that opens `path` read-only on descriptor 3, says "ready" and becomes `sleep`, so the
// path stays open in a separate process until that process is killed. Null when it did not get
// that far.
std::unique_ptr<ChildProcess> StartNodeHolder(const std::string& path,
                                              std::optional<uid_t> runAsUser = std::nullopt);

// A wait status as a shell reports it: the exit status, or 128 + the signal that ended the process.
int ExitCode(int waitStatus);

}  // namespace harkwell::testing
