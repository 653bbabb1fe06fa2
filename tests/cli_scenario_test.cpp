// The harkwell program's scenario files: parsing (with the line and column of every complaint),
// the positions index behind those line numbers, the transport names, and playing a scenario on
// the simulated services.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>

#include "HarkwellFoundation/Audio/AudioDeviceProperties.h"
#include "HarkwellFoundation/Consumers/MediaDeviceConsumers.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/DeviceConsumerCoding.h"
#include "HarkwellFoundation/Video/VideoDeviceProperties.h"
#include "tests/support/SimulatedServicesFixture.h"
#include "tools/harkwell/JsonPositions.h"
#include "tools/harkwell/Scenario.h"
#include "tools/harkwell/ScenarioPlayer.h"

namespace harkwell::cli {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

}  // namespace

// Readable positions in failure messages.
void PrintTo(const TextPosition& position, std::ostream* out) {
  *out << position.line << ":" << position.column;
}

namespace {

Scenario ParseOrFail(std::string_view text) {
  auto result = ParseScenario(text, "test.json");
  if (auto* error = std::get_if<ScenarioError>(&result)) {
    ADD_FAILURE() << "unexpected error: " << error->text();
    return {};
  }
  return std::get<Scenario>(result);
}

ScenarioError ErrorOf(std::string_view text) {
  auto result = ParseScenario(text, "test.json");
  if (auto* error = std::get_if<ScenarioError>(&result)) return *error;
  ADD_FAILURE() << "the scenario parsed, but an error was expected";
  return {};
}

TEST(ScenarioParsing, ReadsTheExampleFile) {
  auto result = LoadScenarioFile(HARKWELL_SOURCE_DIR "/examples/scenario.json");
  ASSERT_TRUE(std::holds_alternative<Scenario>(result)) << std::get<ScenarioError>(result).text();
  const auto& scenario = std::get<Scenario>(result);
  EXPECT_EQ(scenario.audioDevices.size(), 2u);
  EXPECT_EQ(scenario.videoDevices.size(), 1u);
  EXPECT_FALSE(scenario.steps.empty());
  EXPECT_TRUE(scenario.hasAudio());
  EXPECT_TRUE(scenario.hasVideo());
}

TEST(ScenarioParsing, ReadsEveryDeviceField) {
  const auto scenario = ParseOrFail(R"({"audio": [{
      "deviceID": 7, "deviceUID": "mic-7", "name": "Mic", "modelUID": "0d8c:0014",
      "transportType": "Bluetooth", "inputChannelCount": 2, "outputChannelCount": 3,
      "isRunning": true, "hogModePID": 4242, "inputSources": {"1": "Front", "9": null},
      "selectedInputSource": 9}]})");
  ASSERT_EQ(scenario.audioDevices.size(), 1u);
  const SimulatedAudioDevice& device = scenario.audioDevices[0];
  EXPECT_EQ(device.deviceID, 7u);
  EXPECT_EQ(device.deviceUID, "mic-7");
  EXPECT_EQ(device.name, "Mic");
  EXPECT_EQ(device.modelUID, "0d8c:0014");
  EXPECT_EQ(device.transportType, kAudioDeviceTransportTypeBluetooth);
  EXPECT_EQ(device.inputStreamCount, 2u);
  EXPECT_EQ(device.outputStreamCount, 3u);
  EXPECT_TRUE(device.isRunning);
  EXPECT_EQ(device.hogModePID, 4242);
  EXPECT_EQ(device.selectedDataSource, 9u);
  ASSERT_EQ(device.dataSourceNames.size(), 2u);
  EXPECT_EQ(device.dataSourceNames.at(1), "Front");
  EXPECT_EQ(device.dataSourceNames.at(9), std::nullopt);
}

TEST(ScenarioParsing, LeavesOutFieldsAtTheirDefaultsAndKeepsNullStrings) {
  const auto scenario =
      ParseOrFail(R"({"video": [{"deviceID": 9, "deviceUID": "cam", "name": "Cam"},
                                {"deviceID": 10, "deviceUID": "cam2", "name": "Cam 2",
                                 "modelUID": null}]})");
  ASSERT_EQ(scenario.videoDevices.size(), 2u);
  EXPECT_EQ(scenario.videoDevices[1].modelUID, std::nullopt);
  const SimulatedVideoDevice& device = scenario.videoDevices[0];
  EXPECT_EQ(device.deviceUID, "cam");
  EXPECT_EQ(device.modelUID, std::nullopt);
  EXPECT_EQ(device.transportType, 0u);
  EXPECT_EQ(device.inputStreamCount, 1u);
  EXPECT_EQ(device.outputStreamCount, 0u);
  EXPECT_FALSE(device.isRunning);
  EXPECT_EQ(device.hogModePID, -1);
  EXPECT_FALSE(scenario.hasAudio());
}

