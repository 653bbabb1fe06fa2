// The status-bar lines of `harkwell watch --format`: what the bar shows (kinds, devices, users),
// the hold that keeps a kind shown after its use ends, each format's exact line, and the feed
// driven by a controller on the simulated services with the main run loop's manual clock.
#include <gtest/gtest.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <sstream>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "tests/support/SimulatedServicesFixture.h"
#include "tests/support/Waiting.h"
#include "tools/harkwell/BarFeed.h"
#include "tools/harkwell/BarFormats.h"
#include "tools/harkwell/BarSummary.h"
#include "tools/harkwell/CommandLine.h"

namespace harkwell::cli {
namespace {

using namespace std::chrono_literals;
using Clock = BarTracker::Clock;
using testing::Recorder;

const Clock::time_point kStart{};

MediaDevice Microphone(bool running, ObjectID id = 100, std::string name = "USB Microphone") {
  return MediaDevice{.deviceID = id,
                     .mediaType = MediaType::Audio,
                     .deviceUID = "mic-" + std::to_string(id),
                     .name = std::move(name),
                     .inputChannelCount = 1,
                     .outputChannelCount = 0,
                     .isConnected = true,
                     .isRunning = running};
}

MediaDevice Speaker(bool running) {
  return MediaDevice{.deviceID = 102,
                     .mediaType = MediaType::Audio,
                     .deviceUID = "speakers",
                     .name = "Speakers",
                     .inputChannelCount = 0,
                     .outputChannelCount = 2,
                     .isConnected = true,
                     .isRunning = running};
}

MediaDevice Camera(bool running) {
  return MediaDevice{.deviceID = 200,
                     .mediaType = MediaType::Video,
                     .deviceUID = "cam",
                     .name = "HD Webcam",
                     .inputChannelCount = 1,
                     .isConnected = true,
                     .isRunning = running};
}

MediaDeviceConsumer Application(std::string name, std::int32_t pid) {
  return MediaDeviceConsumer{.processID = pid,
                             .isProcessIDVerified = true,
                             .processName = name,
                             .applicationName = name,
                             .kind = MediaDeviceConsumerKind::Application};
}

std::vector<std::string> Words(const BarSummary& summary) {
  std::vector<std::string> words;
  for (const auto& kind : summary.kinds) words.emplace_back(BarKindWord(kind.kind));
  return words;
}

TEST(BarTracker, EachRunningDeviceShowsAsItsKindInMicrophoneCameraSpeakerOrder) {
  BarTracker tracker(1s);
  tracker.noteEvent(MediaDeviceEvent::InitialDiscovery, Speaker(true), kStart);
  tracker.noteEvent(MediaDeviceEvent::InitialDiscovery, Camera(true), kStart);
  tracker.noteEvent(MediaDeviceEvent::InitialDiscovery, Microphone(true), kStart);
  tracker.noteEvent(MediaDeviceEvent::InitialDiscovery, Microphone(false, 101, "Idle Mic"), kStart);
  EXPECT_EQ(Words(tracker.summary()),
            (std::vector<std::string>{"microphone", "camera", "speaker"}));
  EXPECT_EQ(tracker.summary().kinds[0].devices, std::vector<std::string>{"USB Microphone"});
}

TEST(BarTracker, AHeadsetInUseCountsAsAMicrophone) {
  auto headset = Microphone(true);
  headset.outputChannelCount = 2;
  EXPECT_EQ(BarKindOfDevice(headset), BarKind::Microphone);
  EXPECT_EQ(BarKindOfDevice(Speaker(true)), BarKind::Speaker);
  EXPECT_EQ(BarKindOfDevice(Camera(false)), BarKind::Camera);
}

TEST(BarTracker, UsersAreApplicationsAndTheApplicationsBehindFiltersNotMetersOrMonitors) {
  BarTracker tracker(1s);
  tracker.noteEvent(MediaDeviceEvent::InitialDiscovery, Microphone(true), kStart);
  MediaDeviceConsumer meter = Application("pavucontrol", 30);
  meter.kind = MediaDeviceConsumerKind::LevelMeter;
  MediaDeviceConsumer monitor = Application("recorder-of-speakers", 31);
  monitor.kind = MediaDeviceConsumerKind::Monitor;
  MediaDeviceConsumer filter = Application("Echo-Cancel Source", 32);
  filter.kind = MediaDeviceConsumerKind::Filter;
  filter.feeds = {Application("Meeting", 40), Application("parecord", 41)};
  tracker.noteConsumers(Microphone(true), {Application("parecord", 41), meter, monitor, filter},
                        kStart);
  ASSERT_EQ(tracker.summary().kinds.size(), 1u);
  EXPECT_EQ(tracker.summary().kinds[0].users, (std::vector<std::string>{"parecord", "Meeting"}));
}

TEST(BarTracker, AConsumerIsNamedByItsApplicationThenProcessThenSandboxThenExecutable) {
  MediaDeviceConsumer consumer{.processID = 77};
  EXPECT_EQ(BarUserName(consumer), "process 77");
  consumer.executablePath = "/usr/bin/arecord";
  EXPECT_EQ(BarUserName(consumer), "arecord");
  consumer.sandboxApplicationID = "org.example.App";
  EXPECT_EQ(BarUserName(consumer), "org.example.App");
  consumer.processName = "app-bin";
  EXPECT_EQ(BarUserName(consumer), "app-bin");
  consumer.applicationName = "Example App";
  EXPECT_EQ(BarUserName(consumer), "Example App");
}

TEST(BarTracker, AKindStaysShownForTheHoldAfterItsUseEndsThenGoes) {
  BarTracker tracker(1s);
  tracker.noteEvent(MediaDeviceEvent::InitialDiscovery, Microphone(false), kStart);
  tracker.noteEvent(MediaDeviceEvent::ChangedRunning, Microphone(true), kStart + 10ms);
  // Used for one frame only: still shown, as held.
  tracker.noteEvent(MediaDeviceEvent::ChangedRunning, Microphone(false), kStart + 26ms);
  ASSERT_EQ(Words(tracker.summary()), std::vector<std::string>{"microphone"});
  EXPECT_TRUE(tracker.summary().kinds[0].held);
  EXPECT_EQ(tracker.nextHoldEnd(), kStart + 1026ms);

  tracker.expireHolds(kStart + 1025ms);
  EXPECT_EQ(Words(tracker.summary()), std::vector<std::string>{"microphone"});
  tracker.expireHolds(kStart + 1026ms);
  EXPECT_TRUE(tracker.summary().isEmpty());
  EXPECT_EQ(tracker.nextHoldEnd(), std::nullopt);
}

TEST(BarTracker, AUseThatStartsAgainWithinTheHoldEndsTheHold) {
  BarTracker tracker(1s);
  tracker.noteEvent(MediaDeviceEvent::InitialDiscovery, Microphone(true), kStart);
  tracker.noteEvent(MediaDeviceEvent::ChangedRunning, Microphone(false), kStart + 100ms);
  tracker.noteEvent(MediaDeviceEvent::ChangedRunning, Microphone(true), kStart + 200ms);
  ASSERT_EQ(tracker.summary().kinds.size(), 1u);
  EXPECT_FALSE(tracker.summary().kinds[0].held);
  EXPECT_EQ(tracker.nextHoldEnd(), std::nullopt);
}

TEST(BarTracker, ADeviceUnpluggedInUseIsHeldToo) {
  BarTracker tracker(2s);
  tracker.noteEvent(MediaDeviceEvent::InitialDiscovery, Camera(true), kStart);
  tracker.noteEvent(MediaDeviceEvent::Disconnected, Camera(true), kStart + 1s);
  EXPECT_EQ(Words(tracker.summary()), std::vector<std::string>{"camera"});
  EXPECT_EQ(tracker.nextHoldEnd(), kStart + 3s);
}

TEST(BarTracker, WithoutAHoldAKindGoesAtOnce) {
  BarTracker tracker(Clock::duration::zero());
  tracker.noteEvent(MediaDeviceEvent::InitialDiscovery, Microphone(true), kStart);
  tracker.noteEvent(MediaDeviceEvent::ChangedRunning, Microphone(false), kStart + 1ms);
  EXPECT_TRUE(tracker.summary().isEmpty());
  EXPECT_EQ(tracker.nextHoldEnd(), std::nullopt);
}

BarSummary MicrophoneAndCameraInUse() {
  return BarSummary{.kinds = {BarKindInUse{.kind = BarKind::Microphone,
                                           .devices = {"USB Microphone"},
                                           .users = {"parecord", "Meeting"}},
                              BarKindInUse{.kind = BarKind::Camera, .devices = {"HD Webcam"}}}};
}

TEST(BarFormats, WaybarLineHasTextTooltipClassAndAlt) {
  EXPECT_EQ(BarLine(BarFormat::Waybar, MicrophoneAndCameraInUse(), true),
            R"({"text":"microphone camera","tooltip":"Microphone: parecord, Meeting on USB )"
            R"(Microphone\nCamera: HD Webcam","class":["microphone","camera"],)"
            R"("alt":"microphone-camera"})");
  EXPECT_EQ(BarLine(BarFormat::Waybar, BarSummary{}, true),
            R"({"text":"","tooltip":"No microphone, camera or speaker in use","class":["idle"],)"
            R"("alt":"idle"})");
  EXPECT_TRUE(BarPreamble(BarFormat::Waybar).empty());
}

