// The harkwell program as a user runs it: a separate process on simulated devices from a scenario
// file, its stdout parsed as JSON, its stderr and exit status checked.
#include <gtest/gtest.h>
#include <signal.h>

#include <nlohmann/json.hpp>

#include "tests/cli/ProgramRun.h"
#include "tests/cli/WatchLines.h"

namespace harkwell::testing {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr auto kLineDeadline = 10s;

// One audio device with input sources and one camera, then a few quick changes; steps due at the
// same moment still reach the client one after the other.
const char* const kScenario = R"({
  "audio": [{"deviceID": 100, "deviceUID": "usb-mic", "name": "USB Microphone",
             "modelUID": "0d8c:0014", "transportType": "USB",
             "inputSources": {"1": "Microphone", "2": "Line In"}, "selectedInputSource": 1}],
  "video": [{"deviceID": 200, "deviceUID": "cam", "name": "HD Webcam", "modelUID": "046d:0825",
             "transportType": "BuiltIn", "hogModePID": 4242}],
  "steps": [
    {"at": 0.05, "action": "run", "device": 100},
    {"at": 0.10, "action": "select-source", "device": "usb-mic", "source": 2},
    {"at": 0.15, "action": "plug", "mediaType": "Video",
     "device": {"deviceID": 201, "deviceUID": "cam2", "name": "Second Camera",
                "modelUID": "1234:5678", "transportType": "USB"}},
    {"at": 0.15, "action": "run", "device": 201},
    {"at": 0.20, "action": "stop", "device": 100},
    {"at": 0.20, "action": "unplug", "device": 201}
  ]
})";

json Microphone(bool running, const char* source) {
  return json{
      {"deviceID", 100},           {"mediaType", "Audio"},   {"deviceUID", "usb-mic"},
      {"modelUID", "0d8c:0014"},   {"transportType", "USB"}, {"name", "USB Microphone"},
      {"inputSourceName", source}, {"inputChannelCount", 1}, {"outputChannelCount", 0},
      {"isConnected", true},       {"isRunning", running},   {"unsupportedReason", nullptr}};
}

json Webcam() {
  return json{{"deviceID", 200},
              {"mediaType", "Video"},
              {"deviceUID", "cam"},
              {"modelUID", "046d:0825"},
              {"transportType", "BuiltIn"},
              {"name", "HD Webcam"},
              {"inputSourceName", nullptr},
              {"inputChannelCount", 1},
              {"outputChannelCount", 0},
              {"isConnected", true},
              {"isRunning", false},
              {"unsupportedReason", nullptr}};
}

json SecondCamera(bool connected, bool running) {
  return json{{"deviceID", 201},
              {"mediaType", "Video"},
              {"deviceUID", "cam2"},
              {"modelUID", "1234:5678"},
              {"transportType", "USB"},
              {"name", "Second Camera"},
              {"inputSourceName", nullptr},
              {"inputChannelCount", 1},
              {"outputChannelCount", 0},
              {"isConnected", connected},
              {"isRunning", running},
              {"unsupportedReason", nullptr}};
}

json Updating(bool finished) {
  return json{{"type", "updating"}, {"finished", finished}};
}
json Event(const char* event, json device) {
  return json{{"type", "event"}, {"event", event}, {"device", std::move(device)}};
}

TEST(HarkwellList, JsonPrintsTheConnectedDevicesAudioThenVideo) {
  const TemporaryFile scenario(kScenario);
  const auto result = RunHarkwell({"list", "--json", "--scenario", scenario.path()});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(json::parse(result.out), json::array({Microphone(false, "Microphone"), Webcam()}));
  EXPECT_EQ(result.out.back(), '\n');
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 1);
}

TEST(HarkwellList, TableShowsEveryDeviceWithoutColourInAPipe) {
  const TemporaryFile scenario(kScenario);
  const auto result = RunHarkwell({"list", "--scenario", scenario.path()});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("USB Microphone"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("HD Webcam"), std::string::npos) << result.out;
  EXPECT_EQ(result.out.find('\x1b'), std::string::npos) << result.out;
}