TEST(ScenarioParsing, ResolvesStepDevicesByIDAndByUID) {
  const auto scenario = ParseOrFail(R"({
    "audio": [{"deviceID": 5, "deviceUID": "mic", "name": "Mic",
               "inputSources": {"1": "A", "2": "B"}, "selectedInputSource": 1}],
    "steps": [
      {"at": 0.25, "action": "run", "device": "mic"},
      {"at": 0.5, "action": "select-source", "device": 5, "source": 2},
      {"at": 0.5, "action": "plug", "mediaType": "Video",
       "device": {"deviceID": 6, "deviceUID": "cam", "name": "Cam"}},
      {"at": 1, "action": "stop", "device": "cam"},
      {"at": 2, "action": "unplug", "device": 6}]})");
  ASSERT_EQ(scenario.steps.size(), 5u);
  EXPECT_EQ(scenario.steps[0].action, ScenarioAction::Run);
  EXPECT_EQ(scenario.steps[0].deviceID, 5u);
  EXPECT_EQ(scenario.steps[0].at, 0.25);
  EXPECT_EQ(scenario.steps[1].action, ScenarioAction::SelectSource);
  EXPECT_EQ(scenario.steps[1].inputSource, 2u);
  EXPECT_EQ(scenario.steps[2].action, ScenarioAction::Plug);
  EXPECT_EQ(scenario.steps[2].mediaType, MediaType::Video);
  ASSERT_TRUE(scenario.steps[2].videoDevice.has_value());
  EXPECT_EQ(scenario.steps[2].videoDevice->deviceUID, "cam");
  EXPECT_EQ(scenario.steps[3].action, ScenarioAction::Stop);
  EXPECT_EQ(scenario.steps[3].deviceID, 6u);
  EXPECT_EQ(scenario.steps[3].mediaType, MediaType::Video);
  EXPECT_EQ(scenario.steps[4].action, ScenarioAction::Unplug);
  EXPECT_TRUE(scenario.hasVideo());
}

TEST(ScenarioErrors, MalformedJsonNamesFileLineAndColumn) {
  const auto error = ErrorOf("{\n  \"audio\": [\n    {\"deviceID\": 5,,}\n  ]\n}\n");
  EXPECT_EQ(error.file, "test.json");
  EXPECT_EQ(error.position, (TextPosition{3, 20}));
  EXPECT_NE(error.message.find("syntax error"), std::string::npos) << error.message;
  EXPECT_EQ(error.text().rfind("test.json:3:20: ", 0), 0u) << error.text();
}

TEST(ScenarioErrors, ANumberTooLargeForADoubleIsAnErrorAtTheNumber) {
  const auto error = ErrorOf("{\n  \"steps\": [{\"at\": 3e308}]\n}\n");
  EXPECT_EQ(error.file, "test.json");
  EXPECT_EQ(error.position, (TextPosition{2, 20}));
  EXPECT_EQ(error.message, "number too large");
  EXPECT_EQ(ErrorOf("-1e999").position, (TextPosition{1, 1}));
}

TEST(ScenarioErrors, AStepTimeOutsideZeroToTheLimitPointsAtIt) {
  const std::string expected = "\"at\" must be a number of seconds from 0 to 10000000";
  for (const std::string at : {"1e300", "-1", "-0.001", "10000000.5", "1e8", "\"nan\"", "\"inf\"",
                               "\"1\"", "null", "true"}) {
    const auto error = ErrorOf(R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M"}],
  "steps": [{"at": )" + at + R"(, "action": "run", "device": 5}]})");
    EXPECT_EQ(error.position, (TextPosition{2, 20})) << at;
    EXPECT_EQ(error.message, expected) << at;
    EXPECT_EQ(error.text(), "test.json:2:20: " + expected) << at;
  }
}

TEST(ScenarioErrors, JsonHasNoNaNOrInfinityForAStepTime) {
  for (const std::string at : {"NaN", "Infinity", "inf"}) {
    const auto error =
        ErrorOf(R"({"steps": [{"at": )" + at + R"(, "action": "run", "device": 5}]})");
    EXPECT_EQ(error.position, (TextPosition{1, 19})) << at;
    EXPECT_NE(error.message.find("syntax error"), std::string::npos) << at << ": " << error.message;
  }
}

TEST(ScenarioParsing, AStepTimeMayBeZeroOrTheLimit) {
  const auto scenario = ParseOrFail(R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M"}],
    "steps": [{"at": 0, "action": "run", "device": 5},
              {"at": 10000000, "action": "stop", "device": 5}]})");
  ASSERT_EQ(scenario.steps.size(), 2u);
  EXPECT_EQ(scenario.steps[0].at, 0.0);
  EXPECT_EQ(scenario.steps[1].at, 1e7);
}

