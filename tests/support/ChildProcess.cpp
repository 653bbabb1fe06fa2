#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__linux__)
#include <sys/prctl.h>
#include <sys/syscall.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

extern char** environ;

namespace harkwell::testing {
namespace {

using Clock = std::chrono::steady_clock;

std::vector<char*> PointersTo(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& text : strings) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> ChildEnvironment(const ChildProcessOptions& options) {
  std::map<std::string, std::string> variables;
  if (!options.exactEnvironment) {
    for (char** entry = environ; *entry != nullptr; ++entry) {
      const std::string text(*entry);
      const auto equals = text.find('=');
      if (equals != std::string::npos) variables[text.substr(0, equals)] = text.substr(equals + 1);
    }
  }
  for (const auto& [name, value] : options.environment) variables[name] = value;
  std::vector<std::string> merged;
  for (const auto& [name, value] : variables) merged.push_back(name + "=" + value);
  return merged;
}

// A pipe whose ends are close-on-exec and above the standard descriptors, even when the test runs
// with some of them closed, so the child's dup2 calls cannot clobber one end with another. pipe()
// rather than Linux's pipe2(), so this builds on macOS too; the originals live only until their
// copies are made.
bool MakePipe(int ends[2]) {
  int raw[2];
  if (pipe(raw) != 0) return false;
  for (int i = 0; i < 2; ++i) {
    ends[i] = fcntl(raw[i], F_DUPFD_CLOEXEC, 3);
    close(raw[i]);
  }
  if (ends[0] >= 0 && ends[1] >= 0) return true;
  for (int i = 0; i < 2; ++i) {
    if (ends[i] >= 0) close(ends[i]);
  }
  return false;
}

void CloseAll(std::initializer_list<int*> descriptors) {
  for (int* fd : descriptors) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

}  // namespace

int ExitCode(int waitStatus) {
  if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
  if (WIFSIGNALED(waitStatus)) return 128 + WTERMSIG(waitStatus);
  return -1;
}

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
  kill();
  CloseAll({&input_, &outFd_, &errFd_});
}

std::unique_ptr<ChildProcess> ChildProcess::launch(const std::vector<std::string>& argv,
                                                   const ChildProcessOptions& options) {
  auto child = std::make_unique<ChildProcess>();
  if (!child->start(argv, options)) return nullptr;
  return child;
}

bool ChildProcess::start(const std::vector<std::string>& argv, const ChildProcessOptions& options,
                         std::string* error) {
  const auto fail = [error](std::string reason) {
    if (error) *error = std::move(reason);
    return false;
  };
  if (argv.empty()) return fail("nothing to run");
  if (pid_ > 0) return fail("a child is running already");
  const auto program = findProgram(argv[0]);
  if (!program) return fail(argv[0] + " is not installed");

  // Everything the child needs is prepared before fork(): after it, in a threaded process, only
  // async-signal-safe calls are allowed.
  std::vector<std::string> arguments = argv;
  std::vector<std::string> variables = ChildEnvironment(options);
  std::vector<char*> argp = PointersTo(arguments);
  std::vector<char*> envp = PointersTo(variables);
  int input[2] = {-1, -1};
  int out[2] = {-1, -1};
  int err[2] = {-1, -1};
  const auto closeEnds = [&] {
    CloseAll({&input[0], &input[1], &out[0], &out[1], &err[0], &err[1]});
  };
  if (options.outputPath) {
    out[1] = open(options.outputPath->c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (out[1] < 0) {
      return fail("cannot open " + *options.outputPath + ": " + std::strerror(errno));
    }
    err[1] = fcntl(out[1], F_DUPFD_CLOEXEC, 3);
  } else if (!MakePipe(out) || !MakePipe(err)) {
    closeEnds();
    return fail(std::string("cannot make a pipe: ") + std::strerror(errno));
  }
  if (options.pipeInput) {
    if (!MakePipe(input)) {
      closeEnds();
      return fail(std::string("cannot make a pipe: ") + std::strerror(errno));
    }
  } else {
    input[0] = open("/dev/null", O_RDONLY | O_CLOEXEC);
  }
  const std::optional<uid_t> user = options.runAsUser;
  const pid_t parent = getpid();

  const pid_t child = fork();
  if (child < 0) {
    closeEnds();
    return fail(std::string("fork failed: ") + std::strerror(errno));
  }
  if (child == 0) {
    // dup2 clears close-on-exec on the copies, so only the standard streams reach the program.
    if (dup2(input[0], STDIN_FILENO) < 0 || dup2(out[1], STDOUT_FILENO) < 0 ||
        dup2(err[1], STDERR_FILENO) < 0) {
      _exit(126);
    }
    if (user && (setgroups(0, nullptr) != 0 || setgid(*user) != 0 || setuid(*user) != 0)) {
      _exit(125);
    }
#if defined(__linux__)
    // After the change of user, which would clear it.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);  // the parent died before prctl took effect
    // Nothing else the parent has open stays open in the child, close-on-exec or not.
    syscall(SYS_close_range, 3U, ~0U, 0U);
#else
    (void)parent;
#endif
    // A process group of its own: a Ctrl-C at the terminal reaches the test runner, which then
    // stops its children itself.
    setpgid(0, 0);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int signal = 1; signal < NSIG; ++signal) {
      if (signal != SIGKILL && signal != SIGSTOP) ::signal(signal, SIG_DFL);
    }
    execve(program->c_str(), argp.data(), envp.data());
    _exit(127);
  }
  CloseAll({&input[0], &out[1], &err[1]});
  pid_ = child;
  status_.reset();
  out_.clear();
  err_.clear();
  input_ = input[1];
  outFd_ = out[0];
  errFd_ = err[0];
  for (int fd : {outFd_, errFd_}) {
    if (fd >= 0) fcntl(fd, F_SETFL, O_NONBLOCK);
  }
  return true;
}

void ChildProcess::reaped(int status) {
  pid_ = -1;
  status_ = status;
}

bool ChildProcess::isRunning() {
  if (pid_ <= 0) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) == pid_) {
    reaped(status);
    return false;
  }
  return true;
}