TEST(HarkwellWatch, JsonPrintsTheDiscoveryAndEveryChangeInOrder) {
  const TemporaryFile scenario(kScenario);
  const auto result =
      RunHarkwell({"watch", "--json", "--duration", "1.5", "--scenario", scenario.path()});
  ASSERT_EQ(result.status, 0) << result.err;
  std::vector<json> lines;
  std::size_t start = 0;
  for (std::size_t end; (end = result.out.find('\n', start)) != std::string::npos;
       start = end + 1) {
    lines.push_back(ParseWatchLine(result.out.substr(start, end - start)));
  }
  EXPECT_EQ(start, result.out.size()) << "the output ends with a complete line";
  const std::vector<json> expected{
      Updating(false),
      Event("InitialDiscovery", Microphone(false, "Microphone")),
      Event("InitialDiscovery", Webcam()),
      Updating(true),
      Event("ChangedRunning", Microphone(true, "Microphone")),
      Event("ChangedInputSource", Microphone(true, "Line In")),
      Updating(false),
      Event("Connected", SecondCamera(true, false)),
      Updating(true),
      Event("ChangedRunning", SecondCamera(true, true)),
      Event("ChangedRunning", Microphone(false, "Line In")),
      Updating(false),
      Event("Disconnected", SecondCamera(false, false)),
      Updating(true),
  };
  ASSERT_EQ(lines.size(), expected.size()) << result.out;
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(lines[i], expected[i]) << i;
}

TEST(HarkwellWatch, CtrlCEndsItWithinASecondAndSuccessfully) {
  const TemporaryFile scenario(R"({"audio": [{"deviceID": 100, "deviceUID": "m", "name": "M",
                                              "modelUID": "1:2"}]})");
  auto run = StartHarkwell({"watch", "--json", "--follow", "--scenario", scenario.path()});
  ASSERT_NE(run, nullptr);
  // Wait until the initial discovery is complete, so the watch is really under way.
  ASSERT_TRUE(NextWatchLineWhere(*run, IsUpdateFinished, kLineDeadline)) << run->errorOutput();
  run->sendSignal(SIGINT);
  const auto status = run->waitForExit(1s);
  ASSERT_TRUE(status.has_value()) << "still running a second after SIGINT";
  EXPECT_EQ(*status, 0) << run->errorOutput();
}

// A Bluetooth device is polled for its running state on a timer of the main run loop; when it goes
// away the event queue hands the timer's end to the main thread and waits for it there. The watch
// must keep its main thread free for that, and still end at its duration and at Ctrl-C.
const char* const kBluetoothMicrophoneUnplugged = R"({
  "audio": [{"deviceID": 100, "deviceUID": "bt-mic", "name": "Bluetooth Microphone",
             "modelUID": "05ac:1234", "transportType": "Bluetooth"}],
  "steps": [{"at": 0.5, "action": "unplug", "device": 100}]})";

TEST(HarkwellWatch, ABluetoothMicrophoneUnpluggedIsReportedAndTheDurationEndsTheWatch) {
  const TemporaryFile scenario(kBluetoothMicrophoneUnplugged);
  auto run = StartHarkwell(
      {"watch", "--json", "--follow", "--duration", "2", "--scenario", scenario.path()});
  ASSERT_NE(run, nullptr);
  ASSERT_TRUE(NextWatchLineWhere(*run, EventFor("Disconnected", "bt-mic"), kLineDeadline))
      << run->errorOutput();
  ASSERT_TRUE(NextWatchLineWhere(*run, IsUpdateFinished, kLineDeadline)) << run->errorOutput();
  const auto status = run->waitForExit(kLineDeadline);
  ASSERT_TRUE(status.has_value()) << "still running well after its duration";
  EXPECT_EQ(*status, 0) << run->errorOutput();
}

