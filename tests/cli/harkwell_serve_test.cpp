// `harkwell serve` on a private session bus (a dbus-daemon of the test's own), with real clients:
// busctl and gdbus for calls, dbus-monitor for signals, the Python example in examples/dbus, and
// once over a private PulseAudio daemon with a real recording. Also what happens when a client
// goes, the bus goes or freezes, the name is taken, or there is no bus at all.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "tests/cli/HarkwellRun.h"
#include "tests/support/PrivatePulseServer.h"
#include "tests/support/PrivateSessionBus.h"

namespace harkwell::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

constexpr auto kDeadline = 15s;
const std::string kSource = HARKWELL_SOURCE_DIR;
constexpr const char* kName = "org.harkwell.Devices1";
constexpr const char* kRoot = "/org/harkwell/Devices1";
constexpr const char* kDevice = "org.harkwell.Devices1.Device";

constexpr const char* kScenario = R"({
  "audio": [{"deviceID": 100, "deviceUID": "usb-mic", "name": "USB Microphone",
             "inputSources": {"1": "Microphone", "2": "Line In"}, "selectedInputSource": 1}],
  "video": [{"deviceID": 200, "deviceUID": "cam", "name": "HD Webcam", "modelUID": "046d:0825",
             "transportType": "USB"}],
  "steps": [
    {"at": 0.2, "action": "run", "device": 100},
    {"at": 0.3, "action": "select-source", "device": 100, "source": 2},
    {"at": 0.4, "action": "plug", "mediaType": "Audio",
     "device": {"deviceID": 104, "deviceUID": "headset", "name": "Headset"}},
    {"at": 0.5, "action": "unplug", "device": 104}
  ]
})";

// The same scenario without steps: devices that stay as they are.
constexpr const char* kStillScenario = R"({
  "audio": [{"deviceID": 100, "deviceUID": "usb-mic", "name": "USB Microphone",
             "inputSources": {"1": "Microphone"}, "selectedInputSource": 1}],
  "video": [{"deviceID": 200, "deviceUID": "cam", "name": "HD Webcam", "modelUID": "046d:0825",
             "transportType": "USB"}]
})";

// A client program run to its end on the bus.
ProgramResult RunOnBus(const std::vector<std::string>& argv, const PrivateSessionBus& bus) {
  ProgramResult result;
  auto run =
      ChildProcess::launch(argv, {.environment = {{"DBUS_SESSION_BUS_ADDRESS", bus.address()}}});
  if (run == nullptr) return result;
  result.status = run->waitForExitCode(kDeadline).value_or(-1);
  result.out = run->unreadOutput();
  result.err = run->errorOutput();
  return result;
}

ProgramResult Busctl(std::vector<std::string> arguments, const PrivateSessionBus& bus) {
  arguments.insert(arguments.begin(), {"busctl", "--user"});
  return RunOnBus(arguments, bus);
}

ProgramResult DeviceProperty(const std::string& path, const std::string& property,
                             const PrivateSessionBus& bus) {
  return Busctl({"get-property", kName, path, kDevice, property}, bus);
}

// True once the name has an owner (gdbus waits for it on the bus itself).
bool WaitForName(const PrivateSessionBus& bus) {
  return RunOnBus({"gdbus", "wait", "--session", "--timeout", "10", kName}, bus).status == 0;
}

std::unique_ptr<ChildProcess> StartServe(const PrivateSessionBus& bus,
                                         std::vector<std::string> arguments,
                                         std::map<std::string, std::string> environment = {}) {
  arguments.insert(arguments.begin(), "serve");
  environment["DBUS_SESSION_BUS_ADDRESS"] = bus.address();
  return StartHarkwell(arguments, environment);
}

// One signal as dbus-monitor prints it: its header, then its arguments one per line, each
// trimmed and with runs of spaces made one ("variant boolean true").
struct BusSignal {
  std::string member;
  std::string path;
  std::vector<std::string> arguments;

  std::string text() const {
    std::string joined = member + " " + path + ":";
    for (const auto& argument : arguments) joined += " " + argument;
    return joined;
  }
};

