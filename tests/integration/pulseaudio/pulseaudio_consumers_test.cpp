// Who uses a device, as the PulseAudio service reports it against a real pulseaudio daemon that
// each test starts privately: recorders, level meters and filters arrive with the notification of
// the server's event that made them, with their process, and leave when they stop. The plain
// daemon takes no credentials from its clients, so every process ID here is the client's claim.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#include "tests/support/AudioServiceReads.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ConsumerProbe.h"
#include "tests/support/PrivatePulseServer.h"
#include "tests/support/PulseTestClient.h"

namespace harkwell {
namespace {

using namespace std::chrono_literals;
using namespace testing;

class PulseAudioConsumersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(server_.start(), "");
    service_ = server_.connectService();
    ASSERT_TRUE(service_);
    const auto microphone = DeviceWithUID(*service_, PrivatePulseServer::kNullSourceName);
    ASSERT_TRUE(microphone);
    microphone_ = *microphone;
  }

  // Starts parecord on `device` with extra arguments; empty on success.
  std::string startParecord(ChildProcess& parecord, const std::string& device,
                            std::vector<std::string> extra = {}) {
    std::vector<std::string> argv{"parecord", "--raw", "--device=" + device};
    argv.insert(argv.end(), extra.begin(), extra.end());
    argv.push_back("/dev/null");
    std::string error;
    if (!parecord.start(argv,
                        {{"PULSE_SERVER", server_.address()}, {"HOME", server_.folder() + "/home"}},
                        server_.folder() + "/parecord.log", &error)) {
      return error;
    }
    return {};
  }

  PrivatePulseServer server_;
  std::shared_ptr<PulseAudioHardwareService> service_;
  ObjectID microphone_ = 0;
  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("test.pulseaudio.consumers");
};

TEST_F(PulseAudioConsumersTest, NobodyUsesTheMicrophoneAtFirst) {
  EXPECT_EQ(ReadDeviceConsumers(*service_, microphone_), ConsumerList{});
}

TEST_F(PulseAudioConsumersTest, ParecordArrivesWithItsProcessAndLeavesWhenItStops) {
  ConsumerProbe consumers(*service_, microphone_, queue_);
  ASSERT_EQ(consumers.add(), kNoErr);
  ChildProcess parecord;
  ASSERT_EQ(startParecord(parecord, PrivatePulseServer::kNullSourceName), "");

  const auto list = consumers.waitFor(
      [&](const ConsumerList& now) { return ConsumerWithProcessID(now, parecord.pid()); });
  ASSERT_TRUE(list) << server_.output();
  ASSERT_EQ(list->size(), 1u);
  const MediaDeviceConsumer& recorder = list->front();
  EXPECT_FALSE(recorder.isProcessIDVerified) << "the daemon only hears what the client says";
  EXPECT_EQ(recorder.kind, MediaDeviceConsumerKind::Application);
  EXPECT_EQ(recorder.applicationName, "parecord");
  EXPECT_EQ(recorder.processName, "parecord");
  EXPECT_EQ(BaseName(recorder.executablePath), "pacat") << "parecord is pacat under another name";
  EXPECT_TRUE(recorder.feeds.empty());

  parecord.stop(SIGTERM, 5s);
  EXPECT_TRUE(consumers.waitFor([](const ConsumerList& now) { return now.empty(); }));
}

TEST_F(PulseAudioConsumersTest, AClientThatLiesAboutItsProcessIsShownAsAClaim) {
  ConsumerProbe consumers(*service_, microphone_, queue_);
  ASSERT_EQ(consumers.add(), kNoErr);
  ChildProcess parecord;
  ASSERT_EQ(startParecord(parecord, PrivatePulseServer::kNullSourceName,
                          {"--property=application.process.id=1"}),
            "");
  const auto list = consumers.waitFor([](const ConsumerList& now) { return !now.empty(); });
  ASSERT_TRUE(list);
  ASSERT_EQ(list->size(), 1u);
  EXPECT_EQ(list->front().processID, 1);
  EXPECT_FALSE(list->front().isProcessIDVerified);
  EXPECT_EQ(list->front().applicationName, "parecord");
}