TEST(HarkwellWatch, ABluetoothMicrophoneUnpluggedIsReportedAndCtrlCEndsTheWatch) {
  const TemporaryFile scenario(kBluetoothMicrophoneUnplugged);
  auto run = StartHarkwell({"watch", "--json", "--follow", "--scenario", scenario.path()});
  ASSERT_NE(run, nullptr);
  ASSERT_TRUE(NextWatchLineWhere(*run, EventFor("Disconnected", "bt-mic"), kLineDeadline))
      << run->errorOutput();
  ASSERT_TRUE(NextWatchLineWhere(*run, IsUpdateFinished, kLineDeadline)) << run->errorOutput();
  run->sendSignal(SIGINT);
  const auto status = run->waitForExit(kLineDeadline);
  ASSERT_TRUE(status.has_value()) << "still running after SIGINT";
  EXPECT_EQ(*status, 0) << run->errorOutput();
}

TEST(HarkwellWatch, AScenarioWatchEndsAfterItsLastStepWithoutFollow) {
  const TemporaryFile scenario(kBluetoothMicrophoneUnplugged);
  const auto result = RunHarkwell({"watch", "--scenario", scenario.path()}, {}, kLineDeadline);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("Disconnected"), std::string::npos) << result.out;
}

// Closes the reading end of the program's output and expects the watch to end with status 0.
void ExpectEndsOnceItsOutputIsClosed(ProgramRun& run) {
  run.closeOutput();
  const auto status = run.waitForExit(kLineDeadline);
  ASSERT_TRUE(status.has_value()) << "still running after its output was closed";
  EXPECT_EQ(*status, 0) << run.errorOutput();
}

// Steps keep coming after the pipe is closed, or have all been printed by then: either way the
// watch ends, whether a write fails or its loop sees that the reader has gone.
TEST(HarkwellWatch, EndsWhenItsOutputIsClosed) {
  const TemporaryFile scenario(R"({"audio": [{"deviceID": 100, "deviceUID": "m", "name": "M",
                                              "modelUID": "1:2"}],
    "steps": [{"at": 0.2, "action": "run", "device": 100},
              {"at": 0.4, "action": "stop", "device": 100}]})");
  auto run = StartHarkwell({"watch", "--follow", "--scenario", scenario.path()});
  ASSERT_NE(run, nullptr);
  ASSERT_TRUE(run->readLine(kLineDeadline).has_value()) << run->errorOutput();
  ExpectEndsOnceItsOutputIsClosed(*run);
}

// Nothing is left to print once the initial discovery is out, so no write can fail: the watch
// must notice the closed pipe itself.
TEST(HarkwellWatch, EndsWhenItsOutputIsClosedWhileIdle) {
  const TemporaryFile scenario(R"({"audio": [{"deviceID": 100, "deviceUID": "m", "name": "M",
                                              "modelUID": "1:2"}]})");
  auto run = StartHarkwell({"watch", "--json", "--follow", "--scenario", scenario.path()});
  ASSERT_NE(run, nullptr);
  ASSERT_TRUE(NextWatchLineWhere(*run, IsUpdateFinished, kLineDeadline)) << run->errorOutput();
  ExpectEndsOnceItsOutputIsClosed(*run);
}

TEST(HarkwellWatch, EndsWhenItsOutputIsClosedWithNoDevicesAtAll) {
  auto run = StartHarkwell({"watch", "--json", "--audio", "none", "--video", "none"});
  ASSERT_NE(run, nullptr);
  ASSERT_TRUE(NextWatchLineWhere(*run, IsUpdateFinished, kLineDeadline)) << run->errorOutput();
  ExpectEndsOnceItsOutputIsClosed(*run);
}

TEST(HarkwellErrors, AnUnknownOptionIsRefusedWithUsage) {
  const auto result = RunHarkwell({"list", "--colour=always"});
  EXPECT_EQ(result.status, 2);
  EXPECT_TRUE(result.out.empty()) << result.out;
  EXPECT_NE(result.err.find("harkwell: "), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("--colour"), std::string::npos) << result.err;
}