TEST(BarFormats, I3barStartsWithTheHeaderAndSeparatesLinesWithCommas) {
  EXPECT_EQ(BarPreamble(BarFormat::I3bar), (std::vector<std::string>{R"({"version":1})", "["}));
  EXPECT_EQ(BarLine(BarFormat::I3bar, BarSummary{}, true),
            R"([{"name":"harkwell","full_text":"","short_text":""}])");
  EXPECT_EQ(BarLine(BarFormat::I3bar, MicrophoneAndCameraInUse(), false),
            R"(,[{"name":"harkwell","full_text":"microphone: parecord, Meeting  camera: HD )"
            R"(Webcam","short_text":"microphone camera","urgent":true}])");
}

TEST(BarFormats, I3statusRustStateIsCriticalForMicrophoneOrCameraWarningForSpeakerOnly) {
  EXPECT_EQ(BarLine(BarFormat::I3statusRust, MicrophoneAndCameraInUse(), true),
            R"({"icon":"","state":"Critical","text":"microphone: parecord, Meeting  camera: )"
            R"(HD Webcam","short_text":"microphone camera"})");
  const BarSummary speaker{.kinds = {BarKindInUse{.kind = BarKind::Speaker, .devices = {"S"}}}};
  EXPECT_EQ(nlohmann::json::parse(BarLine(BarFormat::I3statusRust, speaker, true))["state"],
            "Warning");
  EXPECT_EQ(nlohmann::json::parse(BarLine(BarFormat::I3statusRust, BarSummary{}, true))["state"],
            "Idle");
}

