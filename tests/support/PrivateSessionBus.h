// A D-Bus session bus of the test's own: a dbus-daemon on a private socket in a temporary folder,
// with a configuration that lets any connection own any name and call anything, so test programs
// can stand in for sound servers. Service files put in serviceFolder() before start() make their
// names activatable. The destructor stops it and removes the folder whatever the
// test's outcome; if the test process dies, the kernel kills the daemon.
//
// Used from one thread (the test's). Works as root, as CI runs.
#pragma once

#include <chrono>
#include <string>

#include "tests/support/ChildProcess.h"

namespace harkwell::testing {

class PrivateSessionBus {
 public:
  // Makes the private folder and the daemon's configuration; the daemon is not started yet.
  PrivateSessionBus();
  ~PrivateSessionBus();
  PrivateSessionBus(const PrivateSessionBus&) = delete;
  PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

  // Starts dbus-daemon and waits until its socket accepts connections. Empty on success;
  // otherwise why not, with the daemon's output.
  std::string start(std::chrono::milliseconds deadline = std::chrono::seconds(10));
  // Ends the daemon abruptly and waits for it to be gone.
  void kill();
  // Freezes the daemon (SIGSTOP): connections stay open but nothing is answered. resume() lets it
  // go on.
  void pause();
  void resume();

  // The bus's address, "unix:path=/tmp/.../bus", as DBUS_SESSION_BUS_ADDRESS gives it.
  std::string address() const { return "unix:path=" + socketPath_; }
  const std::string& folder() const { return folder_; }
  const std::string& serviceFolder() const { return serviceFolder_; }
  std::string output() const;

 private:
  std::string folder_;
  std::string socketPath_;
  std::string configPath_;
  std::string serviceFolder_;
  std::string outputPath_;
  ChildProcess daemon_;
};

// A unix socket that takes connections and never says a word: a bus that does not answer.
class SilentUnixSocket {
 public:
  explicit SilentUnixSocket(const std::string& path);
  ~SilentUnixSocket();
  SilentUnixSocket(const SilentUnixSocket&) = delete;
  SilentUnixSocket& operator=(const SilentUnixSocket&) = delete;

  bool isListening() const { return fd_ >= 0; }
  std::string address() const { return "unix:path=" + path_; }

 private:
  std::string path_;
  int fd_ = -1;
};

}  // namespace harkwell::testing