TEST(HarkwellErrors, ADurationThatIsNotAFiniteTimeWithinTheLimitIsRefusedWithUsage) {
  for (const std::string value : {"nan", "inf", "0", "-1", "1e300"}) {
    const auto result =
        RunHarkwell({"watch", "--audio", "none", "--video", "none", "--duration=" + value});
    EXPECT_EQ(result.status, 2) << value;
    EXPECT_TRUE(result.out.empty()) << value << ": " << result.out;
    EXPECT_EQ(result.err,
              "harkwell: --duration: expected a number of seconds greater than 0 and at most "
              "10000000\nRun 'harkwell watch --help' for usage.\n")
        << value;
  }
}

TEST(HarkwellErrors, AScenarioStepTimeOutsideTheLimitNamesLineAndColumn) {
  for (const std::string at : {"1e300", "-1", "10000000.5"}) {
    const TemporaryFile scenario(
        "{\"audio\": [{\"deviceID\": 5, \"deviceUID\": \"m\", \"name\": \"M\"}],\n"
        " \"steps\": [{\"at\": " +
        at + ", \"action\": \"run\", \"device\": 5}]}\n");
    const auto result = RunHarkwell({"watch", "--scenario", scenario.path()});
    EXPECT_EQ(result.status, 1) << at;
    EXPECT_TRUE(result.out.empty()) << at << ": " << result.out;
    EXPECT_EQ(result.err, "harkwell: " + scenario.path() +
                              ":2:19: \"at\" must be a number of seconds from 0 to 10000000\n")
        << at;
  }
  // JSON itself has no NaN or infinity.
  for (const std::string at : {"NaN", "Infinity"}) {
    const TemporaryFile scenario("{\"steps\": [{\"at\": " + at + "}]}\n");
    const auto result = RunHarkwell({"watch", "--scenario", scenario.path()});
    EXPECT_EQ(result.status, 1) << at;
    EXPECT_EQ(result.err.rfind("harkwell: " + scenario.path() + ":1:19: ", 0), 0u) << result.err;
  }
}

TEST(HarkwellErrors, TreeRootsWithoutV4L2AreRefusedWithUsage) {
  const auto result = RunHarkwell({"list", "--sysfs-root", "/tmp", "--video", "none"});
  EXPECT_EQ(result.status, 2);
  EXPECT_TRUE(result.out.empty()) << result.out;
  EXPECT_EQ(result.err,
            "harkwell: --sysfs-root, --dev-root and --proc-root need --video v4l2\n"
            "Run 'harkwell list --help' for usage.\n");
}