std::string Field(const std::string& header, const std::string& name) {
  const auto start = header.find(name + "=");
  if (start == std::string::npos) return "";
  const auto from = start + name.size() + 1;
  const auto end = header.find_first_of("; ", from);
  return header.substr(from, end == std::string::npos ? std::string::npos : end - from);
}

// Reads dbus-monitor's output a message at a time. A message's lines come in one write, so once
// its header is read the rest follows at once; the next header (or a short quiet spell) ends it.
class SignalMonitor {
 public:
  // Starts dbus-monitor on the bus for this service's signals and waits until it listens.
  explicit SignalMonitor(const PrivateSessionBus& bus) {
    run_ = ChildProcess::launch({"dbus-monitor", "--address", bus.address(),
                                 "type='signal',interface='org.harkwell.Devices1'",
                                 "type='signal',interface='org.freedesktop.DBus.Properties'",
                                 "type='signal',interface='org.freedesktop.DBus.ObjectManager'"});
    // dbus-monitor first reports its own name (which next() passes over).
    listening_ = run_ != nullptr && nextFromTheBus(kDeadline).has_value();
  }

  bool isListening() const { return listening_; }

  // The next signal of the service, passing over the bus's own (NameAcquired, NameLost).
  std::optional<BusSignal> next(std::chrono::milliseconds deadline) {
    const auto until = std::chrono::steady_clock::now() + deadline;
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          until - std::chrono::steady_clock::now());
      auto signal = nextFromTheBus(std::max(left, 0ms));
      if (!signal || signal->path != "/org/freedesktop/DBus") return signal;
    }
  }

 private:
  std::optional<BusSignal> nextFromTheBus(std::chrono::milliseconds deadline) {
    const auto until = std::chrono::steady_clock::now() + deadline;
    std::optional<BusSignal> signal;
    for (;;) {
      std::optional<std::string> line;
      if (pending_) {
        line.swap(pending_);
      } else {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            until - std::chrono::steady_clock::now());
        line = run_->readLine(signal ? 300ms : std::max(left, 0ms));
      }
      if (!line) return signal;
      if (!line->empty() && line->front() != ' ') {
        if (signal) {
          pending_ = std::move(line);
          return signal;
        }
        signal = BusSignal{.member = Field(*line, "member"), .path = Field(*line, "path")};
        continue;
      }
      if (signal) signal->arguments.push_back(Normalised(*line));
    }
  }

 public:
  // The next signal whose text has `part`, skipping others; nothing once the deadline passes.
  std::optional<BusSignal> nextWith(const std::string& part,
                                    std::chrono::milliseconds deadline = kDeadline) {
    const auto until = std::chrono::steady_clock::now() + deadline;
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          until - std::chrono::steady_clock::now());
      if (left <= 0ms) return std::nullopt;
      auto signal = next(left);
      if (!signal) return std::nullopt;
      if (signal->text().find(part) != std::string::npos) return signal;
    }
  }

 private:
  static std::string Normalised(const std::string& line) {
    static const std::regex kSpaces(" +");
    std::string text = std::regex_replace(line, kSpaces, " ");
    if (!text.empty() && text.front() == ' ') text.erase(0, 1);
    return text;
  }

  std::unique_ptr<ChildProcess> run_;
  std::optional<std::string> pending_;
  bool listening_ = false;
};

class HarkwellServe : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto failure = bus_.start();
    ASSERT_TRUE(failure.empty()) << failure;
  }

  // Starts serve on `scenario` and waits until it owns its name.
  void startServe(const std::string& scenario) {
    scenario_ = std::make_unique<TemporaryFile>(scenario);
    serve_ = StartServe(bus_, {"--scenario", scenario_->path()});
    ASSERT_NE(serve_, nullptr);
    ASSERT_TRUE(WaitForName(bus_)) << serve_->errorOutput();
  }

  void expectStopsCleanly() {
    serve_->sendSignal(SIGTERM);
    EXPECT_EQ(serve_->waitForExitCode(kDeadline), 0) << serve_->errorOutput();
  }

  PrivateSessionBus bus_;
  std::unique_ptr<TemporaryFile> scenario_;
  std::unique_ptr<ChildProcess> serve_;
};

