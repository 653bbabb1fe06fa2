// The harkwell program's command line, and how its device source options are checked before any
// service is installed.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>

#include "tests/support/SimulatedServicesFixture.h"
#include "tools/harkwell/CommandLine.h"
#include "tools/harkwell/Seconds.h"
#include "tools/harkwell/ServiceSelection.h"

namespace harkwell::cli {
namespace {

struct Outcome {
  ParsedCommandLine parsed;
  std::string out;
  std::string err;
};

Outcome Parse(const std::vector<std::string>& arguments) {
  std::ostringstream out;
  std::ostringstream err;
  auto parsed = ParseCommandLine(arguments, out, err);
  return {parsed, out.str(), err.str()};
}

Options ParseOrFail(const std::vector<std::string>& arguments) {
  auto outcome = Parse(arguments);
  if (!outcome.parsed.options) {
    ADD_FAILURE() << "did not parse: " << outcome.err;
    return {};
  }
  return *outcome.parsed.options;
}

TEST(CommandLine, ListWithDefaults) {
  const Options options = ParseOrFail({"list"});
  EXPECT_EQ(options.command, Command::List);
  EXPECT_FALSE(options.json);
  EXPECT_FALSE(options.services.audio.has_value());
  EXPECT_FALSE(options.services.video.has_value());
  EXPECT_FALSE(options.services.scenarioPath.has_value());
  EXPECT_EQ(EffectiveAudioChoice(options.services), AudioChoice::Automatic);
  EXPECT_EQ(EffectiveVideoChoice(options.services), VideoChoice::V4L2);
}

TEST(CommandLine, WatchWithJsonDurationAndServiceOptions) {
  const Options options =
      ParseOrFail({"watch", "--json", "--duration", "2.5", "--audio", "none", "--video", "v4l2",
                   "--sysfs-root", "/tmp/s", "--dev-root", "/tmp/d", "--proc-root", "/tmp/p"});
  EXPECT_EQ(options.command, Command::Watch);
  EXPECT_TRUE(options.json);
  EXPECT_EQ(options.durationSeconds, 2.5);
  EXPECT_EQ(options.services.audio, AudioChoice::None);
  EXPECT_EQ(options.services.video, VideoChoice::V4L2);
  EXPECT_EQ(options.services.sysfsRoot, "/tmp/s");
  EXPECT_EQ(options.services.devRoot, "/tmp/d");
  EXPECT_EQ(options.services.procRoot, "/tmp/p");
}

TEST(CommandLine, AScenarioMakesUnchosenSourcesSimulated) {
  const Options options = ParseOrFail({"list", "--scenario", "x.json", "--video", "none"});
  EXPECT_EQ(options.services.scenarioPath, "x.json");
  EXPECT_EQ(EffectiveAudioChoice(options.services), AudioChoice::Simulated);
  EXPECT_EQ(EffectiveVideoChoice(options.services), VideoChoice::None);
}

TEST(CommandLine, HogTakesAnActionAndADevice) {
  Options options = ParseOrFail({"hog", "on", "usb-mic"});
  EXPECT_EQ(options.command, Command::Hog);
  EXPECT_EQ(options.hogAction, HogAction::On);
  EXPECT_EQ(options.hogDevice, "usb-mic");
  options = ParseOrFail({"hog", "off", "100", "--json"});
  EXPECT_EQ(options.hogAction, HogAction::Off);
  EXPECT_TRUE(options.json);
  EXPECT_EQ(ParseOrFail({"hog", "status", "7"}).hogAction, HogAction::Status);
}

TEST(CommandLine, ModelTakesNoDeviceOptions) {
  const Options options = ParseOrFail({"model", "--json"});
  EXPECT_EQ(options.command, Command::Model);
  EXPECT_TRUE(options.json);
  const auto outcome = Parse({"model", "--json", "--audio", "simulated"});
  EXPECT_EQ(outcome.parsed.exitCode, 2);
  EXPECT_EQ(outcome.err,
            "harkwell: unexpected argument \"--audio\" ('model' reads no devices, so it takes no "
            "device options)\nRun 'harkwell model --help' for usage.\n");
  EXPECT_EQ(Parse({"model", "extra"}).err,
            "harkwell: unexpected argument \"extra\"\nRun 'harkwell model --help' for usage.\n");
}

TEST(CommandLine, ChoicesAreWordsOnly) {
  auto outcome = Parse({"list", "--audio", "2"});
  EXPECT_EQ(outcome.parsed.exitCode, 2);
  EXPECT_EQ(outcome.err,
            "harkwell: --audio: expected none, pipewire, pulse or simulated, not \"2\"\n"
            "Run 'harkwell list --help' for usage.\n");
  outcome = Parse({"watch", "--video", "0"});
  EXPECT_EQ(outcome.parsed.exitCode, 2);
  EXPECT_EQ(outcome.err,
            "harkwell: --video: expected none, simulated or v4l2, not \"0\"\n"
            "Run 'harkwell watch --help' for usage.\n");
  outcome = Parse({"hog", "1", "100"});
  EXPECT_EQ(outcome.parsed.exitCode, 2);
  EXPECT_EQ(outcome.err,
            "harkwell: action: expected off, on or status, not \"1\"\n"
            "Run 'harkwell hog --help' for usage.\n");
}

TEST(CommandLine, HelpShowsTheWordsOfEachChoiceAndNoNumbers) {
  for (const char* command : {"list", "hog"}) {
    const auto outcome = Parse({command, "--help"});
    EXPECT_EQ(outcome.parsed.exitCode, 0);
    EXPECT_NE(outcome.out.find("--audio none|pipewire|pulse|simulated"), std::string::npos)
        << outcome.out;
    EXPECT_NE(outcome.out.find("--video none|simulated|v4l2"), std::string::npos) << outcome.out;
    EXPECT_EQ(outcome.out.find("->"), std::string::npos) << outcome.out;
    EXPECT_EQ(outcome.out.find("ENUM"), std::string::npos) << outcome.out;
  }
  EXPECT_NE(Parse({"hog", "--help"}).out.find("action off|on|status"), std::string::npos);
}

TEST(CommandLine, AnUnknownSubcommandIsNamedWithTheNearestOne) {
  auto outcome = Parse({"lsit"});
  EXPECT_EQ(outcome.parsed.exitCode, 2);
  EXPECT_EQ(outcome.err,
            "harkwell: unknown subcommand \"lsit\"; did you mean \"list\"?\n"
            "Run 'harkwell --help' for usage.\n");
  EXPECT_EQ(Parse({"-v", "wacth", "--json"}).err,
            "harkwell: unknown subcommand \"wacth\"; did you mean \"watch\"?\n"
            "Run 'harkwell --help' for usage.\n");
  EXPECT_EQ(Parse({"frobnicate"}).err,
            "harkwell: unknown subcommand \"frobnicate\"\nRun 'harkwell --help' for usage.\n");
}

TEST(CommandLine, ErrorsInASubcommandPointToItsHelp) {
  EXPECT_EQ(Parse({"list", "--bogus"}).err,
            "harkwell: unexpected argument \"--bogus\"\nRun 'harkwell list --help' for usage.\n");
  EXPECT_EQ(Parse({"hog", "on"}).err,
            "harkwell: device is required\nRun 'harkwell hog --help' for usage.\n");
}

TEST(CommandLine, VerboseIsAcceptedBeforeAndAfterTheSubcommand) {
  EXPECT_FALSE(ParseOrFail({"list"}).verbose);
  EXPECT_TRUE(ParseOrFail({"-v", "list"}).verbose);
  EXPECT_TRUE(ParseOrFail({"list", "-v"}).verbose);
  EXPECT_TRUE(ParseOrFail({"model", "--verbose"}).verbose);
}

TEST(CommandLine, WatchFollowsOnlyWhenAsked) {
  EXPECT_FALSE(ParseOrFail({"watch"}).follow);
  EXPECT_TRUE(ParseOrFail({"watch", "--follow"}).follow);
}

TEST(CommandLine, HogHoldsOnlyWithOnAndForADurationOnlyWhenHolding) {
  const Options options = ParseOrFail({"hog", "on", "7", "--hold", "--duration", "2"});
  EXPECT_TRUE(options.hold);
  EXPECT_EQ(options.durationSeconds, 2.0);
  EXPECT_FALSE(ParseOrFail({"hog", "on", "7"}).hold);
  auto outcome = Parse({"hog", "status", "7", "--hold"});
  EXPECT_EQ(outcome.parsed.exitCode, 2);
  EXPECT_EQ(outcome.err,
            "harkwell: --hold goes with 'hog on' only\nRun 'harkwell hog --help' for usage.\n");
  outcome = Parse({"hog", "on", "7", "--duration", "2"});
  EXPECT_EQ(outcome.parsed.exitCode, 2);
  EXPECT_EQ(outcome.err,
            "harkwell: --duration requires --hold\nRun 'harkwell hog --help' for usage.\n");
}

TEST(CommandLine, AHogDeviceNumberWithLeadingZerosIsRefused) {
  const auto outcome = Parse({"hog", "on", "0100"});
  EXPECT_EQ(outcome.parsed.exitCode, 2);
  EXPECT_EQ(outcome.err,
            "harkwell: device: a device ID is written without leading zeros, not \"0100\"\n"
            "Run 'harkwell hog --help' for usage.\n");
  EXPECT_EQ(ParseOrFail({"hog", "on", "0"}).hogDevice, "0");
  EXPECT_EQ(ParseOrFail({"hog", "on", "0d8c-mic"}).hogDevice, "0d8c-mic");
}

TEST(CommandLine, AnUnknownOptionIsAUsageError) {
  const auto outcome = Parse({"list", "--bogus"});
  EXPECT_FALSE(outcome.parsed.options.has_value());
  EXPECT_EQ(outcome.parsed.exitCode, 2);
  EXPECT_NE(outcome.err.find("harkwell: "), std::string::npos) << outcome.err;
  EXPECT_NE(outcome.err.find("--bogus"), std::string::npos) << outcome.err;
  EXPECT_TRUE(outcome.out.empty());
}

TEST(CommandLine, AudioChoicesIncludePipeWireAndPulseAudio) {
  EXPECT_EQ(ParseOrFail({"list", "--audio", "pipewire"}).services.audio, AudioChoice::PipeWire);
  EXPECT_EQ(ParseOrFail({"list", "--audio", "pulse"}).services.audio, AudioChoice::Pulse);
}

TEST(CommandLine, BadValuesAndMissingPiecesAreUsageErrors) {
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {},
           {"frobnicate"},
           {"list", "--audio", "alsa"},
           {"list", "--video", "webcam"},
           {"hog", "on"},
           {"hog", "toggle", "7"},
           {"list", "--scenario"},
       }) {
    const auto outcome = Parse(arguments);
    std::string shown;
    for (const auto& argument : arguments) shown += argument + " ";
    EXPECT_FALSE(outcome.parsed.options.has_value()) << shown;
    EXPECT_EQ(outcome.parsed.exitCode, 2) << shown;
    EXPECT_FALSE(outcome.err.empty()) << shown;
  }
}

