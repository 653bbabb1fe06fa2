// Who uses each device, as the harkwell program shows it when a user runs it: `list` and `watch`,
// readable and JSON, on a scenario whose devices have consumers of every kind; and the scenario's
// consumers refused with their line and column when they are wrong.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/cli/HarkwellRun.h"
#include "tests/cli/WatchLines.h"

namespace harkwell::testing {
namespace {

using namespace std::chrono_literals;
using nlohmann::ordered_json;

// A microphone a recorder, a level meter and an echo canceller feeding a sandboxed meeting use; a
// speaker whose sound is captured; a camera a media server holds for an application; and a line
// input nobody uses. Then the camera's client leaves and the line input gets a recorder.
const char* const kScenario = R"({
  "audio": [
    {"deviceID": 100, "deviceUID": "usb-mic", "name": "USB Microphone", "modelUID": "0d8c:0014",
     "transportType": "USB", "isRunning": true, "consumers": [
       {"processID": 4242, "isProcessIDVerified": true, "executablePath": "/usr/bin/arecord",
        "processName": "arecord", "applicationName": "Voice Recorder"},
       {"processID": 900, "isProcessIDVerified": true, "processName": "pavucontrol",
        "applicationName": "Volume Control", "kind": "LevelMeter"},
       {"processID": 17, "isProcessIDVerified": true, "executablePath": "/usr/bin/pipewire",
        "applicationName": "Echo-Cancel Source", "kind": "Filter", "feeds": [
          {"processID": 5120, "applicationName": "Meeting", "applicationID": "org.example.Meeting",
           "sandbox": "Flatpak", "sandboxApplicationID": "org.example.Meeting"}]}]},
    {"deviceID": 102, "deviceUID": "speakers", "name": "Speakers", "modelUID": "builtin:speakers",
     "transportType": "BuiltIn", "inputChannelCount": 0, "outputChannelCount": 1,
     "consumers": [{"processID": 3001, "isProcessIDVerified": true, "processName": "obs",
                    "kind": "Monitor"}]},
    {"deviceID": 104, "deviceUID": "line-in", "name": "Line In", "modelUID": "builtin:line",
     "transportType": "BuiltIn"}],
  "video": [
    {"deviceID": 200, "deviceUID": "cam", "name": "HD Webcam", "modelUID": "046d:0825",
     "transportType": "USB", "isRunning": true, "consumers": [
       {"processID": 1200, "isProcessIDVerified": true, "processName": "pipewire",
        "kind": "MediaServer", "feeds": [{"processID": 1300, "isProcessIDVerified": true,
                                          "processName": "cheese", "applicationName": "Cheese"}]}]}],
  "steps": [
    {"at": 0.05, "action": "set-consumers", "device": "cam", "consumers": [
       {"processID": 1200, "isProcessIDVerified": true, "processName": "pipewire",
        "kind": "MediaServer"}]},
    {"at": 0.10, "action": "set-consumers", "device": 104, "consumers": [
       {"processID": 7000, "processName": "parecord"}]}
  ]
})";

// Each line of `text` without its local time of day ("01:52:20.123  ").
std::vector<std::string> WithoutTimes(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos;
       start = end + 1) {
    lines.push_back(text.substr(start + 14, end - start - 14));
  }
  return lines;
}

TEST(HarkwellListConsumers, TheTableShowsEachConsumerUnderItsDevice) {
  const TemporaryFile scenario(kScenario);
  const auto result = RunHarkwell({"list", "--scenario", scenario.path()});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(
      result.out,
      "    ID  TYPE   NAME            TRANSPORT  IN  OUT  INPUT SOURCE  SUPPORTED        UID\n"
      "*  100  Audio  USB Microphone  USB         1    0  -             yes              usb-mic\n"
      "        Voice Recorder      pid 4242          Application  /usr/bin/arecord\n"
      "        Volume Control      pid 900           LevelMeter   pavucontrol\n"
      "        Echo-Cancel Source  pid 17            Filter       /usr/bin/pipewire\n"
      "          -> Meeting        claimed pid 5120  Application  Flatpak org.example.Meeting\n"
      "   102  Audio  Speakers        BuiltIn     0    1  -             NoInputChannels  speakers\n"
      "        obs                 pid 3001          Monitor      obs\n"
      "   104  Audio  Line In         BuiltIn     1    0  -             yes              line-in\n"
      "*  200  Video  HD Webcam       USB         1    0  -             yes              cam\n"
      "        pipewire            pid 1200          MediaServer  pipewire\n"
      "          -> Cheese         pid 1300          Application  cheese\n");
}