TEST_F(HarkwellServe, BusctlReadsTheDevicesAndEveryPropertyOfTheRecord) {
  startServe(kStillScenario);
  EXPECT_EQ(Busctl({"call", kName, kRoot, kName, "GetDevices"}, bus_).out,
            "ao 2 \"/org/harkwell/Devices1/devices/100\" "
            "\"/org/harkwell/Devices1/devices/200\"\n");
  const std::string microphone = "/org/harkwell/Devices1/devices/100";
  const std::string camera = "/org/harkwell/Devices1/devices/200";
  const std::vector<std::pair<std::string, std::string>> expected{
      {"DeviceID", "u 100"},
      {"MediaType", "s \"Audio\""},
      {"DeviceUID", "s \"usb-mic\""},
      {"ModelUID", "s \"\""},
      {"TransportType", "s \"Unknown\""},
      {"Name", "s \"USB Microphone\""},
      {"InputSourceName", "s \"Microphone\""},
      {"InputChannelCount", "u 1"},
      {"OutputChannelCount", "u 0"},
      {"IsConnected", "b true"},
      {"IsRunning", "b false"},
      {"UnsupportedReason", "s \"\""},
      {"Consumers", "aa{sv} 0"}};
  for (const auto& [property, value] : expected) {
    const auto result = DeviceProperty(microphone, property, bus_);
    EXPECT_EQ(result.out, value + "\n") << property << ": " << result.err;
  }
  EXPECT_EQ(DeviceProperty(camera, "ModelUID", bus_).out, "s \"046d:0825\"\n");
  EXPECT_EQ(DeviceProperty(camera, "MediaType", bus_).out, "s \"Video\"\n");
  EXPECT_EQ(DeviceProperty(camera, "TransportType", bus_).out, "s \"USB\"\n");

  const auto managed = Busctl({"--json=short", "call", kName, kRoot,
                               "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"},
                              bus_);
  const auto objects = nlohmann::json::parse(managed.out, nullptr, false);
  ASSERT_FALSE(objects.is_discarded()) << managed.out << managed.err;
  EXPECT_EQ(objects["data"][0].size(), 2u);
  EXPECT_EQ(objects["data"][0][camera][kDevice]["Name"]["data"], "HD Webcam");

  const auto missing = DeviceProperty("/org/harkwell/Devices1/devices/999", "Name", bus_);
  EXPECT_NE(missing.status, 0);
  expectStopsCleanly();
}

TEST_F(HarkwellServe, EveryEventIsASignalAndEachChangeAPropertiesChanged) {
  SignalMonitor monitor(bus_);
  ASSERT_TRUE(monitor.isListening());
  startServe(kScenario);
  const std::string microphone = "/org/harkwell/Devices1/devices/100";
  const std::string headset = "/org/harkwell/Devices1/devices/104";
  // In the order serve sends them, from the initial discovery to the headset leaving.
  const std::vector<std::string> expected{
      "UpdatingDevices /org/harkwell/Devices1: boolean false",
      "InterfacesAdded /org/harkwell/Devices1: object path \"" + microphone + "\"",
      "DeviceEvent /org/harkwell/Devices1: string \"InitialDiscovery\" object path \"" +
          microphone + "\"",
      "InterfacesAdded /org/harkwell/Devices1: object path \"/org/harkwell/Devices1/devices/200\"",
      "DeviceEvent /org/harkwell/Devices1: string \"InitialDiscovery\"",
      "UpdatingDevices /org/harkwell/Devices1: boolean true",
      "PropertiesChanged " + microphone +
          ": string \"org.harkwell.Devices1.Device\" array [ dict entry( string \"IsRunning\" "
          "variant boolean true )",
      "DeviceEvent /org/harkwell/Devices1: string \"ChangedRunning\" object path \"" + microphone +
          "\"",
      "PropertiesChanged " + microphone +
          ": string \"org.harkwell.Devices1.Device\" array [ "
          "dict entry( string \"InputSourceName\" variant string \"Line In\" )",
      "DeviceEvent /org/harkwell/Devices1: string \"ChangedInputSource\"",
      "UpdatingDevices /org/harkwell/Devices1: boolean false",
      "InterfacesAdded /org/harkwell/Devices1: object path \"" + headset + "\"",
      "DeviceEvent /org/harkwell/Devices1: string \"Connected\" object path \"" + headset + "\"",
      "UpdatingDevices /org/harkwell/Devices1: boolean true",
      "UpdatingDevices /org/harkwell/Devices1: boolean false",
      "DeviceEvent /org/harkwell/Devices1: string \"Disconnected\" object path \"" + headset + "\"",
      "InterfacesRemoved /org/harkwell/Devices1: object path \"" + headset + "\"",
      "UpdatingDevices /org/harkwell/Devices1: boolean true"};
  for (const auto& part : expected) {
    const auto signal = monitor.next(kDeadline);
    ASSERT_TRUE(signal.has_value()) << "no signal with: " << part << "\n" << serve_->errorOutput();
    EXPECT_THAT(signal->text(), HasSubstr(part));
  }
  expectStopsCleanly();
}

