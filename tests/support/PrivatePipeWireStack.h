// A PipeWire sound stack of the test's own: a `dbus-daemon --session`, the `pipewire` daemon, the
// `wireplumber` session manager (which links streams to their targets) and `pipewire-pulse` (the
// PulseAudio protocol on top). Everything runs in a temporary folder: its own XDG_RUNTIME_DIR,
// HOME, configuration and state folders and session bus, so it never meets the user's stack or
// another test's. The daemon starts with one null sink (no sound card needed, and WirePlumber then
// adds no fallback sink of its own); tests add virtual microphones with `pw-cli create-node`.
//
// The destructor stops every process and removes the folder, whatever the test's outcome; if the
// test process dies, the kernel kills them. Used from one thread (the test's or the benchmark's),
// which must live as long as the stack (the kernel ties the children to it). Works as root.
#pragma once

#include <chrono>
#include <map>
#include <string>

#include "tests/support/ChildProcess.h"
#include "tests/support/PrivateSessionBus.h"

namespace harkwell::testing {

class PrivatePipeWireStack {
 public:
  // The sink every start makes (from the daemon's configuration, so it is back after a restart).
  static constexpr const char* kNullSinkName = "harkwell_null_sink";
  static constexpr const char* kNullSinkDescription = "Harkwell Null Output";

  // The programs a start needs that are not installed, separated by spaces; empty when all are.
  static std::string missingPrograms();

  // Makes the private folder; nothing is started yet.
  PrivatePipeWireStack();
  ~PrivatePipeWireStack();
  PrivatePipeWireStack(const PrivatePipeWireStack&) = delete;
  PrivatePipeWireStack& operator=(const PrivatePipeWireStack&) = delete;

  // Starts whatever of the stack is not running (the bus first, then pipewire, wireplumber and
  // pipewire-pulse) and waits until the daemon and the PulseAudio socket accept connections and
  // WirePlumber has connected. Empty on success; otherwise why not, with the programs' output.
  std::string start(std::chrono::milliseconds deadline = std::chrono::seconds(20));
  // Ends the pipewire daemon abruptly (a crash, as clients see it) and waits until it, WirePlumber
  // and pipewire-pulse are gone. The bus stays. start() brings the stack back.
  void killDaemon();
  // Stops pipewire-pulse, WirePlumber and the daemon; the bus stays until the stack is destroyed.
  void stop();
  // Freezes the pipewire daemon (SIGSTOP): it keeps its connections but answers nothing, like a
  // daemon that hangs. resumeDaemon() lets it go on.
  void pauseDaemon();
  void resumeDaemon();
  // Whether the pipewire daemon runs.
  bool isRunning();

  // Makes a node as `pw-cli create-node adapter '{ ... }'` does, with the given properties (in
  // PipeWire's own notation, "node.name=x media.class=Audio/Source/Virtual ...") and
  // object.linger=true, so it stays after pw-cli exits; waits until the daemon shows it. Empty on
  // success; otherwise why not.
  std::string createNode(const std::string& properties);
  // A virtual microphone: a null-audio-sink node of class Audio/Source/Virtual with two channels.
  // `extraProperties` are added to the node's (for example "device.api=bluez5").
  std::string createVirtualMicrophone(const std::string& name, const std::string& description,
                                      const std::string& extraProperties = {});
  // Removes the node named `name` with `pw-cli destroy` and waits until the daemon has. Empty on
  // success; otherwise why not.
  std::string destroyNode(const std::string& name);

  // Starts `pw-record` recording from the node named `target` into /dev/null, as a program that
  // uses the microphone would; `properties` are added to the stream's (pw-record -P), such as
  // "stream.monitor=true". Empty on success; otherwise why not.
  std::string startRecorder(ChildProcess& recorder, const std::string& target,
                            const std::string& properties = {});
  // Starts `pw-loopback` taking from the node named `capture` and offering what it takes as a
  // new source node named `sourceName` (class Audio/Source): a filter in front of a microphone.
  // Both halves share one node.link-group. Empty on success; otherwise why not.
  std::string startLoopbackSource(ChildProcess& loopback, const std::string& capture,
                                  const std::string& sourceName, const std::string& description);

  // Runs a short-lived client program (pactl, pw-cli, pw-link, ...) in clientEnvironment() to
  // its end, its output in the log named `logName`; empty when it exited with status 0,
  // otherwise why not, with its output.
  std::string runToEnd(const std::vector<std::string>& argv, const std::string& logName);

  // Waits until the daemon shows a node named `name` (or, with `present` false, none). Empty on
  // success; otherwise why not.
  std::string waitForNode(const std::string& name, bool present = true,
                          std::chrono::milliseconds deadline = std::chrono::seconds(10));

  // The daemon's socket: a libpipewire remote name that works from any environment.
  std::string remote() const { return runtimeFolder() + "/pipewire-0"; }
  // pipewire-pulse's socket as a libpulse server string ("unix:/tmp/.../pulse/native").
  std::string pulseAddress() const { return "unix:" + runtimeFolder() + "/pulse/native"; }
  // The session bus's address ("unix:path=/tmp/.../bus").
  std::string busAddress() const { return bus_.address(); }
  // An environment for a client program: it finds this stack's PipeWire daemon, PulseAudio
  // server and session bus, and nothing of the user's.
  std::map<std::string, std::string> clientEnvironment() const;
  const std::string& folder() const { return folder_; }
  std::string runtimeFolder() const { return folder_ + "/runtime"; }
  // What the stack's programs wrote so far, each under its own heading.
  std::string output() const;

 private:
  // The environment the stack's own programs run with.
  std::map<std::string, std::string> daemonEnvironment() const;
  std::string logPath(const std::string& name) const { return folder_ + "/" + name + ".log"; }

  std::string folder_;
  PrivateSessionBus bus_;
  bool busStarted_ = false;
  ChildProcess daemon_;
  ChildProcess sessionManager_;
  ChildProcess pulseServer_;
};

}  // namespace harkwell::testing