TEST(HarkwellListConsumers, JsonCarriesEveryConsumerFieldAfterTheDeviceFields) {
  const TemporaryFile scenario(kScenario);
  const auto result = RunHarkwell({"list", "--json", "--scenario", scenario.path()});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto devices = ordered_json::parse(result.out);
  ASSERT_EQ(devices.size(), 4u) << result.out;
  EXPECT_EQ(devices[0].dump(),
            R"({"deviceID":100,"mediaType":"Audio","deviceUID":"usb-mic","modelUID":"0d8c:0014",)"
            R"("transportType":"USB","name":"USB Microphone","inputSourceName":null,)"
            R"("inputChannelCount":1,"outputChannelCount":0,"isConnected":true,"isRunning":true,)"
            R"("unsupportedReason":null,"consumers":[)"
            R"({"processID":4242,"isProcessIDVerified":true,"executablePath":"/usr/bin/arecord",)"
            R"("processName":"arecord","applicationName":"Voice Recorder","applicationID":null,)"
            R"("sandbox":"None","sandboxApplicationID":null,"kind":"Application","feeds":[]},)"
            R"({"processID":900,"isProcessIDVerified":true,"executablePath":null,)"
            R"("processName":"pavucontrol","applicationName":"Volume Control",)"
            R"("applicationID":null,"sandbox":"None","sandboxApplicationID":null,)"
            R"("kind":"LevelMeter","feeds":[]},)"
            R"({"processID":17,"isProcessIDVerified":true,"executablePath":"/usr/bin/pipewire",)"
            R"("processName":null,"applicationName":"Echo-Cancel Source","applicationID":null,)"
            R"("sandbox":"None","sandboxApplicationID":null,"kind":"Filter","feeds":[)"
            R"({"processID":5120,"isProcessIDVerified":false,"executablePath":null,)"
            R"("processName":null,"applicationName":"Meeting",)"
            R"("applicationID":"org.example.Meeting","sandbox":"Flatpak",)"
            R"("sandboxApplicationID":"org.example.Meeting","kind":"Application",)"
            R"("feeds":[]}]}]})");
  EXPECT_EQ(devices[1]["consumers"][0]["kind"], "Monitor");
  EXPECT_FALSE(devices[2].contains("consumers")) << "a device nobody uses prints as before";
  EXPECT_EQ(devices[3]["consumers"][0]["kind"], "MediaServer");
  EXPECT_EQ(devices[3]["consumers"][0]["feeds"][0]["applicationName"], "Cheese");
}

TEST(HarkwellWatchConsumers, PrintsALineWhenADevicesConsumersChange) {
  const TemporaryFile scenario(kScenario);
  const auto result = RunHarkwell({"watch", "--scenario", scenario.path()});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(
      WithoutTimes(result.out),
      (std::vector<std::string>{
          "updating devices",
          "InitialDiscovery    Audio   104  idle     Line In",
          "InitialDiscovery    Audio   102  idle     Speakers  unsupported: NoInputChannels",
          "Consumers           Audio   102  idle     Speakers  unsupported: NoInputChannels  used "
          "by obs (pid 3001, Monitor)",
          "InitialDiscovery    Audio   100  running  USB Microphone",
          "Consumers           Audio   100  running  USB Microphone  used by Voice Recorder (pid "
          "4242), Volume Control (pid 900, LevelMeter), Echo-Cancel Source (pid 17, Filter) -> "
          "[Meeting (claimed pid 5120)]",
          "InitialDiscovery    Video   200  running  HD Webcam",
          "Consumers           Video   200  running  HD Webcam  used by pipewire (pid 1200, "
          "MediaServer) -> [Cheese (pid 1300)]",
          "devices updated",
          "Consumers           Video   200  running  HD Webcam  used by pipewire (pid 1200, "
          "MediaServer)",
          "Consumers           Audio   104  idle     Line In  used by parecord (claimed pid 7000)",
      }))
      << result.out;
}

