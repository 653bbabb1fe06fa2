#include "tests/support/DaemonSocket.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>

namespace harkwell::testing {

bool UnixSocketAnswers(const std::string& path) {
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) return false;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const bool answered =
      connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return answered;
}

std::string WaitForDaemonSocket(ChildProcess& daemon, const std::string& name,
                                const std::string& socketPath, std::chrono::milliseconds deadline,
                                const std::function<std::string()>& output) {
  const auto giveUp = std::chrono::steady_clock::now() + deadline;
  while (!UnixSocketAnswers(socketPath)) {
    if (!daemon.isRunning()) return name + " exited at start-up:\n" + output();
    if (std::chrono::steady_clock::now() >= giveUp) {
      daemon.stop(SIGKILL, std::chrono::seconds(5));
      return name + " did not open its socket in time:\n" + output();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return {};
}

}  // namespace harkwell::testing