bool ChildProcess::pump(Clock::time_point until) {
  if (outFd_ < 0 && errFd_ < 0) return false;
  pollfd descriptors[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
  const int ready = poll(descriptors, 2, static_cast<int>(std::max<long long>(left, 0)));
  if (ready <= 0) return true;
  std::pair<int*, std::string*> streams[] = {{&outFd_, &out_}, {&errFd_, &err_}};
  for (std::size_t i = 0; i < 2; ++i) {
    if (descriptors[i].revents == 0) continue;
    char buffer[4096];
    const ssize_t n = read(*streams[i].first, buffer, sizeof buffer);
    if (n > 0) {
      streams[i].second->append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
      close(*streams[i].first);
      *streams[i].first = -1;
    }
  }
  return outFd_ >= 0 || errFd_ >= 0;
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds deadline) {
  const auto until = Clock::now() + deadline;
  for (;;) {
    const auto newline = out_.find('\n');
    if (newline != std::string::npos) {
      std::string line = out_.substr(0, newline);
      out_.erase(0, newline + 1);
      return line;
    }
    if (Clock::now() >= until || outFd_ < 0) return std::nullopt;
    pump(until);
  }
}

void ChildProcess::closeOutput() {
  CloseAll({&outFd_});
}

bool ChildProcess::writeLine(const std::string& line) {
  if (input_ < 0) return false;
  const std::string text = line + "\n";
  return write(input_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

void ChildProcess::closeInput() {
  CloseAll({&input_});
}

void ChildProcess::sendSignal(int signal) const {
  if (pid_ > 0) ::kill(pid_, signal);
}

std::optional<int> ChildProcess::waitForExit(std::chrono::milliseconds deadline) {
  if (status_) return status_;
  if (pid_ <= 0) return std::nullopt;
  const auto until = Clock::now() + deadline;
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_ || (done < 0 && errno == ECHILD)) {
      reaped(status);
      // Whatever the child wrote before it ended is still in the pipes; they end once every
      // process that shares them (a child of `script`, say) is gone too.
      const auto drainUntil = Clock::now() + std::chrono::seconds(2);
      while (Clock::now() < drainUntil && pump(drainUntil)) {
      }
      return status_;
    }
    if (Clock::now() >= until) return std::nullopt;
    // Output wakes the wait early; the exit itself has no descriptor to block on here, so it is
    // noticed within a few milliseconds.
    const auto next = std::min(until, Clock::now() + std::chrono::milliseconds(5));
    if (outFd_ >= 0 || errFd_ >= 0) {
      pump(next);
    } else {
      std::this_thread::sleep_until(std::min(until, Clock::now() + std::chrono::milliseconds(2)));
    }
  }
}

std::optional<int> ChildProcess::waitForExitCode(std::chrono::milliseconds deadline) {
  const auto status = waitForExit(deadline);
  if (!status) return std::nullopt;
  return ExitCode(*status);
}

std::optional<int> ChildProcess::waitUntilExit(rusage* usage) {
  if (pid_ <= 0) return std::nullopt;
  int status = 0;
  pid_t done = -1;
  do {
    done = wait4(pid_, &status, 0, usage);
  } while (done < 0 && errno == EINTR);
  reaped(status);
  return status;
}

std::optional<int> ChildProcess::stop(int signal, std::chrono::milliseconds deadline) {
  if (pid_ <= 0) return std::nullopt;
  ::kill(pid_, signal);
  if (auto status = waitForExit(deadline)) return status;
  return kill();
}

std::optional<int> ChildProcess::kill() {
  if (pid_ <= 0) return std::nullopt;
  ::kill(pid_, SIGKILL);
  int status = 0;
  pid_t done = -1;
  do {
    done = waitpid(pid_, &status, 0);
  } while (done < 0 && errno == EINTR);
  reaped(status);
  return status;
}

std::unique_ptr<ChildProcess> StartNodeHolder(const std::string& path,
                                              std::optional<uid_t> runAsUser) {
  auto child = ChildProcess::launch(
      {"/bin/sh", "-c", "exec 3<\"$0\" && echo ready && exec sleep 1000", path},
      {.runAsUser = runAsUser});
  if (!child || child->readLine() != "ready") return nullptr;
  return child;
}

}  // namespace harkwell::testing