TEST(BarFormats, DeviceTextsThatAreNotValidUtf8AreReplacedNotFatal) {
  const BarSummary odd{
      .kinds = {BarKindInUse{.kind = BarKind::Microphone, .devices = {"Mic\xff\x1b[2J"}}}};
  const auto line = BarLine(BarFormat::Waybar, odd, true);
  EXPECT_TRUE(nlohmann::json::accept(line)) << line;
  EXPECT_EQ(line.find('\x1b'), std::string::npos);
}

std::optional<Options> Parse(const std::vector<std::string>& arguments, std::string* err) {
  std::ostringstream out;
  std::ostringstream errors;
  auto parsed = ParseCommandLine(arguments, out, errors);
  *err = errors.str();
  return parsed.options;
}

TEST(BarCommandLine, FormatAndMinVisibleParseAndTheDefaultHoldIsOneSecond) {
  std::string err;
  auto options = Parse({"watch", "--format", "waybar"}, &err);
  ASSERT_TRUE(options) << err;
  EXPECT_EQ(options->barFormat, BarFormat::Waybar);
  EXPECT_EQ(options->minVisibleSeconds, 1);
  options = Parse({"watch", "--format", "i3status-rust", "--min-visible", "0"}, &err);
  ASSERT_TRUE(options) << err;
  EXPECT_EQ(options->barFormat, BarFormat::I3statusRust);
  EXPECT_EQ(options->minVisibleSeconds, 0);
  options = Parse({"serve", "--audio", "none"}, &err);
  ASSERT_TRUE(options) << err;
  EXPECT_EQ(options->command, Command::Serve);
}

