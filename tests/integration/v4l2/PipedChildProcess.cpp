#include "PipedChildProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace harkwell::testing {

std::unique_ptr<PipedChildProcess> PipedChildProcess::start(const std::vector<std::string>& argv,
                                                            std::optional<uid_t> runAsUser) {
  if (argv.empty()) return nullptr;
  // Everything the child needs is prepared before fork: after it, only async-signal-safe calls.
  std::vector<char*> arguments;
  for (const std::string& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);

  int toChild[2];
  int fromChild[2];
  if (::pipe2(toChild, O_CLOEXEC) != 0) return nullptr;
  if (::pipe2(fromChild, O_CLOEXEC) != 0) {
    ::close(toChild[0]);
    ::close(toChild[1]);
    return nullptr;
  }
  const pid_t pid = ::fork();
  if (pid < 0) {
    for (int fd : {toChild[0], toChild[1], fromChild[0], fromChild[1]}) ::close(fd);
    return nullptr;
  }
  if (pid == 0) {
    // dup2 clears close-on-exec on the copies, so only stdin and stdout reach the program.
    if (::dup2(toChild[0], STDIN_FILENO) < 0 || ::dup2(fromChild[1], STDOUT_FILENO) < 0) {
      ::_exit(126);
    }
    if (runAsUser) {
      if (::setgroups(0, nullptr) != 0 || ::setgid(*runAsUser) != 0 || ::setuid(*runAsUser) != 0) {
        ::_exit(125);
      }
    }
    ::execv(arguments[0], arguments.data());
    ::_exit(127);
  }
  ::close(toChild[0]);
  ::close(fromChild[1]);
  std::unique_ptr<PipedChildProcess> child(new PipedChildProcess);
  child->pid_ = pid;
  child->input_ = toChild[1];
  child->output_ = fromChild[0];
  child->pidFd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  return child;
}

PipedChildProcess::~PipedChildProcess() {
  kill();
  closeInput();
  if (output_ >= 0) ::close(output_);
  if (pidFd_ >= 0) ::close(pidFd_);
}

std::optional<std::string> PipedChildProcess::readLine(std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  for (;;) {
    const auto newline = buffered_.find('\n');
    if (newline != std::string::npos) {
      std::string line = buffered_.substr(0, newline);
      buffered_.erase(0, newline + 1);
      return line;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0 || output_ < 0) return std::nullopt;
    pollfd readable{output_, POLLIN, 0};
    const int ready = ::poll(&readable, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return std::nullopt;
    char chunk[512];
    const ssize_t got = ::read(output_, chunk, sizeof chunk);
    if (got <= 0) return std::nullopt;
    buffered_.append(chunk, static_cast<std::size_t>(got));
  }
}

bool PipedChildProcess::writeLine(const std::string& line) {
  if (input_ < 0) return false;
  const std::string text = line + "\n";
  return ::write(input_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

void PipedChildProcess::closeInput() {
  if (input_ >= 0) ::close(input_);
  input_ = -1;
}

std::optional<int> PipedChildProcess::waitForExit(std::chrono::milliseconds deadline) {
  if (pid_ < 0) return std::nullopt;
  if (pidFd_ >= 0) {
    pollfd exited{pidFd_, POLLIN, 0};
    int ready;
    do {
      ready = ::poll(&exited, 1, static_cast<int>(deadline.count()));
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) return std::nullopt;
  }
  int status = 0;
  if (::waitpid(pid_, &status, 0) != pid_) return std::nullopt;
  pid_ = -1;
  return status;
}

std::optional<int> PipedChildProcess::kill() {
  if (pid_ < 0) return std::nullopt;
  ::kill(pid_, SIGKILL);
  int status = 0;
  pid_t reaped;
  do {
    reaped = ::waitpid(pid_, &status, 0);
  } while (reaped < 0 && errno == EINTR);
  pid_ = -1;
  return status;
}

std::unique_ptr<PipedChildProcess> StartNodeHolder(const std::string& path,
                                                   std::optional<uid_t> runAsUser) {
  auto child = PipedChildProcess::start(
      {"/bin/sh", "-c", "exec 3<\"$0\" && echo ready && exec sleep 1000", path}, runAsUser);
  if (!child || child->readLine() != "ready") return nullptr;
  return child;
}

}  // namespace harkwell::testing