TEST_F(HarkwellServe, TheDeviceEventCarriesTheRecord) {
  SignalMonitor monitor(bus_);
  ASSERT_TRUE(monitor.isListening());
  startServe(kScenario);
  const auto event = monitor.nextWith("string \"ChangedRunning\"");
  ASSERT_TRUE(event.has_value()) << serve_->errorOutput();
  EXPECT_THAT(event->text(), HasSubstr("string \"IsRunning\" variant boolean true"));
  EXPECT_THAT(event->text(), HasSubstr("string \"Name\" variant string \"USB Microphone\""));
  EXPECT_THAT(event->text(), HasSubstr("string \"DeviceID\" variant uint32 100"));
  expectStopsCleanly();
}

TEST_F(HarkwellServe, AClientThatGoesAwayLeavesTheServiceAnswering) {
  startServe(kStillScenario);
  // A client subscribed to every signal of the service, killed without a word.
  auto watcher =
      ChildProcess::launch({"gdbus", "monitor", "--session", "--dest", kName},
                           {.environment = {{"DBUS_SESSION_BUS_ADDRESS", bus_.address()}}});
  ASSERT_NE(watcher, nullptr);
  ASSERT_TRUE(watcher->readLine(kDeadline).has_value()) << watcher->errorOutput();
  watcher->kill();
  // A call that goes unanswered because its caller left first.
  auto caller =
      ChildProcess::launch({"busctl", "--user", "call", kName, kRoot,
                            "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"},
                           {.environment = {{"DBUS_SESSION_BUS_ADDRESS", bus_.address()}}});
  ASSERT_NE(caller, nullptr);
  caller->kill();

  EXPECT_TRUE(serve_->isRunning());
  EXPECT_EQ(DeviceProperty("/org/harkwell/Devices1/devices/100", "Name", bus_).out,
            "s \"USB Microphone\"\n");
  expectStopsCleanly();
}

TEST_F(HarkwellServe, ABusThatGoesAwayEndsTheServiceWithAClearMessageAndStatus1) {
  startServe(kStillScenario);
  bus_.kill();
  EXPECT_EQ(serve_->waitForExitCode(kDeadline), 1);
  EXPECT_THAT(serve_->errorOutput(),
              HasSubstr("harkwell: the session bus closed the connection; stopping\n"));
}

TEST_F(HarkwellServe, AFrozenBusDoesNotKeepTheServiceFromStopping) {
  startServe(kStillScenario);
  bus_.pause();
  serve_->sendSignal(SIGTERM);
  EXPECT_EQ(serve_->waitForExitCode(kDeadline), 0) << serve_->errorOutput();
  bus_.resume();
}

TEST_F(HarkwellServe, ASecondServiceSaysTheNameIsTakenAndExitsWithStatus1) {
  startServe(kStillScenario);
  const TemporaryFile scenario(kStillScenario);
  auto second = StartServe(bus_, {"--scenario", scenario.path()});
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->waitForExitCode(kDeadline), 1);
  EXPECT_EQ(second->errorOutput(),
            "harkwell: org.harkwell.Devices1 is already owned on the session bus (is another "
            "harkwell serve running?)\n");
  EXPECT_TRUE(serve_->isRunning());
  expectStopsCleanly();
}

