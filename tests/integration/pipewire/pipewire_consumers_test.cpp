// Who uses a device, as the PipeWire service reports it against a private PipeWire stack that each
// test starts: pw-record, a level meter and a filter chain arrive with the notification of the
// daemon's change that made them, with the PID the daemon took from the client's socket, and
// leave when they stop. The PulseAudio service on the same stack's pipewire-pulse shows what that
// bridge can tell.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireHardwareService.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "tests/support/AudioServiceReads.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ConsumerProbe.h"
#include "tests/support/PrivatePipeWireStack.h"
#include "tests/support/ScopedHardwareServices.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using namespace std::chrono_literals;
using namespace testing;

constexpr const char* kMicrophone = "harkwell_test_mic";

class PipeWireConsumersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(stack_.start(), "");
    ASSERT_EQ(stack_.createVirtualMicrophone(kMicrophone, "Harkwell Test Microphone"), "");
    PipeWireHardwareService::Options options;
    options.remote = stack_.remote();
    service_ = PipeWireHardwareService::create(options);
    ASSERT_TRUE(service_);
    const auto microphone = DeviceWithUID(*service_, kMicrophone);
    ASSERT_TRUE(microphone);
    microphone_ = *microphone;
  }

  PrivatePipeWireStack stack_;
  std::shared_ptr<PipeWireHardwareService> service_;
  ObjectID microphone_ = 0;
  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("test.pipewire.consumers");
};

TEST_F(PipeWireConsumersTest, PwRecordArrivesWithItsVerifiedProcessAndLeavesWhenItStops) {
  ConsumerProbe consumers(*service_, microphone_, queue_);
  ASSERT_EQ(consumers.add(), kNoErr);
  ChildProcess recorder;
  ASSERT_EQ(stack_.startRecorder(recorder, kMicrophone), "");

  const auto list = consumers.waitFor(
      [&](const ConsumerList& now) { return ConsumerWithProcessID(now, recorder.pid()); });
  ASSERT_TRUE(list) << stack_.output();
  ASSERT_EQ(list->size(), 1u);
  const MediaDeviceConsumer& consumer = list->front();
  EXPECT_TRUE(consumer.isProcessIDVerified);
  EXPECT_EQ(consumer.kind, MediaDeviceConsumerKind::Application);
  EXPECT_EQ(consumer.applicationName, "pw-cat") << "what the program announces";
  EXPECT_EQ(consumer.processName, "pw-record");
  EXPECT_EQ(BaseName(consumer.executablePath), "pw-cat")
      << "pw-record is pw-cat under another name";

  recorder.stop(SIGTERM, 5s);
  EXPECT_TRUE(consumers.waitFor([](const ConsumerList& now) { return now.empty(); }));
}

TEST_F(PipeWireConsumersTest, AClientThatLiesAboutItsProcessIsShownWithTheSocketsProcess) {
  ConsumerProbe consumers(*service_, microphone_, queue_);
  ASSERT_EQ(consumers.add(), kNoErr);
  ChildProcess recorder;
  ASSERT_EQ(stack_.startRecorder(recorder, kMicrophone, "application.process.id=1"), "");
  const auto list = consumers.waitFor([](const ConsumerList& now) { return !now.empty(); });
  ASSERT_TRUE(list) << stack_.output();
  ASSERT_EQ(list->size(), 1u);
  EXPECT_EQ(list->front().processID, recorder.pid());
  EXPECT_TRUE(list->front().isProcessIDVerified);
}

TEST_F(PipeWireConsumersTest, ALevelMeterIsListedAsOne) {
  ConsumerProbe consumers(*service_, microphone_, queue_);
  ASSERT_EQ(consumers.add(), kNoErr);
  ChildProcess meter;
  ASSERT_EQ(stack_.startRecorder(meter, kMicrophone, "stream.monitor=true"), "");
  const auto list = consumers.waitFor(
      [&](const ConsumerList& now) { return ConsumerWithProcessID(now, meter.pid()); });
  ASSERT_TRUE(list) << stack_.output();
  EXPECT_EQ(list->front().kind, MediaDeviceConsumerKind::LevelMeter);
  EXPECT_TRUE(list->front().isProcessIDVerified);
  meter.stop(SIGTERM, 5s);
  EXPECT_TRUE(consumers.waitFor([](const ConsumerList& now) { return now.empty(); }));
}

TEST_F(PipeWireConsumersTest, AFilterIsListedWithTheRecorderAtTheEndOfItsChain) {
  ConsumerProbe consumers(*service_, microphone_, queue_);
  ASSERT_EQ(consumers.add(), kNoErr);
  ChildProcess loopback;
  ASSERT_EQ(stack_.startLoopbackSource(loopback, kMicrophone, "harkwell_test_filter", "Filter"),
            "");
  ChildProcess recorder;
  ASSERT_EQ(stack_.startRecorder(recorder, "harkwell_test_filter"), "");

  const auto list = consumers.waitFor([&](const ConsumerList& now) {
    const auto* filter = ConsumerWithProcessID(now, loopback.pid());
    return filter && ConsumerWithProcessID(filter->feeds, recorder.pid());
  });
  ASSERT_TRUE(list) << stack_.output();
  const MediaDeviceConsumer& filter = *ConsumerWithProcessID(*list, loopback.pid());
  EXPECT_EQ(filter.kind, MediaDeviceConsumerKind::Filter);
  EXPECT_TRUE(filter.isProcessIDVerified);
  EXPECT_EQ(filter.processName, "pw-loopback");
  ASSERT_EQ(filter.feeds.size(), 1u);
  EXPECT_EQ(filter.feeds.front().kind, MediaDeviceConsumerKind::Application);
  EXPECT_EQ(filter.feeds.front().processName, "pw-record");
  EXPECT_FALSE(ConsumerWithProcessID(*list, recorder.pid())) << "it records from the filter";

  recorder.stop(SIGTERM, 5s);
  EXPECT_TRUE(consumers.waitFor([&](const ConsumerList& now) {
    const auto* left = ConsumerWithProcessID(now, loopback.pid());
    return left && left->feeds.empty();
  }));
  loopback.stop(SIGTERM, 5s);
  EXPECT_TRUE(consumers.waitFor([](const ConsumerList& now) { return now.empty(); }));
}