TEST(BarCommandLine, FormatWithJsonANegativeHoldOrAHoldWithoutFormatAreUsageErrors) {
  std::string err;
  EXPECT_FALSE(Parse({"watch", "--format", "waybar", "--json"}, &err));
  EXPECT_NE(err.find("--json"), std::string::npos) << err;
  EXPECT_FALSE(Parse({"watch", "--format", "waybar", "--min-visible", "-1"}, &err));
  EXPECT_NE(err.find("expected a number of seconds from 0 to 10000000"), std::string::npos) << err;
  EXPECT_FALSE(Parse({"watch", "--min-visible", "2"}, &err));
  EXPECT_NE(err.find("--format"), std::string::npos) << err;
  EXPECT_FALSE(Parse({"watch", "--format", "polybar"}, &err));
  EXPECT_NE(err.find("expected i3bar, i3status-rust or waybar, not \"polybar\""), std::string::npos)
      << err;
}

// The feed on a controller over the simulated services. Time is the main run loop's manual clock
// and the feed's `now`, moved together by the test.
class BarFeedTest : public testing::SimulatedServicesTest {
 protected:
  void SetUp() override {
    SimulatedServicesTest::SetUp();
    MainRunLoop::shared().useManualClockForTesting();
    SimulatedAudioDevice microphone;
    microphone.deviceID = 100;
    microphone.name = "USB Microphone";
    microphone.deviceUID = "usb-mic";
    microphone.modelUID = "0d8c:0014";
    audio->addDevice(microphone);
  }

  void TearDown() override {
    if (controller_) {
      controller_->setObserveDevices(false);
      controller_->setUpdatingDevicesHandler(nullptr);
      controller_->setDeviceEventHandler(nullptr);
      controller_->setDeviceConsumersHandler(nullptr);
      ServeMainLoopUntil([this] { return queueMark(); });
    }
    if (feed_) feed_->stopTimers();
    MainRunLoop::shared().useSystemClockForTesting();
    SimulatedServicesTest::TearDown();
  }

  void start(Clock::duration minVisible) {
    feed_ = BarFeed::create({.format = BarFormat::Waybar,
                             .minVisible = minVisible,
                             .write =
                                 [this](const std::string& line) {
                                   lines_.append(nlohmann::json::parse(line));
                                   return true;
                                 },
                             .outputClosed = nullptr,
                             .now = [this] { return kStart + Clock::duration(elapsed_.load()); }},
                            queue_);
    controller_ = MediaDeviceController::create(queue_);
    feed_->attach(*controller_);
    controller_->setObserveDevices(true);
  }

  // Serves the main run loop (the test runs on the main thread) until `done`; never blocks on the
  // controller's queue.
  static bool ServeMainLoopUntil(const std::function<bool()>& done) {
    return MainRunLoop::shared().runUntil(done,
                                          std::chrono::milliseconds(testing::kDefaultDeadline));
  }

  bool waitForLines(std::size_t count) {
    return ServeMainLoopUntil([&] { return lines_.size() >= count; });
  }

  // True once everything queued on the controller's queue before the call has run.
  bool queueMark() {
    auto passed = std::make_shared<std::atomic<bool>>(false);
    queue_->async([passed] { *passed = true; });
    return ServeMainLoopUntil([passed] { return passed->load(); });
  }

  void advance(Clock::duration delta) {
    elapsed_ += delta.count();
    MainRunLoop::shared().advanceManualClockForTesting(delta);
  }

  std::string lastText() const { return lines_.entries().back()["text"]; }