TEST(HarkwellVersion, PrintsTheProjectVersion) {
  const auto result = RunHarkwell({"--version"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, std::string("harkwell ") + HARKWELL_PROJECT_VERSION + "\n");
  EXPECT_TRUE(result.err.empty()) << result.err;
}

TEST(HarkwellErrors, AMissingScenarioFileGivesTheSystemsReason) {
  const auto result = RunHarkwell({"list", "--scenario", "/nonexistent/harkwell.json"});
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(result.out.empty()) << result.out;
  EXPECT_EQ(result.err, "harkwell: /nonexistent/harkwell.json: No such file or directory\n");
}

TEST(HarkwellErrors, AScenarioPathThroughAFileGivesTheSystemsReason) {
  const TemporaryFile file("{}");
  const auto result = RunHarkwell({"watch", "--scenario", file.path() + "/scenario.json"});
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(result.out.empty()) << result.out;
  EXPECT_EQ(result.err, "harkwell: " + file.path() + "/scenario.json: Not a directory\n");
}

TEST(HarkwellErrors, AFolderGivenAsAScenarioIsRefusedAsOne) {
  const TemporaryFile file("{}");
  const std::string folder = file.path().substr(0, file.path().rfind('/'));
  const auto result = RunHarkwell({"list", "--scenario", folder});
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(result.out.empty()) << result.out;
  EXPECT_EQ(result.err, "harkwell: " + folder + ": is a folder, not a scenario file\n");
}

TEST(HarkwellErrors, InvalidUTF8InAScenarioIsNamedByPositionAndEscaped) {
  const TemporaryFile scenario(
      "{\"audio\": [{\"deviceID\": 5, \"deviceUID\": \"m\",\n"
      "  \"name\": \"Mic \xff\"}]}\n");
  const auto result = RunHarkwell({"list", "--scenario", scenario.path()});
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(result.out.empty()) << result.out;
  EXPECT_EQ(result.err, "harkwell: " + scenario.path() +
                            ":2:16: invalid UTF-8: the byte \\xFF does not start or continue a "
                            "character\n");
}

TEST(HarkwellErrors, ANullDeviceNameIsRefusedAtItsLineAndColumn) {
  const TemporaryFile scenario(
      "{\"audio\": [\n  {\"deviceID\": 5, \"deviceUID\": \"m\", \"name\": null}]}\n");
  const auto result = RunHarkwell({"list", "--scenario", scenario.path()});
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(result.out.empty()) << result.out;
  EXPECT_EQ(result.err, "harkwell: " + scenario.path() + ":2:45: \"name\" must be a string\n");
}

TEST(HarkwellErrors, ASelectedInputSourceThatIsNotAnInputSourceIsRefusedAtIt) {
  const TemporaryFile scenario(
      "{\"audio\": [{\"deviceID\": 5, \"deviceUID\": \"m\", \"name\": \"M\",\n"
      "  \"inputSources\": {\"1\": \"A\"}, \"selectedInputSource\": 2}]}\n");
  const auto result = RunHarkwell({"list", "--scenario", scenario.path()});
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(result.out.empty()) << result.out;
  EXPECT_EQ(result.err, "harkwell: " + scenario.path() +
                            ":2:54: \"selectedInputSource\" must be one of the \"inputSources\" "
                            "(1)\n");
}

TEST(HarkwellErrors, AMalformedScenarioNamesFileLineAndColumn) {
  const TemporaryFile scenario(
      "{\n  \"audio\": [\n    {\"deviceID\": 5 \"name\": \"x\"}\n  ]\n}\n");
  const auto result = RunHarkwell({"watch", "--json", "--scenario", scenario.path()});
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(result.out.empty()) << result.out;
  EXPECT_EQ(result.err.rfind("harkwell: " + scenario.path() + ":3:25: ", 0), 0u) << result.err;
}

TEST(HarkwellErrors, AScenarioWithWrongContentNamesLineAndColumn) {
  const TemporaryFile scenario(
      "{\"steps\": [\n  {\"at\": 1, \"action\": \"unplug\", \"device\": 99}\n]}\n");
  const auto result = RunHarkwell({"list", "--scenario", scenario.path()});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "harkwell: " + scenario.path() +
                            ":2:43: no device with ID 99 is connected at this point\n");
}

TEST(HarkwellErrors, AnUnknownHogDeviceIsRefused) {
  const TemporaryFile scenario(kScenario);
  const auto result = RunHarkwell({"hog", "on", "no-such-device", "--scenario", scenario.path()});
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(result.out.empty()) << result.out;
  EXPECT_NE(result.err.find("no connected device has the UID or ID \"no-such-device\""),
            std::string::npos)
      << result.err;
}

TEST(HarkwellHog, StatusNamesTheProcessThatHoldsTheDevice) {
  const TemporaryFile scenario(kScenario);
  auto result = RunHarkwell({"hog", "status", "cam", "--scenario", scenario.path()});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "HD Webcam: OtherProcess(pid: 4242)\n");

  result = RunHarkwell({"hog", "status", "100", "--json", "--scenario", scenario.path()});
  EXPECT_EQ(result.status, 0) << result.err;
  const json answer = json::parse(result.out);
  EXPECT_EQ(answer["device"], Microphone(false, "Microphone"));
  EXPECT_EQ(answer["hogMode"], "NoProcess");
  EXPECT_TRUE(answer["pid"].is_null());
  EXPECT_EQ(answer["succeeded"], true);
}