TEST(CommandLine, ADurationMustBeFiniteAboveZeroAndAtMostTheLimit) {
  const std::string expected =
      "harkwell: --duration: expected a number of seconds greater than 0 and at most 10000000\n"
      "Run 'harkwell watch --help' for usage.\n";
  for (const std::string value : {"nan", "NaN", "inf", "-inf", "infinity", "0", "-0", "-1", "-0.5",
                                  "1e300", "1e-400", "10000000.5", "1e8", "soon", "2s"}) {
    const auto outcome = Parse({"watch", "--duration=" + value});
    EXPECT_FALSE(outcome.parsed.options.has_value()) << value;
    EXPECT_EQ(outcome.parsed.exitCode, 2) << value;
    EXPECT_EQ(outcome.err, expected) << value;
  }
  // Given as a separate argument, a negative number is still read as the value.
  EXPECT_EQ(Parse({"watch", "--duration", "-1"}).err, expected);
}

TEST(CommandLine, ADurationUpToTheLimitIsAccepted) {
  EXPECT_EQ(ParseOrFail({"watch", "--duration", "0.001"}).durationSeconds, 0.001);
  EXPECT_EQ(ParseOrFail({"watch", "--duration", "10000000"}).durationSeconds, 1e7);
  EXPECT_EQ(ParseOrFail({"watch", "--duration", "1e7"}).durationSeconds, kMaxSeconds);
}

