#include "tests/support/PrivatePipeWireStack.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/support/PipeWireGraphSnapshot.h"

namespace harkwell::testing {
namespace {

constexpr std::chrono::seconds kStopDeadline{5};

// Whether something accepts connections on the unix socket at `path`.
bool SocketAnswers(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  const bool answered =
      connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return answered;
}

bool WriteFile(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream file(path);
  file << text;
  return static_cast<bool>(file);
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// The daemon's own configuration, added to the system's: one null sink.
constexpr const char* kDaemonConfiguration = R"(context.objects = [
  { factory = adapter
    args = {
      factory.name     = support.null-audio-sink
      node.name        = harkwell_null_sink
      node.description = "Harkwell Null Output"
      media.class      = Audio/Sink
      audio.position   = [ FL FR ]
    }
  }
]
)";

// WirePlumber must not add the machine's sound cards, cameras or Bluetooth devices to a test's
// graph: only the nodes the test makes are there.
constexpr const char* kSessionManagerMainConfiguration = R"(alsa_monitor.enabled = false
v4l2_monitor.enabled = false
libcamera_monitor.enabled = false
)";
constexpr const char* kSessionManagerBluetoothConfiguration = "bluez_monitor.enabled = false\n";

}  // namespace

std::string PrivatePipeWireStack::missingPrograms() {
  std::string missing;
  for (const char* program : {"dbus-daemon", "pipewire", "wireplumber", "pipewire-pulse", "pw-cli",
                              "pw-record", "pw-loopback"}) {
    if (!ChildProcess::findProgram(program))
      missing += (missing.empty() ? "" : " ") + std::string(program);
  }
  return missing;
}

PrivatePipeWireStack::PrivatePipeWireStack() {
  std::string pattern =
      (std::filesystem::temp_directory_path() / "harkwell-pipewire-XXXXXX").string();
  if (!mkdtemp(pattern.data())) return;
  folder_ = pattern;
  for (const char* sub : {"home", "runtime", "config", "state", "data"}) {
    const std::string path = folder_ + "/" + sub;
    mkdir(path.c_str(), 0700);
  }
  WriteFile(folder_ + "/config/pipewire/pipewire.conf.d/harkwell.conf", kDaemonConfiguration);
  WriteFile(folder_ + "/config/wireplumber/main.lua.d/51-harkwell.lua",
            kSessionManagerMainConfiguration);
  WriteFile(folder_ + "/config/wireplumber/bluetooth.lua.d/51-harkwell.lua",
            kSessionManagerBluetoothConfiguration);
}

PrivatePipeWireStack::~PrivatePipeWireStack() {
  stop();
  std::error_code ignored;
  if (!folder_.empty()) std::filesystem::remove_all(folder_, ignored);
}

std::map<std::string, std::string> PrivatePipeWireStack::daemonEnvironment() const {
  return {
      {"PATH", "/usr/local/bin:/usr/bin:/bin"},
      {"HOME", folder_ + "/home"},
      {"XDG_RUNTIME_DIR", runtimeFolder()},
      {"XDG_CONFIG_HOME", folder_ + "/config"},
      {"XDG_STATE_HOME", folder_ + "/state"},
      {"XDG_DATA_HOME", folder_ + "/data"},
      {"DBUS_SESSION_BUS_ADDRESS", busAddress()},
      // No system bus: nothing of the machine's (logind, BlueZ, rtkit) reaches the stack.
      {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + folder_ + "/no-system-bus"},
      {"PIPEWIRE_LOG_SYSTEMD", "false"},
  };
}

std::map<std::string, std::string> PrivatePipeWireStack::clientEnvironment() const {
  return {
      {"PATH", "/usr/local/bin:/usr/bin:/bin"}, {"HOME", folder_ + "/home"},
      {"XDG_RUNTIME_DIR", runtimeFolder()},     {"PIPEWIRE_REMOTE", remote()},
      {"PULSE_SERVER", pulseAddress()},         {"DBUS_SESSION_BUS_ADDRESS", busAddress()},
  };
}