TEST(ScenarioErrors, AnEmptyFileIsAnErrorAtItsStart) {
  const auto error = ErrorOf("");
  EXPECT_EQ(error.position, (TextPosition{1, 1}));
}

TEST(ScenarioErrors, AMissingFileGivesTheSystemsReasonWithoutAPosition) {
  auto result = LoadScenarioFile("/nonexistent/harkwell/scenario.json");
  ASSERT_TRUE(std::holds_alternative<ScenarioError>(result));
  EXPECT_EQ(std::get<ScenarioError>(result).position, std::nullopt);
  EXPECT_EQ(std::get<ScenarioError>(result).text(),
            "/nonexistent/harkwell/scenario.json: No such file or directory");
}

TEST(ScenarioErrors, AFolderIsRefusedAsOne) {
  auto result = LoadScenarioFile(HARKWELL_SOURCE_DIR "/examples");
  ASSERT_TRUE(std::holds_alternative<ScenarioError>(result));
  EXPECT_EQ(std::get<ScenarioError>(result).text(),
            HARKWELL_SOURCE_DIR "/examples: is a folder, not a scenario file");
}

TEST(ScenarioErrors, InvalidUTF8IsReportedAtItsPositionWithTheByteEscaped) {
  const auto error = ErrorOf("{\"video\": [\n  {\"name\": \"Cam \xff\x1b[2J\"}]}");
  EXPECT_EQ(error.position, (TextPosition{2, 17}));
  EXPECT_EQ(error.message, "invalid UTF-8: the byte \\xFF does not start or continue a character");
  // A sequence cut short is reported at its first byte.
  EXPECT_EQ(ErrorOf("{\"a\": \"\xc3\"}").text(),
            "test.json:1:8: invalid UTF-8: the byte \\xC3 does not start or continue a character");
}

TEST(ScenarioErrors, ADirectionOverrideQuotedInASyntaxErrorIsEscaped) {
  const auto error = ErrorOf("{\"a\": \"\xe2\x80\xaex");
  EXPECT_EQ(error.message.find("\xe2\x80\xae"), std::string::npos) << error.message;
  EXPECT_NE(error.message.find("\\u202E"), std::string::npos) << error.message;
}

TEST(ScenarioErrors, ANullNameOrUIDIsRefusedAtIt) {
  const auto name =
      ErrorOf("{\"audio\": [\n  {\"deviceID\": 5, \"deviceUID\": \"m\", \"name\": null}]}");
  EXPECT_EQ(name.text(), "test.json:2:45: \"name\" must be a string");
  const auto uid =
      ErrorOf("{\"video\": [{\"deviceID\": 5, \"deviceUID\": null, \"name\": \"C\"}]}");
  EXPECT_EQ(uid.text(), "test.json:1:41: \"deviceUID\" must be a string");
}

TEST(ScenarioErrors, ASelectedInputSourceOutsideTheInputSourcesIsRefusedAtIt) {
  const auto error = ErrorOf(
      "{\"audio\": [{\"deviceID\": 5, \"deviceUID\": \"m\", \"name\": \"M\",\n"
      "  \"inputSources\": {\"1\": \"A\", \"2\": \"B\"}, \"selectedInputSource\": 3}]}");
  EXPECT_EQ(
      error.text(),
      "test.json:2:64: \"selectedInputSource\" must be one of the \"inputSources\" (1 and 2)");
  const auto withoutSources = ErrorOf(
      R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M", "selectedInputSource": 1}]})");
  EXPECT_EQ(withoutSources.text(),
            "test.json:1:82: \"selectedInputSource\" needs \"inputSources\" to select from");
}

TEST(ScenarioErrors, SelectingASourceTheDeviceDoesNotHaveIsRefusedAtIt) {
  const auto error = ErrorOf(R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M",
    "inputSources": {"1": "A", "2": "B", "4": null}, "selectedInputSource": 1}],
    "steps": [{"at": 1, "action": "select-source", "device": 5, "source": 3}]})");
  EXPECT_EQ(error.text(),
            "test.json:3:75: \"source\" must be one of the device's \"inputSources\" (1, 2 and 4)");
}

TEST(ScenarioErrors, AnUnknownActionPointsAtItsValue) {
  const auto error = ErrorOf(
      "{\"audio\": [{\"deviceID\": 5, \"deviceUID\": \"m\", \"name\": \"M\"}],\n"
      " \"steps\": [\n"
      "   {\"at\": 1, \"action\": \"explode\", \"device\": 5}]}");
  EXPECT_EQ(error.position, (TextPosition{3, 24}));
  EXPECT_NE(error.message.find("\"action\" must be one of"), std::string::npos) << error.message;
}