TEST(CommandLine, SecondsBecomeASteadyClockDurationWithinTheLimit) {
  using std::chrono::seconds;
  EXPECT_EQ(SecondsToDuration(2.5), std::chrono::milliseconds(2500));
  EXPECT_EQ(SecondsToDuration(kMaxSeconds), seconds(kMaxWholeSeconds));
  // The callers refuse these; should one get through, it neither overflows nor goes negative.
  EXPECT_EQ(SecondsToDuration(1e300), seconds(kMaxWholeSeconds));
  EXPECT_EQ(SecondsToDuration(std::numeric_limits<double>::infinity()), seconds(kMaxWholeSeconds));
  EXPECT_EQ(SecondsToDuration(-1), seconds(0));
  EXPECT_EQ(SecondsToDuration(std::numeric_limits<double>::quiet_NaN()), seconds(0));
}

TEST(CommandLine, TreeRootsWithoutV4L2AreAUsageError) {
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {"list", "--sysfs-root", "/tmp", "--video", "none"},
           {"watch", "--dev-root", "/tmp", "--video", "simulated"},
           {"hog", "status", "7", "--proc-root", "/proc", "--video", "none"},
           // A scenario makes the video source simulated unless it is chosen.
           {"list", "--scenario", "x.json", "--sysfs-root", "/tmp"},
       }) {
    const auto outcome = Parse(arguments);
    EXPECT_FALSE(outcome.parsed.options.has_value()) << arguments[0];
    EXPECT_EQ(outcome.parsed.exitCode, 2) << arguments[0];
    EXPECT_EQ(outcome.err,
              "harkwell: --sysfs-root, --dev-root and --proc-root need --video v4l2\n"
              "Run 'harkwell " +
                  arguments[0] + " --help' for usage.\n")
        << arguments[0];
    EXPECT_TRUE(outcome.out.empty()) << outcome.out;
  }
  EXPECT_TRUE(
      ParseOrFail({"list", "--scenario", "x.json", "--video", "v4l2", "--sysfs-root", "/tmp"})
          .services.sysfsRoot.has_value());
}