TEST(HarkwellWatchConsumers, JsonPrintsTheConsumersBesideTheDevice) {
  const TemporaryFile scenario(kScenario);
  const auto result = RunHarkwell({"watch", "--json", "--scenario", scenario.path()});
  ASSERT_EQ(result.status, 0) << result.err;
  std::vector<nlohmann::json> consumerLines;
  for (std::size_t start = 0, end; (end = result.out.find('\n', start)) != std::string::npos;
       start = end + 1) {
    auto line = ParseWatchLine(result.out.substr(start, end - start));
    if (line.value("type", "") == "consumers") consumerLines.push_back(std::move(line));
  }
  ASSERT_EQ(consumerLines.size(), 5u) << result.out;
  const auto last = consumerLines.back();
  EXPECT_EQ(last["device"], (nlohmann::json{{"deviceID", 104},
                                            {"mediaType", "Audio"},
                                            {"deviceUID", "line-in"},
                                            {"modelUID", "builtin:line"},
                                            {"transportType", "BuiltIn"},
                                            {"name", "Line In"},
                                            {"inputSourceName", nullptr},
                                            {"inputChannelCount", 1},
                                            {"outputChannelCount", 0},
                                            {"isConnected", true},
                                            {"isRunning", false},
                                            {"unsupportedReason", nullptr}}));
  EXPECT_EQ(last["consumers"],
            (nlohmann::json::array({nlohmann::json{{"processID", 7000},
                                                   {"isProcessIDVerified", false},
                                                   {"executablePath", nullptr},
                                                   {"processName", "parecord"},
                                                   {"applicationName", nullptr},
                                                   {"applicationID", nullptr},
                                                   {"sandbox", "None"},
                                                   {"sandboxApplicationID", nullptr},
                                                   {"kind", "Application"},
                                                   {"feeds", nlohmann::json::array()}}})));
  EXPECT_EQ(consumerLines[3]["device"]["deviceID"], 200);
  EXPECT_EQ(consumerLines[3]["consumers"][0]["feeds"], nlohmann::json::array());
}

TEST(HarkwellWatchConsumers, AScenarioWithoutConsumersPrintsNoConsumerLines) {
  const TemporaryFile scenario(R"({"audio": [{"deviceID": 100, "deviceUID": "m", "name": "M",
    "modelUID": "1:2"}], "steps": [{"at": 0.05, "action": "run", "device": 100}]})");
  const auto result = RunHarkwell({"watch", "--scenario", scenario.path()});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(
      WithoutTimes(result.out),
      (std::vector<std::string>{"updating devices", "InitialDiscovery    Audio   100  idle     M",
                                "devices updated", "ChangedRunning      Audio   100  running  M"}));
}

TEST(HarkwellConsumerErrors, ABadConsumerIsRefusedAtItsLineAndColumn) {
  const TemporaryFile scenario(R"({"video": [{"deviceID": 200, "deviceUID": "cam", "name": "C",
    "consumers": [{"processID": 12, "kind": "Viewer"}]}]})");
  const auto result = RunHarkwell({"list", "--scenario", scenario.path()});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "harkwell: " + scenario.path() +
                            ":2:45: \"kind\" must be \"Application\", \"LevelMeter\", \"Monitor\", "
                            "\"Filter\" or \"MediaServer\"\n");
}

TEST(HarkwellConsumerErrors, ASetConsumersStepOnADeviceNotConnectedIsRefused) {
  const TemporaryFile scenario(R"({"audio": [{"deviceID": 100, "deviceUID": "m", "name": "M"}],
    "steps": [{"at": 1, "action": "set-consumers", "device": 101, "consumers": []}]})");
  const auto result = RunHarkwell({"watch", "--scenario", scenario.path()});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "harkwell: " + scenario.path() +
                            ":2:62: no device with ID 101 is connected at this point\n");
}

}  // namespace
}  // namespace harkwell::testing