TEST(ScenarioErrors, AnUnknownKeyPointsAtTheKey) {
  const auto error = ErrorOf("{\"video\": [\n  {\"deviceID\": 5, \"nmae\": \"Cam\"}]}");
  EXPECT_EQ(error.position, (TextPosition{2, 19}));
  EXPECT_EQ(error.message, "unknown key \"nmae\"");
}

TEST(ScenarioErrors, ColumnsCountCharactersNotBytes) {
  const auto error =
      ErrorOf("{\"video\": [{\"name\": \"Kamera \xc3\xa9\xc3\xa9\", \"deviceID\": -4}]}");
  // The two two-byte letters count once each.
  EXPECT_EQ(error.position, (TextPosition{1, 46}));
  EXPECT_NE(error.message.find("\"deviceID\""), std::string::npos) << error.message;
}

TEST(ScenarioErrors, AStepOnADeviceThatIsNotConnectedIsRefused) {
  const auto error = ErrorOf(R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M"}],
    "steps": [{"at": 1, "action": "unplug", "device": 5},
              {"at": 2, "action": "run", "device": 5}]})");
  EXPECT_EQ(error.position->line, 3u);
  EXPECT_EQ(error.message, "no device with ID 5 is connected at this point");
}

TEST(ScenarioErrors, AnUnknownUIDIsRefused) {
  const auto error = ErrorOf(R"({"steps": [{"at": 1, "action": "run", "device": "ghost"}]})");
  EXPECT_EQ(error.message, "no connected device has the UID \"ghost\" at this point");
}

TEST(ScenarioErrors, StepsOutOfTimeOrderAreRefused) {
  const auto error = ErrorOf(R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M"}],
    "steps": [{"at": 2, "action": "run", "device": 5},
              {"at": 1, "action": "stop", "device": 5}]})");
  EXPECT_EQ(error.position, (TextPosition{3, 22}));
  EXPECT_NE(error.message.find("time order"), std::string::npos);
}

TEST(ScenarioErrors, ATransportWithoutACodeForTheMediaTypeIsRefused) {
  const auto error = ErrorOf(
      R"({"video": [{"deviceID": 5, "deviceUID": "c", "name": "C", "transportType": "AirPlay"}]})");
  EXPECT_EQ(error.message, "Video devices have no transport \"AirPlay\"");
  const auto unknown = ErrorOf(
      R"({"audio": [{"deviceID": 5, "deviceUID": "c", "name": "C", "transportType": "usb"}]})");
  EXPECT_NE(unknown.message.find("transport name"), std::string::npos);
}

TEST(ScenarioErrors, ANegativeOrHugeCountIsRefused) {
  EXPECT_NE(ErrorOf(R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M",
                        "inputChannelCount": -1}]})")
                .message.find("\"inputChannelCount\" must be"),
            std::string::npos);
  EXPECT_NE(ErrorOf(R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M",
                        "outputChannelCount": 4294967296}]})")
                .message.find("from 0 to 4294967295"),
            std::string::npos);
}

TEST(ScenarioErrors, TheSystemObjectIDIsRefused) {
  EXPECT_NE(ErrorOf(R"({"audio": [{"deviceID": 1, "deviceUID": "m", "name": "M"}]})")
                .message.find("1 is the system object"),
            std::string::npos);
}

TEST(ScenarioErrors, ADeviceIDOrUIDUsedTwiceIsRefused) {
  EXPECT_EQ(ErrorOf(R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M"}],
                       "video": [{"deviceID": 5, "deviceUID": "c", "name": "C"}]})")
                .message,
            "device 5 is already connected (as a Audio device)");
  EXPECT_EQ(ErrorOf(R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M"},
                                  {"deviceID": 6, "deviceUID": "m", "name": "N"}]})")
                .message,
            "device 5 already has the UID \"m\"");
}

TEST(ScenarioErrors, SelectingASourceNeedsADeviceWithSources) {
  const auto error = ErrorOf(R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M"}],
    "steps": [{"at": 1, "action": "select-source", "device": 5, "source": 2}]})");
  EXPECT_NE(error.message.find("has no input sources"), std::string::npos);
}

TEST(ScenarioErrors, RequiredKeysAndTypesAreChecked) {
  EXPECT_EQ(ErrorOf(R"({"audio": [{"deviceID": 5, "name": "M"}]})").message,
            "missing key \"deviceUID\"");
  EXPECT_EQ(ErrorOf(R"({"audio": [{"deviceID": 5, "deviceUID": 3, "name": "M"}]})").message,
            "\"deviceUID\" must be a string");
  EXPECT_EQ(ErrorOf(R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M", "modelUID": 3}]})")
                .message,
            "\"modelUID\" must be a string or null");
  EXPECT_EQ(ErrorOf(R"([1, 2])").message, "a scenario must be an object");
  EXPECT_EQ(ErrorOf(R"({"steps": {}})").message, "\"steps\" must be an array of steps");
  EXPECT_EQ(ErrorOf(R"({"steps": [{"action": "run", "device": 5}]})").message,
            "missing key \"at\"");
  EXPECT_NE(ErrorOf(R"({"steps": [{"at": 0, "action": "plug", "device": {}}]})")
                .message.find("\"mediaType\""),
            std::string::npos);
}

