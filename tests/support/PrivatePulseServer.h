// A pulseaudio daemon of the test's own. It runs on a private socket in a temporary folder, with
// its own HOME, runtime and state folders and no D-Bus, so it never meets the user's server or
// another test's. It starts with one null sink and one null source (no sound card needed), and
// the destructor stops it and removes the folder, whatever the test's outcome; if the test process
// dies, the kernel kills the daemon.
//
// Used from one thread (the test's or the benchmark's). Works as root, as CI runs.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#include "tests/support/ChildProcess.h"

namespace harkwell::testing {

class PrivatePulseServer {
 public:
  // The devices every start loads.
  static constexpr const char* kNullSinkName = "harkwell_null_sink";
  static constexpr const char* kNullSinkDescription = "Harkwell Null Output";
  static constexpr const char* kNullSourceName = "harkwell_null_source";
  static constexpr const char* kNullSourceDescription = "Harkwell Null Input";

  // Whether the `pulseaudio` program is installed.
  static bool isInstalled();

  // Makes the private folder; the daemon is not started yet.
  PrivatePulseServer();
  ~PrivatePulseServer();
  PrivatePulseServer(const PrivatePulseServer&) = delete;
  PrivatePulseServer& operator=(const PrivatePulseServer&) = delete;

  // Starts the daemon and waits until its socket accepts connections (its devices are loaded by
  // then). Empty on success; otherwise why not: the program is not installed, or the daemon's
  // output.
  std::string start(std::chrono::milliseconds deadline = std::chrono::seconds(10));
  // A PulseAudio service connected to this server, created as a client would create it (it waits
  // for the server's whole state); null when it could not be made.
  std::shared_ptr<PulseAudioHardwareService> connectService() const;
  // Ends the daemon abruptly (a crash, as clients see it) and waits for it to be gone.
  void kill();
  // Asks the daemon to exit and waits for it.
  void stop();
  bool isRunning();
  // Freezes the daemon (SIGSTOP): it keeps its connections but answers nothing, like a server
  // that hangs. resume() lets it go on.
  void pause();
  void resume();

  // Starts `parecord` recording from `source` on this server into /dev/null, as a program that
  // uses the microphone would. Empty on success; otherwise why not.
  std::string startRecorder(ChildProcess& recorder, const std::string& source);

  // The libpulse server string ("unix:/tmp/.../native").
  std::string address() const { return "unix:" + socketPath_; }
  const std::string& socketPath() const { return socketPath_; }
  const std::string& folder() const { return folder_; }
  // What the daemon wrote so far.
  std::string output() const;

 private:
  std::string folder_;
  std::string socketPath_;
  std::string outputPath_;
  ChildProcess daemon_;
};

}  // namespace harkwell::testing
