#include "tests/support/PrivatePulseServer.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
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
bool PrivatePulseServer::isInstalled() {
  return ChildProcess::findProgram("pulseaudio").has_value();
}

PrivatePulseServer::PrivatePulseServer() {
  std::string pattern = (std::filesystem::temp_directory_path() / "harkwell-pulse-XXXXXX").string();
  if (mkdtemp(pattern.data())) folder_ = pattern;
  for (const char* sub : {"home", "runtime", "config", "state"}) {
    const std::string path = folder_ + "/" + sub;
    mkdir(path.c_str(), 0700);
  }
  socketPath_ = folder_ + "/native";
  outputPath_ = folder_ + "/daemon.log";
}

PrivatePulseServer::~PrivatePulseServer() {
  daemon_.stop(SIGKILL, std::chrono::seconds(5));
  std::error_code ignored;
  if (!folder_.empty()) std::filesystem::remove_all(folder_, ignored);
}

std::string PrivatePulseServer::start(std::chrono::milliseconds deadline) {
  if (!isInstalled()) return "the pulseaudio program is not installed (Debian package pulseaudio)";
  if (folder_.empty()) return "cannot make a temporary folder";
  if (daemon_.isRunning()) return "already running";
  // The daemon sees only these variables: its own folders, and no display or session bus.
  const std::map<std::string, std::string> environment{
      {"PATH", "/usr/local/bin:/usr/bin:/bin"},           {"HOME", folder_ + "/home"},
      {"XDG_RUNTIME_DIR", folder_ + "/runtime"},          {"XDG_CONFIG_HOME", folder_ + "/config"},
      {"PULSE_RUNTIME_PATH", folder_ + "/runtime/pulse"}, {"PULSE_STATE_PATH", folder_ + "/state"},
  };
  // The socket module comes last, so a socket that answers means the devices are there.
  const std::vector<std::string> argv{
      "pulseaudio",
      "-n",
      "--daemonize=no",
      "--system=no",
      "--exit-idle-time=-1",
      "--disallow-exit=yes",
      "--use-pid-file=no",
      "--realtime=no",
      "--high-priority=no",
      "--log-target=stderr",
      "-L",
      std::string("module-null-sink sink_name=") + kNullSinkName +
          " sink_properties='device.description=\"" + kNullSinkDescription + "\"'",
      "-L",
      std::string("module-null-source source_name=") + kNullSourceName + " description=\"" +
          kNullSourceDescription + "\"",
      "-L",
      "module-native-protocol-unix auth-anonymous=1 socket=" + socketPath_,
  };
  std::string error;
  if (!daemon_.start(argv, environment, outputPath_, &error)) return error;
  return WaitForDaemonSocket(daemon_, "pulseaudio", socketPath_, deadline,
                             [this] { return output(); });
}

std::shared_ptr<PulseAudioHardwareService> PrivatePulseServer::connectService() const {
  PulseAudioHardwareService::Options options;
  options.server = address();
  return PulseAudioHardwareService::create(options);
}

std::string PrivatePulseServer::startRecorder(ChildProcess& recorder, const std::string& source) {
  std::string error;
  if (!recorder.start({"parecord", "--raw", "--device=" + source, "/dev/null"},
                      {{"PULSE_SERVER", address()}, {"HOME", folder_ + "/home"}},
                      folder_ + "/parecord.log", &error)) {
    return error;
  }
  return {};
}

void PrivatePulseServer::kill() {
  daemon_.stop(SIGKILL, std::chrono::seconds(5));
}

void PrivatePulseServer::stop() {
  daemon_.stop(SIGTERM, std::chrono::seconds(5));
}

void PrivatePulseServer::pause() {
  if (daemon_.isRunning()) ::kill(daemon_.pid(), SIGSTOP);
}

void PrivatePulseServer::resume() {
  if (daemon_.isRunning()) ::kill(daemon_.pid(), SIGCONT);
}

bool PrivatePulseServer::isRunning() {
  return daemon_.isRunning();
}

std::string PrivatePulseServer::output() const {
  std::ifstream file(outputPath_);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace harkwell::testing