TEST(CommandLine, HelpGoesToStdoutAndSucceeds) {
  const auto outcome = Parse({"watch", "--help"});
  EXPECT_FALSE(outcome.parsed.options.has_value());
  EXPECT_EQ(outcome.parsed.exitCode, 0);
  EXPECT_NE(outcome.out.find("--duration"), std::string::npos) << outcome.out;
  EXPECT_NE(outcome.out.find("--scenario"), std::string::npos) << outcome.out;
  EXPECT_TRUE(outcome.err.empty());
}

class ServiceSetupTest : public testing::SimulatedServicesTest {
 protected:
  // ctest runs every test in its own process, several at a time, so each one writes its scenario
  // to a file of its own.
  std::string writeScenario(const std::string& text) {
    std::string pattern = ::testing::TempDir() + "harkwell-cli-scenario-XXXXXX";
    const int fd = ::mkstemp(pattern.data());
    if (fd < 0) {
      ADD_FAILURE() << "mkstemp: " << std::strerror(errno);
      return pattern;
    }
    ::close(fd);
    path_ = pattern;
    std::ofstream(path_) << text;
    return path_;
  }
  void TearDown() override {
    if (!path_.empty()) std::remove(path_.c_str());
    testing::SimulatedServicesTest::TearDown();
  }