TEST_F(PipeWireConsumersTest, TheConsumersHandlerHearsOfARecorder) {
  ScopedHardwareServices services(service_, SimulatedVideoHardwareService::create());
  auto controller = MediaDeviceController::create(queue_);
  Recorder<std::pair<std::string, ConsumerList>> reports;
  controller->setDeviceConsumersHandler(
      [&](const MediaDevice& device, const ConsumerList& consumers) {
        reports.append({device.deviceUID, consumers});
      });
  Recorder<bool> brackets;
  controller->setUpdatingDevicesHandler([&](bool finished) { brackets.append(finished); });
  controller->setObserveDevices(true);
  ASSERT_TRUE(brackets.waitUntil([](const std::vector<bool>& finished) {
    return std::find(finished.begin(), finished.end(), true) != finished.end();
  }));

  ChildProcess recorder;
  ASSERT_EQ(stack_.startRecorder(recorder, kMicrophone), "");
  EXPECT_TRUE(reports.waitUntil([&](const auto& all) {
    return !all.empty() && all.back().first == kMicrophone &&
           ConsumerWithProcessID(all.back().second, recorder.pid());
  })) << stack_.output();
  recorder.stop(SIGTERM, 5s);
  EXPECT_TRUE(reports.waitUntil([&](const auto& all) {
    return !all.empty() && all.back().first == kMicrophone && all.back().second.empty();
  }));

  controller->setDeviceConsumersHandler(nullptr);
  controller->setUpdatingDevicesHandler(nullptr);
  controller->setObserveDevices(false);
  DrainQueue(queue_);
}

// The same stack through pipewire-pulse: a PulseAudio client's PipeWire connection is
// pipewire-pulse's own, so its PID there is not the client's, and only its claim is left.
class PipeWirePulseConsumersTest : public PipeWireConsumersTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(PipeWireConsumersTest::SetUp());
    PulseAudioHardwareService::Options options;
    options.server = stack_.pulseAddress();
    pulse_ = PulseAudioHardwareService::create(options);
    ASSERT_TRUE(pulse_);
    ASSERT_EQ(DeviceWithUID(*pulse_, kMicrophone), microphone_);
  }

  std::shared_ptr<PulseAudioHardwareService> pulse_;
};

TEST_F(PipeWirePulseConsumersTest, ABridgedClientThatLiesIsShownAsAClaimOnBothServices) {
  ConsumerProbe pulseConsumers(*pulse_, microphone_, queue_);
  ASSERT_EQ(pulseConsumers.add(), kNoErr);
  ConsumerProbe nativeConsumers(*service_, microphone_, queue_);
  ASSERT_EQ(nativeConsumers.add(), kNoErr);
  ChildProcess parecord;
  std::string error;
  ASSERT_TRUE(parecord.start(
      {"parecord", "--raw", "--device=" + std::string(kMicrophone),
       "--property=application.process.id=1", "/dev/null"},
      {.environment = stack_.clientEnvironment(), .outputPath = stack_.folder() + "/parecord.log"},
      &error))
      << error;
  for (ConsumerProbe* probe : {&pulseConsumers, &nativeConsumers}) {
    const auto list = probe->waitFor(
        [](const ConsumerList& now) { return ConsumerWithProcessID(now, 1) != nullptr; });
    ASSERT_TRUE(list) << stack_.output();
    const MediaDeviceConsumer& consumer = *ConsumerWithProcessID(*list, 1);
    EXPECT_FALSE(consumer.isProcessIDVerified);
    EXPECT_EQ(consumer.applicationName, "parecord");
    EXPECT_EQ(consumer.kind, MediaDeviceConsumerKind::Application);
  }
}

TEST_F(PipeWirePulseConsumersTest, ANativeRecorderSeenThroughTheBridgeKeepsItsVerifiedProcess) {
  ConsumerProbe consumers(*pulse_, microphone_, queue_);
  ASSERT_EQ(consumers.add(), kNoErr);
  ChildProcess recorder;
  ASSERT_EQ(stack_.startRecorder(recorder, kMicrophone, "application.process.id=1"), "");
  const auto list = consumers.waitFor(
      [&](const ConsumerList& now) { return ConsumerWithProcessID(now, recorder.pid()); });
  ASSERT_TRUE(list) << stack_.output();
  EXPECT_TRUE(ConsumerWithProcessID(*list, recorder.pid())->isProcessIDVerified);
}

}  // namespace
}  // namespace harkwell