TEST(HarkwellHog, TakesAFreeDeviceAndIsRefusedOneHeldElsewhere) {
  const TemporaryFile scenario(kScenario);
  auto result = RunHarkwell({"hog", "on", "usb-mic", "--scenario", scenario.path()});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "USB Microphone: CurrentProcess\n");

  result = RunHarkwell({"hog", "on", "cam", "--scenario", scenario.path()});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "HD Webcam: OtherProcess(pid: 4242)\n");
  EXPECT_EQ(result.err, "harkwell: could not take exclusive access to HD Webcam\n");
}

TEST(HarkwellOutput, NotesOnExpectedConditionsShowOnlyWithVerboseAndOnStderr) {
  // A device without a model UID makes the library log one line as it reads the device.
  const TemporaryFile scenario(R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M"}]})");
  auto result = RunHarkwell({"list", "--json", "--scenario", scenario.path()});
  ASSERT_EQ(result.status, 0) << result.err;
  const json devices = json::parse(result.out, nullptr, false);
  ASSERT_TRUE(devices.is_array()) << result.out;
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_TRUE(devices[0]["modelUID"].is_null());
  EXPECT_EQ(result.err, "") << "a documented default is not an error";

  result = RunHarkwell({"list", "--json", "-v", "--scenario", scenario.path()});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(json::parse(result.out, nullptr, false), devices);
  EXPECT_EQ(result.err,
            "harkwell: Audio Error (unknown error): Model UID for device with ID 5 is nil\n");
}

TEST(HarkwellOutput, ListWithoutDevicesPrintsNothingOnStdout) {
  auto result = RunHarkwell({"list", "--audio", "none", "--video", "none"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "harkwell: no devices connected\n");
  result = RunHarkwell({"list", "--json", "--audio", "none", "--video", "none"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "[]\n");
  EXPECT_EQ(result.err, "");
}

TEST(HarkwellOutput, ListShowsAudioThenVideoEachByIDWithIDsRightAligned) {
  const TemporaryFile scenario(R"({
    "audio": [{"deviceID": 30, "deviceUID": "b", "name": "B", "modelUID": "1:2"},
              {"deviceID": 4, "deviceUID": "a", "name": "A", "modelUID": "1:2"}],
    "video": [{"deviceID": 2, "deviceUID": "c", "name": "C", "modelUID": "1:2"}]})");
  const auto result = RunHarkwell({"list", "--scenario", scenario.path()});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out,
            "  ID  TYPE   NAME  TRANSPORT  IN  OUT  INPUT SOURCE  SUPPORTED  UID\n"
            "   4  Audio  A     Unknown     1    0  -             yes        a\n"
            "  30  Audio  B     Unknown     1    0  -             yes        b\n"
            "   2  Video  C     Unknown     1    0  -             yes        c\n");
}

