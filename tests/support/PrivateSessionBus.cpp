#include "tests/support/PrivateSessionBus.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "tests/support/DaemonSocket.h"

namespace harkwell::testing {
namespace {

bool FillAddress(const std::string& path, sockaddr_un* address) {
  if (path.size() >= sizeof address->sun_path) return false;
  *address = sockaddr_un{};
  address->sun_family = AF_UNIX;
  std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
  return true;
}

}  // namespace

PrivateSessionBus::PrivateSessionBus() {
  std::string pattern = (std::filesystem::temp_directory_path() / "harkwell-bus-XXXXXX").string();
  if (mkdtemp(pattern.data())) folder_ = pattern;
  socketPath_ = folder_ + "/bus";
  configPath_ = folder_ + "/bus.conf";
  outputPath_ = folder_ + "/daemon.log";
  serviceFolder_ = folder_ + "/services";
  std::error_code ignored;
  std::filesystem::create_directories(serviceFolder_, ignored);
  std::ofstream config(configPath_);
  config << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
            " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
            "<busconfig>\n"
            "  <type>session</type>\n"
            "  <listen>unix:path="
         << socketPath_
         << "</listen>\n"
            "  <auth>EXTERNAL</auth>\n"
            "  <servicedir>"
         << serviceFolder_
         << "</servicedir>\n"
            "  <policy context=\"default\">\n"
            "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
            "    <allow eavesdrop=\"true\"/>\n"
            "    <allow own=\"*\"/>\n"
            "  </policy>\n"
            "</busconfig>\n";
}

PrivateSessionBus::~PrivateSessionBus() {
  resume();
  daemon_.stop(SIGKILL, std::chrono::seconds(5));
  std::error_code ignored;
  if (!folder_.empty()) std::filesystem::remove_all(folder_, ignored);
}

std::string PrivateSessionBus::start(std::chrono::milliseconds deadline) {
  if (folder_.empty()) return "cannot make a temporary folder";
  if (daemon_.isRunning()) return "already running";
  std::string error;
  if (!daemon_.start({"dbus-daemon", "--config-file=" + configPath_, "--nofork", "--nopidfile"},
                     {{"PATH", "/usr/local/bin:/usr/bin:/bin"}, {"HOME", folder_}}, outputPath_,
                     &error)) {
    return "cannot start dbus-daemon: " + error;
  }
  return WaitForDaemonSocket(daemon_, "dbus-daemon", socketPath_, deadline,
                             [this] { return output(); });
}

void PrivateSessionBus::kill() {
  resume();
  daemon_.stop(SIGKILL, std::chrono::seconds(5));
}

void PrivateSessionBus::pause() {
  if (daemon_.isRunning()) ::kill(daemon_.pid(), SIGSTOP);
}

void PrivateSessionBus::resume() {
  if (daemon_.isRunning()) ::kill(daemon_.pid(), SIGCONT);
}

std::string PrivateSessionBus::output() const {
  std::ifstream file(outputPath_);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

SilentUnixSocket::SilentUnixSocket(const std::string& path) : path_(path) {
  sockaddr_un address{};
  if (!FillAddress(path, &address)) return;
  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return;
  // Connections wait in the backlog, accepted by the kernel and never read.
  if (bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(fd_, 16) != 0) {
    close(fd_);
    fd_ = -1;
  }
}

SilentUnixSocket::~SilentUnixSocket() {
  if (fd_ >= 0) close(fd_);
  unlink(path_.c_str());
}

}  // namespace harkwell::testing