TEST(HarkwellServeWithoutABus, ItSaysWhyAndExitsWithStatus1) {
  const TemporaryFile scenario(kStillScenario);
  const auto result =
      RunHarkwell({"serve", "--scenario", scenario.path()},
                  {{"DBUS_SESSION_BUS_ADDRESS", ""}, {"XDG_RUNTIME_DIR", "/nonexistent/harkwell"}});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "harkwell: no session bus: DBUS_SESSION_BUS_ADDRESS is not set and "
            "/nonexistent/harkwell/bus does not exist\n");
}

TEST_F(HarkwellServe, TheInterfaceDescriptionItInstallsMatchesWhatItServes) {
  startServe(kStillScenario);
  std::ifstream file(kSource + "/tools/harkwell/serve/data/org.harkwell.Devices1.xml");
  std::stringstream installed;
  installed << file.rdbuf();
  // Each member as "kind name type" (methods and signals by their arguments' types).
  const auto members = [](const std::string& xml, const std::string& interface) {
    std::vector<std::string> found;
    const auto start = xml.find("<interface name=\"" + interface + "\"");
    const auto end = xml.find("</interface>", start);
    if (start == std::string::npos) return found;
    const std::string part = xml.substr(start, end - start);
    static const std::regex kMember(
        R"re(<(property|method|signal) name="([A-Za-z]+)"(?: type="([^"]+)")?)re");
    static const std::regex kArgument(R"re(<arg[^>]* type="([^"]+)")re");
    for (std::sregex_iterator it(part.begin(), part.end(), kMember), last; it != last; ++it) {
      std::string member = (*it)[1].str() + " " + (*it)[2].str() + " " + (*it)[3].str();
      if ((*it)[1] != "property") {
        const auto from = static_cast<std::size_t>(it->position() + it->length());
        const auto to = part.find("</" + (*it)[1].str() + ">", from);
        const std::string arguments = part.substr(from, to - from);
        for (std::sregex_iterator arg(arguments.begin(), arguments.end(), kArgument); arg != last;
             ++arg) {
          member += (*arg)[1].str() + ",";
        }
      }
      found.push_back(member);
    }
    std::sort(found.begin(), found.end());
    return found;
  };
  const auto root = Busctl({"introspect", "--xml-interface", kName, kRoot}, bus_).out;
  const auto device =
      Busctl({"introspect", "--xml-interface", kName, "/org/harkwell/Devices1/devices/100"}, bus_)
          .out;
  EXPECT_EQ(members(installed.str(), kName), members(root, kName));
  EXPECT_EQ(members(installed.str(), kDevice), members(device, kDevice));
  EXPECT_EQ(members(installed.str(), kDevice).size(), 13u);
  expectStopsCleanly();
}

TEST_F(HarkwellServe, TheActivationFileStartsTheServiceOnTheFirstCall) {
  // The installed file names the installed program; this one names the program under test.
  std::ifstream installed(kSource + "/tools/harkwell/serve/data/org.harkwell.Devices1.service.in");
  std::stringstream text;
  text << installed.rdbuf();
  const TemporaryFile scenario(kStillScenario);
  const std::string activation = std::regex_replace(
      text.str(), std::regex("Exec=.*"),
      std::string("Exec=") + HARKWELL_PROGRAM + " serve --scenario " + scenario.path());
  ASSERT_THAT(activation, HasSubstr("Name=org.harkwell.Devices1\n"));
  // The bus reads its service folder when it starts, so this test's bus is started anew.
  PrivateSessionBus bus;
  std::ofstream(bus.serviceFolder() + "/org.harkwell.Devices1.service") << activation;
  const auto failure = bus.start();
  ASSERT_TRUE(failure.empty()) << failure;
  const auto result = Busctl({"call", kName, kRoot, kName, "GetDevices"}, bus);
  EXPECT_EQ(result.status, 0) << result.err << bus.output();
  EXPECT_THAT(result.out, HasSubstr("ao 2 "));
  // The activated service ends with the bus.
}

TEST_F(HarkwellServe, ThePythonExamplePrintsEveryDeviceAtStart) {
  startServe(kStillScenario);
  // Without steps the scenario changes nothing, so the example is stopped after the devices it
  // prints at start.
  auto example =
      ChildProcess::launch({kSource + "/examples/dbus/harkwell-indicator.py"},
                           {.environment = {{"DBUS_SESSION_BUS_ADDRESS", bus_.address()}}});
  ASSERT_NE(example, nullptr);
  EXPECT_EQ(example->readLine(kDeadline), "USB Microphone: idle") << example->errorOutput();
  EXPECT_EQ(example->readLine(kDeadline), "HD Webcam: idle") << example->errorOutput();
  example->kill();
  expectStopsCleanly();
}

// The real thing: a private PulseAudio daemon, serve reading it, and a recording.
TEST(HarkwellServeOnPulseAudio, ARecordingTurnsIsRunningTrueInTheNextChangeAndTheExampleSaysSo) {
  ASSERT_TRUE(PrivatePulseServer::isInstalled()) << "pulseaudio is missing (Debian: pulseaudio)";
  PrivatePulseServer server;
  auto failure = server.start();
  ASSERT_TRUE(failure.empty()) << failure;
  PrivateSessionBus bus;
  failure = bus.start();
  ASSERT_TRUE(failure.empty()) << failure;
  SignalMonitor monitor(bus);
  ASSERT_TRUE(monitor.isListening());
  auto serve = StartServe(bus, {"--audio", "pulse", "--video", "none"},
                          {{"PULSE_SERVER", server.address()}});
  ASSERT_NE(serve, nullptr);
  ASSERT_TRUE(WaitForName(bus)) << serve->errorOutput();

  // The example prints every device at start, then one line for the change it waits for.
  auto example =
      ChildProcess::launch({kSource + "/examples/dbus/harkwell-indicator.py", "1"},
                           {.environment = {{"DBUS_SESSION_BUS_ADDRESS", bus.address()}}});
  ASSERT_NE(example, nullptr);
  const std::string input = PrivatePulseServer::kNullSourceDescription;
  const auto nextLineAbout = [&](const std::string& device) {
    std::optional<std::string> line;
    while ((line = example->readLine(kDeadline)) && line->rfind(device + ": ", 0) != 0) {
    }
    return line;
  };
  EXPECT_EQ(nextLineAbout(input), input + ": idle") << example->errorOutput();

  ChildProcess recorder;
  const auto recording = server.startRecorder(recorder, PrivatePulseServer::kNullSourceName);
  ASSERT_TRUE(recording.empty()) << recording;
  const auto change = monitor.nextWith("PropertiesChanged");
  ASSERT_TRUE(change.has_value()) << serve->errorOutput();
  EXPECT_THAT(change->text(), HasSubstr("string \"IsRunning\" variant boolean true"));
  // Then who records: parecord's process, as the server reports its stream's client.
  const auto consumers = monitor.nextWith(
      "string \"org.harkwell.Devices1.Device\" array [ dict entry( string \"Consumers\"");
  ASSERT_TRUE(consumers.has_value()) << serve->errorOutput();
  EXPECT_THAT(consumers->text(),
              HasSubstr("string \"ProcessID\" variant int32 " + std::to_string(recorder.pid())));
  EXPECT_THAT(consumers->text(), HasSubstr("variant string \"parecord\""));
  const auto said = nextLineAbout(input);
  ASSERT_TRUE(said.has_value()) << example->errorOutput();
  EXPECT_THAT(*said, ::testing::StartsWith(input + ": in use"));
  // Asked to stop after one change, the example ends: the microphone's was the first.
  EXPECT_EQ(example->waitForExitCode(kDeadline), 0) << example->errorOutput();

  serve->sendSignal(SIGINT);
  EXPECT_EQ(serve->waitForExitCode(kDeadline), 0) << serve->errorOutput();
}

}  // namespace
}  // namespace harkwell::testing