  const std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("bar-feed-test");
  std::shared_ptr<BarFeed> feed_;
  std::shared_ptr<MediaDeviceController> controller_;
  Recorder<nlohmann::json> lines_;
  std::atomic<Clock::rep> elapsed_{0};
};

TEST_F(BarFeedTest, TheFirstLineComesOnceTheInitialDiscoveryIsComplete) {
  start(1s);
  ASSERT_TRUE(waitForLines(1));
  ASSERT_TRUE(queueMark());
  EXPECT_EQ(lines_.size(), 1u);
  EXPECT_EQ(lines_.entries()[0]["alt"], "idle");
}

TEST_F(BarFeedTest, AShortUseStaysOnTheBarForTheHoldAndThenGoes) {
  start(1s);
  ASSERT_TRUE(waitForLines(1));
  queue_->async([this] { audio->setDeviceRunning(100, true); });
  ASSERT_TRUE(waitForLines(2));
  EXPECT_EQ(lastText(), "microphone");

  queue_->async([this] { audio->setDeviceRunning(100, false); });
  ASSERT_TRUE(queueMark());
  ASSERT_TRUE(ServeMainLoopUntil(
      [] { return MainRunLoop::shared().scheduledTimerCountForTesting() == 1; }));
  advance(999ms);
  ASSERT_TRUE(queueMark());
  EXPECT_EQ(lines_.size(), 2u) << "the microphone went off the bar before its hold ended";

  advance(1ms);
  ASSERT_TRUE(waitForLines(3));
  EXPECT_EQ(lastText(), "");
  EXPECT_EQ(lines_.entries()[2]["class"], nlohmann::json::array({"idle"}));
  EXPECT_EQ(MainRunLoop::shared().scheduledTimerCountForTesting(), 0u);
}

TEST_F(BarFeedTest, AUseThatStopsAndStartsWithinTheHoldNeverFlickers) {
  start(1s);
  ASSERT_TRUE(waitForLines(1));
  queue_->async([this] { audio->setDeviceRunning(100, true); });
  ASSERT_TRUE(waitForLines(2));
  queue_->async([this] { audio->setDeviceRunning(100, false); });
  ASSERT_TRUE(queueMark());
  advance(500ms);
  queue_->async([this] { audio->setDeviceRunning(100, true); });
  ASSERT_TRUE(queueMark());
  advance(2s);
  ASSERT_TRUE(queueMark());
  ASSERT_TRUE(ServeMainLoopUntil(
      [] { return MainRunLoop::shared().scheduledTimerCountForTesting() == 0; }));
  ASSERT_TRUE(queueMark());
  EXPECT_EQ(lines_.size(), 2u);
  EXPECT_EQ(lastText(), "microphone");
}

TEST_F(BarFeedTest, WithNoHoldTheKindGoesWithTheUse) {
  start(Clock::duration::zero());
  ASSERT_TRUE(waitForLines(1));
  queue_->async([this] { audio->setDeviceRunning(100, true); });
  ASSERT_TRUE(waitForLines(2));
  queue_->async([this] { audio->setDeviceRunning(100, false); });
  ASSERT_TRUE(waitForLines(3));
  EXPECT_EQ(lastText(), "");
}

TEST_F(BarFeedTest, TheTooltipNamesTheConsumersAndEachChangeOfThemIsOneLine) {
  start(1s);
  ASSERT_TRUE(waitForLines(1));
  queue_->async([this] {
    audio->setDeviceRunning(100, true);
    audio->setDeviceConsumers(100, {Application("parecord", 41)});
  });
  ASSERT_TRUE(ServeMainLoopUntil([this] {
    const auto lines = lines_.entries();
    return !lines.empty() && lines.back()["tooltip"] == "Microphone: parecord on USB Microphone";
  })) << lines_.entries().back();
  const auto before = lines_.size();
  queue_->async([this] {
    audio->setDeviceConsumers(100, {Application("parecord", 41), Application("Meeting", 42)});
  });
  ASSERT_TRUE(waitForLines(before + 1));
  EXPECT_EQ(lines_.entries().back()["tooltip"], "Microphone: parecord, Meeting on USB Microphone");
}

}  // namespace
}  // namespace harkwell::cli