TEST(JsonPositionsIndex, FindsValuesKeysAndArrayElements) {
  const std::string text = "{\"a\": [10, \"x\",\n  {\"b\": null}],\n \"c\": 2.5}";
  const JsonPositions positions(text);
  using Pointer = Json::json_pointer;
  EXPECT_EQ(positions.valuePosition(Pointer("")), (TextPosition{1, 1}));
  EXPECT_EQ(positions.valuePosition(Pointer("/a")), (TextPosition{1, 7}));
  EXPECT_EQ(positions.valuePosition(Pointer("/a/0")), (TextPosition{1, 8}));
  EXPECT_EQ(positions.valuePosition(Pointer("/a/1")), (TextPosition{1, 12}));
  EXPECT_EQ(positions.valuePosition(Pointer("/a/2")), (TextPosition{2, 3}));
  EXPECT_EQ(positions.valuePosition(Pointer("/a/2/b")), (TextPosition{2, 9}));
  EXPECT_EQ(positions.keyPosition(Pointer("/a/2/b")), (TextPosition{2, 4}));
  EXPECT_EQ(positions.valuePosition(Pointer("/c")), (TextPosition{3, 7}));
  EXPECT_EQ(positions.keyPosition(Pointer("/c")), (TextPosition{3, 2}));
  // A pointer to nothing falls back to its nearest parent.
  EXPECT_EQ(positions.valuePosition(Pointer("/a/2/zzz")), (TextPosition{2, 3}));
}

TEST(ScenarioParsing, ReadsConsumersOfEveryKindWithTheirFeeds) {
  const auto scenario = ParseOrFail(R"({
    "audio": [{"deviceID": 5, "deviceUID": "mic", "name": "Mic", "consumers": [
      {"processID": 4242, "isProcessIDVerified": true, "executablePath": "/usr/bin/arecord",
       "processName": "arecord", "applicationName": "Recorder", "applicationID": "org.example.Rec",
       "sandbox": "Flatpak", "sandboxApplicationID": "org.example.Rec", "kind": "Application"},
      {"processID": 900, "kind": "LevelMeter"},
      {"kind": "Monitor"},
      {"processID": 17, "kind": "Filter", "applicationName": null,
       "feeds": [{"processID": 4300, "applicationName": "Meeting"}]}]}],
    "video": [{"deviceID": 8, "deviceUID": "cam", "name": "Cam", "consumers": [
      {"processID": 1200, "processName": "pipewire", "kind": "MediaServer",
       "feeds": [{"processID": 1300, "sandbox": "Snap", "sandboxApplicationID": "cheese"}]}]}]})");
  ASSERT_EQ(scenario.audioDevices.size(), 1u);
  const std::vector<MediaDeviceConsumer> microphone{
      {.processID = 4242,
       .isProcessIDVerified = true,
       .executablePath = "/usr/bin/arecord",
       .processName = "arecord",
       .applicationName = "Recorder",
       .applicationID = "org.example.Rec",
       .sandbox = MediaDeviceConsumerSandbox::Flatpak,
       .sandboxApplicationID = "org.example.Rec"},
      {.processID = 900, .kind = MediaDeviceConsumerKind::LevelMeter},
      {.kind = MediaDeviceConsumerKind::Monitor},
      {.processID = 17,
       .kind = MediaDeviceConsumerKind::Filter,
       .feeds = {{.processID = 4300, .applicationName = "Meeting"}}}};
  EXPECT_EQ(scenario.audioDevices[0].consumers, microphone);
  ASSERT_EQ(scenario.videoDevices.size(), 1u);
  const std::vector<MediaDeviceConsumer> camera{
      {.processID = 1200,
       .processName = "pipewire",
       .kind = MediaDeviceConsumerKind::MediaServer,
       .feeds = {{.processID = 1300,
                  .sandbox = MediaDeviceConsumerSandbox::Snap,
                  .sandboxApplicationID = "cheese"}}}};
  EXPECT_EQ(scenario.videoDevices[0].consumers, camera);
}

