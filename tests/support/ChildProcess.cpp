#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace harkwell::testing {
namespace {

std::vector<char*> PointersTo(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& text : strings) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

std::optional<std::string> ChildProcess::findProgram(const std::string& program) {
  if (program.find('/') != std::string::npos) {
    if (access(program.c_str(), X_OK) == 0) return program;
    return std::nullopt;
  }
  const char* path = std::getenv("PATH");
  std::string folders = path ? path : "/usr/local/bin:/usr/bin:/bin";
  std::size_t begin = 0;
  while (begin <= folders.size()) {
    std::size_t end = folders.find(':', begin);
    if (end == std::string::npos) end = folders.size();
    const std::string candidate = folders.substr(begin, end - begin) + "/" + program;
    struct stat info {};
    if (end > begin && stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
        access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
    begin = end + 1;
  }
  return std::nullopt;
}

ChildProcess::~ChildProcess() {
  stop(SIGKILL, std::chrono::seconds(5));
}

bool ChildProcess::start(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& environment,
                         const std::string& outputPath, std::string* error) {
  if (argv.empty()) {
    if (error) *error = "nothing to run";
    return false;
  }
  const auto program = findProgram(argv[0]);
  if (!program) {
    if (error) *error = argv[0] + " is not installed";
    return false;
  }
  // Everything the child needs is prepared before fork(): after it, in a threaded process, only
  // async-signal-safe calls are allowed.
  std::vector<std::string> arguments = argv;
  std::vector<std::string> variables;
  for (const auto& [name, value] : environment) variables.push_back(name + "=" + value);
  std::vector<char*> argp = PointersTo(arguments);
  std::vector<char*> envp = PointersTo(variables);
  const int output = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (output < 0) {
    if (error) *error = "cannot open " + outputPath + ": " + std::strerror(errno);
    return false;
  }
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) {
    if (error) *error = std::string("fork failed: ") + std::strerror(errno);
    close(output);
    return false;
  }
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);  // the parent died before prctl took effect
    const int input = open("/dev/null", O_RDONLY);
    if (input >= 0) dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    // Nothing else the parent has open stays open in the child.
    syscall(SYS_close_range, 3U, ~0U, 0U);
    setpgid(0, 0);
    execve(program->c_str(), argp.data(), envp.data());
    _exit(127);
  }
  close(output);
  pid_ = child;
  return true;
}

bool ChildProcess::isRunning() {
  if (pid_ <= 0) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) == pid_) {
    pid_ = -1;
    return false;
  }
  return true;
}

std::optional<int> ChildProcess::waitForExit(std::chrono::milliseconds deadline) {
  if (pid_ <= 0) return std::nullopt;
  const auto giveUp = std::chrono::steady_clock::now() + deadline;
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_ || (done < 0 && errno == ECHILD)) {
      pid_ = -1;
      return status;
    }
    if (std::chrono::steady_clock::now() >= giveUp) return std::nullopt;
    // Another process's exit has no descriptor to block on here; look again shortly.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

std::optional<int> ChildProcess::waitUntilExit(rusage* usage) {
  if (pid_ <= 0) return std::nullopt;
  int status = 0;
  pid_t done = -1;
  do {
    done = wait4(pid_, &status, 0, usage);
  } while (done < 0 && errno == EINTR);
  pid_ = -1;
  return status;
}

std::optional<int> ChildProcess::stop(int signal, std::chrono::milliseconds deadline) {
  if (pid_ <= 0) return std::nullopt;
  kill(pid_, signal);
  if (auto status = waitForExit(deadline)) return status;
  kill(pid_, SIGKILL);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return status;
}

}  // namespace harkwell::testing
