#include "tests/cli/ProgramRun.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

extern char** environ;

namespace harkwell::testing {
namespace {

using Clock = std::chrono::steady_clock;

std::vector<std::string> MergedEnvironment(const std::map<std::string, std::string>& extra) {
  std::map<std::string, std::string> variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text(*entry);
    const auto equals = text.find('=');
    if (equals != std::string::npos) variables[text.substr(0, equals)] = text.substr(equals + 1);
  }
  for (const auto& [name, value] : extra) variables[name] = value;
  std::vector<std::string> merged;
  for (const auto& [name, value] : variables) merged.push_back(name + "=" + value);
  return merged;
}

// A pipe whose ends are above the standard descriptors, even when the test runs with some of them
// closed, so the child's dup2 calls cannot clobber one end with another.
bool MakePipe(int ends[2]) {
  int raw[2];
  // pipe() rather than Linux's pipe2(), so this builds on macOS too. The originals are not
  // close-on-exec, but they are closed as soon as their close-on-exec copies are made, and
  // programs are started from the test's own thread only.
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

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (auto& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

int DecodeStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

}  // namespace

std::unique_ptr<ProgramRun> ProgramRun::start(
    const std::string& program, const std::vector<std::string>& arguments,
    const std::map<std::string, std::string>& environment) {
  int outPipe[2];
  int errPipe[2];
  if (!MakePipe(outPipe)) return nullptr;
  if (!MakePipe(errPipe)) {
    close(outPipe[0]);
    close(outPipe[1]);
    return nullptr;
  }
  std::vector<std::string> argv{program};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  auto envp = MergedEnvironment(environment);
  auto argvPointers = Pointers(argv);
  auto envPointers = Pointers(envp);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // The program reads nothing from the test runner, whatever its stdin is.
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
  // The program gets the default signal dispositions and mask, whatever the test runner has.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  sigset_t all;
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  pid_t pid = -1;
  const int failed = posix_spawn(&pid, program.c_str(), &actions, &attributes, argvPointers.data(),
                                 envPointers.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  close(outPipe[1]);
  close(errPipe[1]);
  if (failed != 0) {
    close(outPipe[0]);
    close(errPipe[0]);
    return nullptr;
  }
  std::unique_ptr<ProgramRun> run(new ProgramRun);
  run->pid_ = pid;
  run->outFd_ = outPipe[0];
  run->errFd_ = errPipe[0];
  fcntl(run->outFd_, F_SETFL, O_NONBLOCK);
  fcntl(run->errFd_, F_SETFL, O_NONBLOCK);
  return run;
}

ProgramRun::~ProgramRun() {
  if (!status_ && pid_ > 0) {
    kill(pid_, SIGKILL);
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
  }
  if (outFd_ >= 0) close(outFd_);
  if (errFd_ >= 0) close(errFd_);
}

bool ProgramRun::pump(Clock::time_point until) {
  pollfd descriptors[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
  if (outFd_ < 0 && errFd_ < 0) return false;
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

std::optional<std::string> ProgramRun::readLine(std::chrono::milliseconds deadline) {
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

void ProgramRun::sendSignal(int signal) const {
  if (!status_) kill(pid_, signal);
}

void ProgramRun::closeOutput() {
  if (outFd_ >= 0) close(outFd_);
  outFd_ = -1;
}

std::optional<int> ProgramRun::waitForExit(std::chrono::milliseconds deadline) {
  if (status_) return status_;
  const auto until = Clock::now() + deadline;
  for (;;) {
    int status = 0;
    const pid_t reaped = waitpid(pid_, &status, WNOHANG);
    if (reaped == pid_) {
      status_ = DecodeStatus(status);
      // Whatever the program wrote before it ended is still in the pipes; they end once every
      // process that shares them (a child of `script`, say) is gone too.
      const auto drainUntil = Clock::now() + std::chrono::seconds(2);
      while (Clock::now() < drainUntil && pump(drainUntil)) {
      }
      return status_;
    }
    if (Clock::now() >= until) return std::nullopt;
    // Output wakes the wait early; the exit itself is noticed within a few milliseconds.
    pump(std::min(until, Clock::now() + std::chrono::milliseconds(5)));
  }
}

ProgramResult RunHarkwell(const std::vector<std::string>& arguments,
                          const std::map<std::string, std::string>& environment,
                          std::chrono::milliseconds deadline) {
  ProgramResult result;
  auto run = StartHarkwell(arguments, environment);
  if (!run) return result;
  result.status = run->waitForExit(deadline).value_or(-1);
  result.out = run->unreadOutput();
  result.err = run->errorOutput();
  return result;
}

std::unique_ptr<ProgramRun> StartHarkwell(const std::vector<std::string>& arguments,
                                          const std::map<std::string, std::string>& environment) {
  return ProgramRun::start(HARKWELL_PROGRAM, arguments, environment);
}

TemporaryFile::TemporaryFile(const std::string& text, const std::string& name) {
  std::string pattern = (std::filesystem::temp_directory_path() / "harkwell-cli-XXXXXX").string();
  if (mkdtemp(pattern.data()) != nullptr) folder_ = pattern;
  path_ = folder_ + "/" + name;
  std::ofstream(path_, std::ios::binary) << text;
}

TemporaryFile::~TemporaryFile() {
  std::error_code ignored;
  if (!folder_.empty()) std::filesystem::remove_all(folder_, ignored);
}

}  // namespace harkwell::testing