TEST(HarkwellErrors, ChoicesThatAreNumbersAreRefusedWithUsage) {
  auto result = RunHarkwell({"list", "--audio", "2"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "harkwell: --audio: expected none, pipewire, pulse or simulated, not \"2\"\n"
            "Run 'harkwell list --help' for usage.\n");
  result = RunHarkwell({"hog", "1", "100"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err,
            "harkwell: action: expected off, on or status, not \"1\"\n"
            "Run 'harkwell hog --help' for usage.\n");
}

TEST(HarkwellErrors, AMisspeltSubcommandIsNamedWithTheNearestOne) {
  const auto result = RunHarkwell({"lsit"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "harkwell: unknown subcommand \"lsit\"; did you mean \"list\"?\n"
            "Run 'harkwell --help' for usage.\n");
}

TEST(HarkwellErrors, ModelTakesNoDeviceOptions) {
  const auto result = RunHarkwell({"model", "--video", "none"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "harkwell: unexpected argument \"--video\" ('model' reads no devices, so it takes no "
            "device options)\nRun 'harkwell model --help' for usage.\n");
}

TEST(HarkwellErrors, AHogDeviceNumberWithLeadingZerosIsRefused) {
  const TemporaryFile scenario(kScenario);
  const auto result = RunHarkwell({"hog", "status", "0100", "--scenario", scenario.path()});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "harkwell: device: a device ID is written without leading zeros, not \"0100\"\n"
            "Run 'harkwell hog --help' for usage.\n");
}

TEST(HarkwellHog, ANumberIsLookedUpAsADeviceIDBeforeAsAUID) {
  const TemporaryFile scenario(R"({"audio": [
    {"deviceID": 100, "deviceUID": "mic", "name": "By ID", "modelUID": "1:2"},
    {"deviceID": 7, "deviceUID": "100", "name": "By UID", "modelUID": "1:2"}]})");
  auto result = RunHarkwell({"hog", "status", "100", "--scenario", scenario.path()});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "By ID: NoProcess\n");
  // A number no device has as its ID may still be a UID.
  const TemporaryFile numbered(R"({"audio": [
    {"deviceID": 7, "deviceUID": "4242", "name": "Numbered", "modelUID": "1:2"}]})");
  result = RunHarkwell({"hog", "status", "4242", "--scenario", numbered.path()});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Numbered: NoProcess\n");
}

TEST(HarkwellHog, OnSaysThatTheHoldEndsWithTheProgram) {
  const TemporaryFile scenario(kScenario);
  const auto result = RunHarkwell({"hog", "on", "100", "--scenario", scenario.path()});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "USB Microphone: CurrentProcess\n");
  EXPECT_EQ(result.err,
            "harkwell: the hold on USB Microphone ends when harkwell exits, which is now (--hold "
            "keeps it)\n");
}

TEST(HarkwellHog, HoldKeepsTheDeviceForItsDuration) {
  const TemporaryFile scenario(kScenario);
  const auto started = std::chrono::steady_clock::now();
  const auto result = RunHarkwell(
      {"hog", "on", "usb-mic", "--hold", "--duration", "0.5", "--scenario", scenario.path()});
  EXPECT_GE(std::chrono::steady_clock::now() - started, 500ms);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "USB Microphone: CurrentProcess\n");
  EXPECT_EQ(result.err, "harkwell: holding USB Microphone for 0.5 s; press Ctrl-C to let go\n");
}

TEST(HarkwellHog, HoldEndsAtCtrlC) {
  const TemporaryFile scenario(kScenario);
  auto run = StartHarkwell({"hog", "on", "usb-mic", "--hold", "--scenario", scenario.path()});
  ASSERT_NE(run, nullptr);
  ASSERT_EQ(run->readLine(kLineDeadline), "USB Microphone: CurrentProcess") << run->errorOutput();
  run->sendSignal(SIGINT);
  const auto status = run->waitForExit(kLineDeadline);
  ASSERT_TRUE(status.has_value()) << "still holding after SIGINT";
  EXPECT_EQ(*status, 0) << run->errorOutput();
}

TEST(HarkwellModel, JsonAnswersWithTheIdentifierOrNull) {
  const auto result = RunHarkwell({"model", "--json"});
  const json answer = json::parse(result.out, nullptr, false);
  ASSERT_TRUE(answer.is_object()) << result.out;
  ASSERT_TRUE(answer.contains("modelIdentifier"));
  if (answer["modelIdentifier"].is_null()) {
    EXPECT_EQ(result.status, 1);
  } else {
    EXPECT_EQ(result.status, 0);
    EXPECT_FALSE(answer["modelIdentifier"].get<std::string>().empty());
  }
}

}  // namespace
}  // namespace harkwell::testing