 private:
  std::string path_;
};

TEST_F(ServiceSetupTest, InstallsSimulatedServicesWithTheScenarioDevices) {
  ServiceOptions options;
  options.scenarioPath = writeScenario(
      R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M"}],
          "video": [{"deviceID": 6, "deviceUID": "c", "name": "C"}]})");
  auto setup = InstallServices(options);
  ASSERT_TRUE(setup.services.has_value()) << setup.error;
  EXPECT_NE(setup.services->scenario, nullptr);
  auto installedAudio =
      std::dynamic_pointer_cast<SimulatedAudioHardwareService>(CurrentAudioHardwareService());
  auto installedVideo =
      std::dynamic_pointer_cast<SimulatedVideoHardwareService>(CurrentVideoHardwareService());
  ASSERT_NE(installedAudio, nullptr);
  ASSERT_NE(installedVideo, nullptr);
  EXPECT_NE(installedAudio, audio) << "a fresh service replaces the one installed before";
  EXPECT_EQ(installedAudio->deviceList(), std::vector<ObjectID>{5});
  EXPECT_EQ(installedVideo->deviceList(), std::vector<ObjectID>{6});
}

TEST_F(ServiceSetupTest, AMalformedScenarioIsReportedAndInstallsNothing) {
  ServiceOptions options;
  options.scenarioPath = writeScenario("{\n  \"audio\": [}\n");
  auto setup = InstallServices(options);
  EXPECT_FALSE(setup.services.has_value());
  EXPECT_EQ(setup.error.rfind(*options.scenarioPath + ":2:13: ", 0), 0u) << setup.error;
  EXPECT_EQ(CurrentAudioHardwareService(), audio);
  EXPECT_EQ(CurrentVideoHardwareService(), video);
}

TEST_F(ServiceSetupTest, ScenarioDevicesNeedASimulatedSource) {
  ServiceOptions options;
  options.scenarioPath =
      writeScenario(R"({"audio": [{"deviceID": 5, "deviceUID": "m", "name": "M"}]})");
  options.audio = AudioChoice::None;
  auto setup = InstallServices(options);
  EXPECT_FALSE(setup.services.has_value());
  EXPECT_NE(setup.error.find("need --audio simulated"), std::string::npos) << setup.error;
  EXPECT_EQ(CurrentAudioHardwareService(), audio);
}

TEST_F(ServiceSetupTest, TreeRootsNeedV4L2) {
  ServiceOptions options;
  options.video = VideoChoice::Simulated;
  options.audio = AudioChoice::None;
  options.devRoot = "/tmp";
  auto setup = InstallServices(options);
  EXPECT_FALSE(setup.services.has_value());
  EXPECT_EQ(setup.error, "--sysfs-root, --dev-root and --proc-root need --video v4l2");
}

TEST_F(ServiceSetupTest, NoneInstallsServicesWithoutDevices) {
  ServiceOptions options;
  options.audio = AudioChoice::None;
  options.video = VideoChoice::None;
  auto setup = InstallServices(options);
  ASSERT_TRUE(setup.services.has_value()) << setup.error;
  EXPECT_EQ(setup.services->scenario, nullptr);
  auto installedAudio =
      std::dynamic_pointer_cast<SimulatedAudioHardwareService>(CurrentAudioHardwareService());
  ASSERT_NE(installedAudio, nullptr);
  EXPECT_TRUE(installedAudio->deviceList().empty());
}

}  // namespace
}  // namespace harkwell::cli