TEST_F(PulseAudioConsumersTest, ALevelMeterIsListedAsOne) {
  ConsumerProbe consumers(*service_, microphone_, queue_);
  ASSERT_EQ(consumers.add(), kNoErr);
  PulseTestClient client(server_.address());
  ASSERT_TRUE(client.isConnected());
  auto meter = client.record(PrivatePulseServer::kNullSourceName, {.levelMeter = true});
  ASSERT_TRUE(meter);

  const auto list = consumers.waitFor([](const ConsumerList& now) { return !now.empty(); });
  ASSERT_TRUE(list);
  ASSERT_EQ(list->size(), 1u);
  EXPECT_EQ(list->front().kind, MediaDeviceConsumerKind::LevelMeter);
  // libpulse tells the server the client's own process ID.
  EXPECT_EQ(list->front().processID, getpid());
  EXPECT_FALSE(list->front().isProcessIDVerified);
  EXPECT_TRUE(list->front().executablePath.has_value());

  meter.reset();
  EXPECT_TRUE(consumers.waitFor([](const ConsumerList& now) { return now.empty(); }));
}

TEST_F(PulseAudioConsumersTest, AFilterIsListedWithTheRecorderAtTheEndOfItsChain) {
  ConsumerProbe consumers(*service_, microphone_, queue_);
  ASSERT_EQ(consumers.add(), kNoErr);
  PulseTestClient client(server_.address());
  ASSERT_TRUE(client.loadModule(
      "module-virtual-source",
      std::string("master=") + PrivatePulseServer::kNullSourceName + " source_name=virtual_mic"));
  const auto alone = consumers.waitFor([](const ConsumerList& now) { return !now.empty(); });
  ASSERT_TRUE(alone);
  ASSERT_EQ(alone->size(), 1u);
  EXPECT_EQ(alone->front().kind, MediaDeviceConsumerKind::Filter);
  EXPECT_EQ(alone->front().processID, -1) << "a module's stream belongs to no client";
  EXPECT_TRUE(alone->front().feeds.empty());

  ChildProcess parecord;
  ASSERT_EQ(startParecord(parecord, "virtual_mic"), "");
  const auto fed = consumers.waitFor([&](const ConsumerList& now) {
    return now.size() == 1 && ConsumerWithProcessID(now.front().feeds, parecord.pid());
  });
  ASSERT_TRUE(fed);
  const MediaDeviceConsumer& recorder = fed->front().feeds.front();
  EXPECT_EQ(recorder.kind, MediaDeviceConsumerKind::Application);
  EXPECT_EQ(BaseName(recorder.executablePath), "pacat");
  EXPECT_TRUE(MediaDeviceConsumerReachesApplication(fed->front()));

  parecord.stop(SIGTERM, 5s);
  EXPECT_TRUE(consumers.waitFor(
      [](const ConsumerList& now) { return now.size() == 1 && now.front().feeds.empty(); }));
}

TEST_F(PulseAudioConsumersTest, ACaptureOfTheSpeakersMonitorIsAMonitorOfTheSpeakers) {
  const auto speakers = DeviceWithUID(*service_, PrivatePulseServer::kNullSinkName);
  ASSERT_TRUE(speakers);
  ConsumerProbe consumers(*service_, *speakers, queue_);
  ASSERT_EQ(consumers.add(), kNoErr);
  ChildProcess parecord;
  ASSERT_EQ(startParecord(parecord, std::string(PrivatePulseServer::kNullSinkName) + ".monitor"),
            "");
  const auto list = consumers.waitFor(
      [&](const ConsumerList& now) { return ConsumerWithProcessID(now, parecord.pid()); });
  ASSERT_TRUE(list);
  EXPECT_EQ(list->front().kind, MediaDeviceConsumerKind::Monitor);
  EXPECT_EQ(ReadDeviceConsumers(*service_, microphone_), ConsumerList{});
}

TEST_F(PulseAudioConsumersTest, AChangeThatLeavesTheListAsItWasNotifiesNothing) {
  ConsumerProbe consumers(*service_, microphone_, queue_);
  ASSERT_EQ(consumers.add(), kNoErr);
  PulseTestClient client(server_.address());
  auto recording = client.record(PrivatePulseServer::kNullSourceName);
  ASSERT_TRUE(recording);
  ASSERT_TRUE(consumers.waitFor([](const ConsumerList& now) { return now.size() == 1; }));
  consumers.clear();
  // Corking changes the stream, not who holds it; a new null source is a barrier: its device-list
  // notification comes after anything the cork caused.
  ASSERT_TRUE(recording->setCorked(true));
  PropertyProbe list(*service_, kAudioObjectSystemObject, kDevices, queue_);
  ASSERT_EQ(list.add(), kNoErr);
  ASSERT_TRUE(client.loadModule("module-null-source", "source_name=barrier"));
  ASSERT_TRUE(list.calls().waitForCount(1));
  DrainQueue(queue_);
  EXPECT_TRUE(consumers.lists().empty());
}

}  // namespace
}  // namespace harkwell