TEST(ScenarioParsing, ASetConsumersStepGivesTheDevicesNewConsumers) {
  const auto scenario = ParseOrFail(R"({
    "video": [{"deviceID": 8, "deviceUID": "cam", "name": "Cam"}],
    "steps": [{"at": 1, "action": "set-consumers", "device": "cam",
               "consumers": [{"processID": 77, "applicationName": "Cheese"}]},
              {"at": 2, "action": "set-consumers", "device": 8, "consumers": []}]})");
  ASSERT_EQ(scenario.steps.size(), 2u);
  EXPECT_EQ(scenario.steps[0].action, ScenarioAction::SetConsumers);
  EXPECT_EQ(scenario.steps[0].mediaType, MediaType::Video);
  EXPECT_EQ(scenario.steps[0].deviceID, 8u);
  EXPECT_EQ(scenario.steps[0].consumers,
            (std::vector<MediaDeviceConsumer>{{.processID = 77, .applicationName = "Cheese"}}));
  EXPECT_TRUE(scenario.steps[1].consumers.empty());
}

// Each bad consumer is refused at the key or value at fault, as every other mistake is.
TEST(ScenarioErrors, BadConsumersAreRefusedWithLineAndColumn) {
  const auto consumersOf = [](const std::string& consumers) {
    return ErrorOf(
               "{\"audio\": [{\"deviceID\": 5, \"deviceUID\": \"m\", \"name\": \"M\",\n"
               "  \"consumers\": " +
               consumers + "}]}")
        .text();
  };
  EXPECT_EQ(consumersOf("{}"), "test.json:2:16: \"consumers\" must be an array of consumers");
  EXPECT_EQ(consumersOf("[7]"), "test.json:2:17: a consumer must be an object");
  EXPECT_EQ(consumersOf("[{\"pid\": 7}]"), "test.json:2:18: unknown key \"pid\"");
  EXPECT_EQ(consumersOf("[{\"processID\": 0}]"),
            "test.json:2:31: \"processID\" must be a process ID (1 or more), or -1 when it is not "
            "known");
  EXPECT_EQ(consumersOf("[{\"processID\": \"7\"}]"),
            "test.json:2:31: \"processID\" must be a whole number from -2147483648 to 2147483647");
  EXPECT_EQ(consumersOf("[{\"isProcessIDVerified\": true}]"),
            "test.json:2:41: only a known \"processID\" can be verified");
  EXPECT_EQ(consumersOf("[{\"kind\": \"Recorder\"}]"),
            "test.json:2:26: \"kind\" must be \"Application\", \"LevelMeter\", \"Monitor\", "
            "\"Filter\" or \"MediaServer\"");
  EXPECT_EQ(consumersOf("[{\"sandbox\": \"Docker\"}]"),
            "test.json:2:29: \"sandbox\" must be \"None\", \"Flatpak\" or \"Snap\"");
  EXPECT_EQ(
      consumersOf("[{\"sandboxApplicationID\": \"x\"}]"),
      "test.json:2:42: \"sandboxApplicationID\" needs a \"sandbox\" (\"Flatpak\" or \"Snap\")");
  EXPECT_EQ(consumersOf("[{\"applicationName\": 3}]"),
            "test.json:2:37: \"applicationName\" must be a string or null");
  EXPECT_EQ(consumersOf("[{\"kind\": \"Monitor\", \"feeds\": []}]"),
            "test.json:2:37: only a \"Filter\" or a \"MediaServer\" feeds other consumers");
  EXPECT_EQ(consumersOf("[{\"kind\": \"Filter\", \"feeds\": [{\"kind\": \"Nope\"}]}]"),
            "test.json:2:55: \"kind\" must be \"Application\", \"LevelMeter\", \"Monitor\", "
            "\"Filter\" or \"MediaServer\"");
}

TEST(ScenarioErrors, ASetConsumersStepNeedsItsConsumers) {
  const auto error = ErrorOf(R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M"}],
    "steps": [{"at": 1, "action": "set-consumers", "device": 5}]})");
  EXPECT_EQ(error.text(), "test.json:2:15: missing key \"consumers\"");
  const auto source = ErrorOf(R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M"}],
    "steps": [{"at": 1, "action": "set-consumers", "device": 5, "consumers": [], "source": 1}]})");
  EXPECT_EQ(source.text(), "test.json:2:82: unknown key \"source\"");
}