std::string PrivatePipeWireStack::start(std::chrono::milliseconds deadline) {
  if (folder_.empty()) return "cannot make a temporary folder";
  if (const std::string missing = missingPrograms(); !missing.empty()) {
    return "not installed: " + missing + " (scripts/install-deps.sh installs them)";
  }
  const auto giveUp = std::chrono::steady_clock::now() + deadline;
  if (!busStarted_) {
    if (std::string error = bus_.start(deadline); !error.empty()) return error;
    busStarted_ = true;
  }

  std::string error;
  if (!daemon_.isRunning()) {
    if (!daemon_.start({"pipewire"}, daemonEnvironment(), logPath("pipewire"), &error)) {
      return error;
    }
    while (!SocketAnswers(remote())) {
      if (!daemon_.isRunning()) return "pipewire exited at start-up:\n" + output();
      if (std::chrono::steady_clock::now() >= giveUp) {
        return "pipewire did not open its socket in time:\n" + output();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  if (!sessionManager_.isRunning() && !sessionManager_.start({"wireplumber"}, daemonEnvironment(),
                                                             logPath("wireplumber"), &error)) {
    return error;
  }
  if (!pulseServer_.isRunning() && !pulseServer_.start({"pipewire-pulse"}, daemonEnvironment(),
                                                       logPath("pipewire-pulse"), &error)) {
    return error;
  }

  // WirePlumber is ready to link streams once it has exported its own objects; a client of that
  // name appears then.
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      giveUp - std::chrono::steady_clock::now());
  const std::string waited = WaitForPipeWireGraph(
      remote(),
      [](const PipeWireGraphSnapshot& graph) {
        return graph.find("Client", [](const PipeWireObject& client) {
          return client.property("application.name") == "WirePlumber [export]";
        }) != nullptr;
      },
      std::max(left, std::chrono::milliseconds(1)));
  if (!waited.empty()) return "wireplumber did not connect: " + waited + "\n" + output();

  const std::string pulseSocket = runtimeFolder() + "/pulse/native";
  while (!SocketAnswers(pulseSocket)) {
    if (!pulseServer_.isRunning()) return "pipewire-pulse exited at start-up:\n" + output();
    if (std::chrono::steady_clock::now() >= giveUp) {
      return "pipewire-pulse did not open its socket in time:\n" + output();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (!sessionManager_.isRunning()) return "wireplumber exited at start-up:\n" + output();
  return {};
}

void PrivatePipeWireStack::killDaemon() {
  daemon_.stop(SIGKILL, kStopDeadline);
  // WirePlumber ends by itself when its daemon goes; pipewire-pulse keeps running without one and
  // is stopped so that start() begins afresh.
  if (!sessionManager_.waitForExit(kStopDeadline)) sessionManager_.stop(SIGTERM, kStopDeadline);
  pulseServer_.stop(SIGTERM, kStopDeadline);
}

void PrivatePipeWireStack::stop() {
  pulseServer_.stop(SIGTERM, kStopDeadline);
  sessionManager_.stop(SIGTERM, kStopDeadline);
  daemon_.stop(SIGTERM, kStopDeadline);
}

void PrivatePipeWireStack::pauseDaemon() {
  if (daemon_.isRunning()) ::kill(daemon_.pid(), SIGSTOP);
}

void PrivatePipeWireStack::resumeDaemon() {
  if (daemon_.isRunning()) ::kill(daemon_.pid(), SIGCONT);
}

bool PrivatePipeWireStack::isRunning() {
  return daemon_.isRunning();
}

std::string PrivatePipeWireStack::runToEnd(const std::vector<std::string>& argv,
                                           const std::string& logName) {
  ChildProcess program;
  std::string error;
  if (!program.start(argv, clientEnvironment(), logPath(logName), &error)) return error;
  const auto status = program.waitForExit(std::chrono::seconds(10));
  if (!status) {
    program.stop(SIGKILL, kStopDeadline);
    return argv[0] + " did not finish:\n" + ReadFile(logPath(logName));
  }
  if (!WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
    return argv[0] + " failed:\n" + ReadFile(logPath(logName));
  }
  return {};
}

std::string PrivatePipeWireStack::createNode(const std::string& properties) {
  const std::string error = runToEnd(
      {"pw-cli", "create-node", "adapter", "{ " + properties + " object.linger=true }"}, "pw-cli");
  if (!error.empty()) return error;
  // pw-cli prints an error and still exits with 0 when the daemon refuses the node; the name
  // tells whether it is there.
  const std::string marker = "node.name=";
  const std::size_t at = properties.find(marker);
  if (at == std::string::npos) return {};
  std::string name = properties.substr(at + marker.size());
  name = name.substr(0, name.find(' '));
  if (name.size() >= 2 && name.front() == '"' && name.back() == '"') {
    name = name.substr(1, name.size() - 2);
  }
  if (std::string waited = waitForNode(name); !waited.empty()) {
    return waited + "\n" + ReadFile(logPath("pw-cli"));
  }
  return {};
}

std::string PrivatePipeWireStack::createVirtualMicrophone(const std::string& name,
                                                          const std::string& description,
                                                          const std::string& extraProperties) {
  return createNode(
      "factory.name=support.null-audio-sink media.class=Audio/Source/Virtual "
      "audio.position=[FL FR] node.description=\"" +
      description + "\" " + extraProperties + " node.name=" + name);
}

std::string PrivatePipeWireStack::destroyNode(const std::string& name) {
  if (std::string error = runToEnd({"pw-cli", "destroy", name}, "pw-cli"); !error.empty()) {
    return error;
  }
  return waitForNode(name, false);
}

std::string PrivatePipeWireStack::startRecorder(ChildProcess& recorder, const std::string& target,
                                                const std::string& properties) {
  std::vector<std::string> argv{"pw-record", "--target", target};
  if (!properties.empty()) {
    argv.push_back("-P");
    argv.push_back("{ " + properties + " }");
  }
  argv.push_back("/dev/null");
  std::string error;
  if (!recorder.start(argv, clientEnvironment(), logPath("pw-record"), &error)) return error;
  return {};
}

std::string PrivatePipeWireStack::startLoopbackSource(ChildProcess& loopback,
                                                      const std::string& capture,
                                                      const std::string& sourceName,
                                                      const std::string& description) {
  std::string error;
  if (!loopback.start({"pw-loopback", "--capture", capture, "--playback-props",
                       "{ media.class=Audio/Source node.name=" + sourceName +
                           " node.description=\"" + description + "\" }"},
                      clientEnvironment(), logPath("pw-loopback"), &error)) {
    return error;
  }
  return waitForNode(sourceName);
}

std::string PrivatePipeWireStack::waitForNode(const std::string& name, bool present,
                                              std::chrono::milliseconds deadline) {
  const std::string error = WaitForPipeWireGraph(
      remote(),
      [&](const PipeWireGraphSnapshot& graph) {
        return (graph.nodeNamed(name) != nullptr) == present;
      },
      deadline);
  if (error.empty()) return {};
  return "node " + name + (present ? " did not appear: " : " did not go: ") + error;
}

std::string PrivatePipeWireStack::output() const {
  std::string text = "--- dbus-daemon\n" + bus_.output();
  for (const char* name : {"pipewire", "wireplumber", "pipewire-pulse"}) {
    text += std::string("--- ") + name + "\n" + ReadFile(logPath(name));
  }
  return text;
}

}  // namespace harkwell::testing