// The seam carries consumers fed through at most kMaxDeviceConsumerNesting filters; deeper chains
// are refused where the first list too deep begins.
TEST(ScenarioErrors, ConsumersFedThroughTooManyFiltersAreRefused) {
  std::string chain = "{\"processID\": 1}";
  for (int depth = 0; depth < kMaxDeviceConsumerNesting; ++depth) {
    chain = "{\"kind\": \"Filter\", \"feeds\": [" + chain + "]}";
  }
  const std::string device = R"({"video": [{"deviceID": 5, "deviceUID": "c", "name": "C", )";
  const auto deepest = ParseOrFail(device + "\"consumers\": [" + chain + "]}]}");
  ASSERT_EQ(deepest.videoDevices.size(), 1u);
  EXPECT_EQ(deepest.videoDevices[0].consumers.at(0).kind, MediaDeviceConsumerKind::Filter);

  chain = "{\"kind\": \"Filter\", \"feeds\": [" + chain + "]}";
  const auto error = ErrorOf(device + "\"consumers\": [" + chain + "]}]}");
  EXPECT_EQ(error.message, "consumers may be fed through at most 8 filters or media servers");
  ASSERT_TRUE(error.position.has_value());
  EXPECT_EQ(error.position->line, 1);
}

class ScenarioTransportTest : public testing::SimulatedServicesTest {};

TEST_F(ScenarioTransportTest, EveryTransportNameReadsBackAsItself) {
  ObjectID next = 10;
  for (std::size_t i = 0; i < 17; ++i) {
    const auto transport = static_cast<MediaDeviceTransportType>(i);
    if (const auto code = TransportCodeFor(MediaType::Audio, transport)) {
      audio->addDevice({.deviceID = next, .name = "a", .deviceUID = "a", .transportType = *code});
      EXPECT_EQ(AudioDeviceTransportTypeForDeviceID(next), transport) << caseName(transport);
      ++next;
    }
    if (const auto code = TransportCodeFor(MediaType::Video, transport)) {
      video->addDevice({.deviceID = next, .name = "v", .deviceUID = "v", .transportType = *code});
      EXPECT_EQ(VideoDeviceTransportTypeForDeviceID(next), transport) << caseName(transport);
      ++next;
    }
  }
  EXPECT_FALSE(TransportCodeFor(MediaType::Audio, MediaDeviceTransportType::Wireless));
  EXPECT_FALSE(TransportCodeFor(MediaType::Video, MediaDeviceTransportType::BluetoothLE));
  EXPECT_FALSE(TransportCodeFor(MediaType::Video, MediaDeviceTransportType::Aggregate));
}

class ScenarioPlayerTest : public testing::SimulatedServicesTest {
 protected:
  static constexpr PropertyAddress kRunning{kAudioDevicePropertyDeviceIsRunningSomewhere,
                                            kAudioObjectPropertyScopeGlobal, 0};
  static constexpr PropertyAddress kSource{kAudioDevicePropertyDataSource,
                                           kAudioObjectPropertyScopeInput, 0};

  std::optional<std::uint32_t> value(SimulatedObjectGraph& graph, ObjectID id,
                                     const PropertyAddress& address) {
    auto property = graph.property(id, address);
    return property ? property->asUInt32() : std::nullopt;
  }
};

TEST_F(ScenarioPlayerTest, AppliesEachStepOnlyOnceItIsDueAndInOrder) {
  ScenarioPlayer player(ParseOrFail(R"({
    "audio": [{"deviceID": 5, "deviceUID": "mic", "name": "Mic",
               "inputSources": {"1": "A", "2": "B"}, "selectedInputSource": 1}],
    "video": [{"deviceID": 8, "deviceUID": "cam", "name": "Cam"}],
    "steps": [
      {"at": 1, "action": "run", "device": 5},
      {"at": 1, "action": "select-source", "device": 5, "source": 2},
      {"at": 2, "action": "plug", "mediaType": "Video",
       "device": {"deviceID": 9, "deviceUID": "cam2", "name": "Cam 2"}},
      {"at": 3, "action": "stop", "device": 5},
      {"at": 3, "action": "run", "device": 9},
      {"at": 4, "action": "unplug", "device": 8}]})"),
                        audio, video);
  player.addStartingDevices();
  EXPECT_EQ(audio->deviceList(), std::vector<ObjectID>{5});
  EXPECT_EQ(video->deviceList(), std::vector<ObjectID>{8});
  EXPECT_FALSE(player.nextDue().has_value()) << "no step is due before the clock starts";

  const auto origin = ScenarioPlayer::Clock::time_point{} + 100s;
  player.start(origin);
  EXPECT_EQ(player.nextDue(), origin + 1s);
  EXPECT_EQ(player.applyDue(origin + 999ms), 0u);
  EXPECT_EQ(value(*audio, 5, kRunning), 0u);

  EXPECT_EQ(player.applyDue(origin + 1s), 2u);
  EXPECT_EQ(value(*audio, 5, kRunning), 1u);
  EXPECT_EQ(value(*audio, 5, kSource), 2u);
  EXPECT_EQ(player.nextDue(), origin + 2s);

  EXPECT_EQ(player.applyDue(origin + 3500ms), 3u);
  EXPECT_EQ(video->deviceList(), (std::vector<ObjectID>{8, 9}));
  EXPECT_EQ(value(*audio, 5, kRunning), 0u);
  EXPECT_EQ(value(*video, 9, kRunning), 1u);

  EXPECT_FALSE(player.finished());
  EXPECT_EQ(player.applyDue(origin + 10s), 1u);
  EXPECT_EQ(video->deviceList(), std::vector<ObjectID>{9});
  EXPECT_FALSE(player.nextDue().has_value());
  EXPECT_TRUE(player.finished());
  EXPECT_EQ(player.applyDue(origin + 20s), 0u);
}

TEST_F(ScenarioPlayerTest, AppliesOneDueStepAtATimeWhenAskedForTheNext) {
  ScenarioPlayer player(ParseOrFail(R"({
    "audio": [{"deviceID": 5, "deviceUID": "mic", "name": "Mic"}],
    "steps": [{"at": 1, "action": "run", "device": 5},
              {"at": 1, "action": "stop", "device": 5}]})"),
                        audio, video);
  player.addStartingDevices();
  EXPECT_FALSE(player.started());
  const auto origin = ScenarioPlayer::Clock::time_point{} + 100s;
  player.start(origin);
  EXPECT_TRUE(player.started());
  EXPECT_FALSE(player.applyNextIfDue(origin + 999ms));
  EXPECT_TRUE(player.applyNextIfDue(origin + 1s));
  EXPECT_EQ(value(*audio, 5, kRunning), 1u) << "only the first of the two due steps";
  EXPECT_TRUE(player.applyNextIfDue(origin + 1s));
  EXPECT_EQ(value(*audio, 5, kRunning), 0u);
  EXPECT_TRUE(player.finished());
  EXPECT_FALSE(player.applyNextIfDue(origin + 2s));
}

TEST_F(ScenarioPlayerTest, AStepAtTheLimitIsDueThatLongAfterTheStart) {
  ScenarioPlayer player(ParseOrFail(R"({
    "audio": [{"deviceID": 5, "deviceUID": "mic", "name": "Mic"}],
    "steps": [{"at": 10000000, "action": "run", "device": 5}]})"),
                        audio, video);
  player.addStartingDevices();
  const auto origin = ScenarioPlayer::Clock::time_point{} + 100s;
  player.start(origin);
  EXPECT_EQ(player.nextDue(), origin + 10'000'000s);
  EXPECT_EQ(player.applyDue(origin + 9'999'999s), 0u);
  EXPECT_EQ(player.applyDue(origin + 10'000'000s), 1u);
  EXPECT_EQ(value(*audio, 5, kRunning), 1u);
}

TEST_F(ScenarioPlayerTest, DevicesStartWithTheirConsumersAndAStepReplacesThem) {
  ScenarioPlayer player(ParseOrFail(R"({
    "audio": [{"deviceID": 5, "deviceUID": "mic", "name": "Mic",
               "consumers": [{"processID": 10, "kind": "LevelMeter"}]}],
    "steps": [
      {"at": 1, "action": "set-consumers", "device": 5,
       "consumers": [{"processID": 11, "applicationName": "Recorder"}]},
      {"at": 2, "action": "plug", "mediaType": "Video",
       "device": {"deviceID": 9, "deviceUID": "cam", "name": "Cam",
                  "consumers": [{"processID": 12, "kind": "MediaServer"}]}},
      {"at": 3, "action": "set-consumers", "device": "cam", "consumers": []}]})"),
                        audio, video);
  const auto consumersOf = [](MediaType mediaType, ObjectID deviceID) {
    return MediaDeviceConsumersForDevice({.deviceID = deviceID, .mediaType = mediaType});
  };
  player.addStartingDevices();
  EXPECT_EQ(consumersOf(MediaType::Audio, 5),
            (std::vector<MediaDeviceConsumer>{
                {.processID = 10, .kind = MediaDeviceConsumerKind::LevelMeter}}));
  const auto origin = ScenarioPlayer::Clock::time_point{} + 100s;
  player.start(origin);
  EXPECT_EQ(player.applyDue(origin + 1s), 1u);
  EXPECT_EQ(consumersOf(MediaType::Audio, 5),
            (std::vector<MediaDeviceConsumer>{{.processID = 11, .applicationName = "Recorder"}}));
  EXPECT_EQ(player.applyDue(origin + 2s), 1u);
  EXPECT_EQ(consumersOf(MediaType::Video, 9),
            (std::vector<MediaDeviceConsumer>{
                {.processID = 12, .kind = MediaDeviceConsumerKind::MediaServer}}));
  EXPECT_EQ(player.applyDue(origin + 3s), 1u);
  EXPECT_EQ(consumersOf(MediaType::Video, 9), std::vector<MediaDeviceConsumer>{});
}

}  // namespace
}  // namespace harkwell::cli
