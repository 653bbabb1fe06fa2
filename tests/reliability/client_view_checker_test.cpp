// The reliability suites are only as good as their checks: each rule the client-view checker and
// the record check enforce must trip when it is broken, and a correct history must pass.
#include <gtest/gtest.h>

#include "tests/reliability/ClientViewChecker.h"
#include "tests/reliability/DeviceIncarnation.h"

namespace harkwell {
namespace {

using testing::ClientViewChecker;
using testing::DeviceIncarnation;

MediaDevice RecordOf(const DeviceIncarnation& incarnation) {
  return MediaDevice{.deviceID = incarnation.deviceID,
                     .mediaType = incarnation.mediaType,
                     .deviceUID = incarnation.uid(),
                     .modelUID = incarnation.modelUID(),
                     .name = incarnation.name(),
                     .inputChannelCount = incarnation.inputCount,
                     .outputChannelCount = incarnation.outputCount,
                     .isConnected = true,
                     .unsupportedReason = MediaDeviceUnsupportedReasonForChannelCounts(
                         incarnation.inputCount, incarnation.outputCount)};
}

MediaDevice Gone(MediaDevice record) {
  record.isConnected = false;
  record.isRunning = false;
  return record;
}

const DeviceIncarnation kMicrophone{.mediaType = MediaType::Audio, .deviceID = 7, .generation = 3};

class ClientViewCheckerTest : public ::testing::Test {
 protected:
  // Feeds the checker on its queue, as a controller would.
  template <class Work>
  void onQueue(Work work) {
    queue_->sync(work);
  }

  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("checker-test");
  ClientViewChecker checker_{queue_};
};

TEST_F(ClientViewCheckerTest, AWholeHistoryPasses) {
  onQueue([&] {
    checker_.onBracket(false);
    checker_.onEvent(MediaDeviceEvent::Connected, RecordOf(kMicrophone));
    checker_.onBracket(true);
    MediaDevice running = RecordOf(kMicrophone);
    running.isRunning = true;
    running.inputSourceName = DeviceIncarnation::inputSourceName(2);
    checker_.onEvent(MediaDeviceEvent::ChangedRunning, running);
    checker_.onBracket(false);
    checker_.onEvent(MediaDeviceEvent::Disconnected, Gone(running));
    checker_.onBracket(true);
  });
  EXPECT_FALSE(checker_.firstViolation());
  EXPECT_TRUE(checker_.view().empty());
  EXPECT_EQ(checker_.eventCount(MediaDeviceEvent::Connected), 1u);
}

TEST_F(ClientViewCheckerTest, DisconnectedWithoutConnectedIsCaught) {
  onQueue([&] { checker_.onEvent(MediaDeviceEvent::Disconnected, Gone(RecordOf(kMicrophone))); });
  ASSERT_TRUE(checker_.firstViolation());
  EXPECT_NE(checker_.firstViolation()->find("never told"), std::string::npos);
}

TEST_F(ClientViewCheckerTest, DisconnectedTwiceIsCaught) {
  onQueue([&] {
    checker_.onEvent(MediaDeviceEvent::InitialDiscovery, RecordOf(kMicrophone));
    checker_.onEvent(MediaDeviceEvent::Disconnected, Gone(RecordOf(kMicrophone)));
  });
  EXPECT_FALSE(checker_.firstViolation());
  onQueue([&] { checker_.onEvent(MediaDeviceEvent::Disconnected, Gone(RecordOf(kMicrophone))); });
  EXPECT_TRUE(checker_.firstViolation());
}

TEST_F(ClientViewCheckerTest, ChangeForAForgottenDeviceIsCaught) {
  onQueue([&] { checker_.onEvent(MediaDeviceEvent::ChangedRunning, RecordOf(kMicrophone)); });
  EXPECT_TRUE(checker_.firstViolation());
}

TEST_F(ClientViewCheckerTest, CallbackOffTheQueueIsCaught) {
  checker_.onEvent(MediaDeviceEvent::Connected, RecordOf(kMicrophone));
  ASSERT_TRUE(checker_.firstViolation());
  EXPECT_NE(checker_.firstViolation()->find("off the event-handler queue"), std::string::npos);
}

TEST_F(ClientViewCheckerTest, NestedOrUnopenedBracketsAreCaught) {
  onQueue([&] { checker_.onBracket(true); });
  EXPECT_TRUE(checker_.firstViolation());
  ClientViewChecker nested(queue_);
  onQueue([&] {
    nested.onBracket(false);
    nested.onBracket(false);
  });
  EXPECT_TRUE(nested.firstViolation());
}

TEST_F(ClientViewCheckerTest, DisconnectedRecordStillRunningIsCaught) {
  onQueue([&] {
    checker_.onEvent(MediaDeviceEvent::Connected, RecordOf(kMicrophone));
    MediaDevice stillRunning = Gone(RecordOf(kMicrophone));
    stillRunning.isRunning = true;
    checker_.onEvent(MediaDeviceEvent::Disconnected, stillRunning);
  });
  EXPECT_TRUE(checker_.firstViolation());
}

TEST_F(ClientViewCheckerTest, ConsumersOfAKnownDeviceThatChangePass) {
  const std::vector<MediaDeviceConsumer> recorder{{.processID = 7}};
  onQueue([&] {
    checker_.onEvent(MediaDeviceEvent::Connected, RecordOf(kMicrophone));
    checker_.onConsumers(RecordOf(kMicrophone), recorder);
    checker_.onConsumers(RecordOf(kMicrophone), {});
    checker_.onConsumers(RecordOf(kMicrophone), recorder);
  });
  EXPECT_FALSE(checker_.firstViolation());
  EXPECT_EQ(checker_.consumerReportCount(), 3u);
  EXPECT_EQ(checker_.consumersView().at({MediaType::Audio, 7}), recorder);
  // A Connected for a device the client knows goes on with its consumers; a new connection after
  // a Disconnected starts them afresh.
  onQueue([&] {
    checker_.onEvent(MediaDeviceEvent::Connected, RecordOf(kMicrophone));
    checker_.onConsumers(RecordOf(kMicrophone), {});
  });
  EXPECT_FALSE(checker_.firstViolation());
  onQueue([&] {
    checker_.onEvent(MediaDeviceEvent::Disconnected, Gone(RecordOf(kMicrophone)));
    checker_.onEvent(MediaDeviceEvent::Connected, RecordOf(kMicrophone));
    checker_.onConsumers(RecordOf(kMicrophone), recorder);
  });
  EXPECT_FALSE(checker_.firstViolation());
}

TEST_F(ClientViewCheckerTest, ConsumersOfAnUnknownDeviceAreCaught) {
  onQueue([&] { checker_.onConsumers(RecordOf(kMicrophone), {{.processID = 7}}); });
  ASSERT_TRUE(checker_.firstViolation());
  EXPECT_NE(checker_.firstViolation()->find("does not know"), std::string::npos);
}

TEST_F(ClientViewCheckerTest, TheSameConsumersTwiceOrNobodyFirstAreCaught) {
  onQueue([&] {
    checker_.onEvent(MediaDeviceEvent::Connected, RecordOf(kMicrophone));
    checker_.onConsumers(RecordOf(kMicrophone), {{.processID = 7}});
    checker_.onConsumers(RecordOf(kMicrophone), {{.processID = 7}});
  });
  ASSERT_TRUE(checker_.firstViolation());
  EXPECT_NE(checker_.firstViolation()->find("reported again"), std::string::npos);
  ClientViewChecker fresh(queue_);
  onQueue([&] {
    fresh.onEvent(MediaDeviceEvent::Connected, RecordOf(kMicrophone));
    fresh.onConsumers(RecordOf(kMicrophone), {});
  });
  EXPECT_TRUE(fresh.firstViolation());
}

TEST_F(ClientViewCheckerTest, ConsumersWithTheRecordOfAnotherDeviceAreCaught) {
  const DeviceIncarnation next{.mediaType = MediaType::Audio, .deviceID = 7, .generation = 4};
  onQueue([&] {
    checker_.onEvent(MediaDeviceEvent::Connected, RecordOf(kMicrophone));
    MediaDevice running = RecordOf(kMicrophone);
    running.isRunning = true;
    checker_.onConsumers(running, {{.processID = 7}});
  });
  EXPECT_FALSE(checker_.firstViolation()) << "a later read of the same device is fine";
  onQueue([&] { checker_.onConsumers(RecordOf(next), {{.processID = 8}}); });
  ASSERT_TRUE(checker_.firstViolation());
  EXPECT_NE(checker_.firstViolation()->find("another device"), std::string::npos);
}

TEST_F(ClientViewCheckerTest, ConsumersOffTheQueueAreCaught) {
  onQueue([&] { checker_.onEvent(MediaDeviceEvent::Connected, RecordOf(kMicrophone)); });
  checker_.onConsumers(RecordOf(kMicrophone), {{.processID = 7}});
  ASSERT_TRUE(checker_.firstViolation());
  EXPECT_NE(checker_.firstViolation()->find("off the event-handler queue"), std::string::npos);
}

TEST(CachedRecordProblemTest, AWholeRecordHasNoProblem) {
  EXPECT_FALSE(testing::CachedRecordProblem(RecordOf(kMicrophone)));
}

TEST(CachedRecordProblemTest, FieldsFromTwoDevicesAreCaught) {
  const DeviceIncarnation next{.mediaType = MediaType::Audio, .deviceID = 7, .generation = 4};
  MediaDevice mixed = RecordOf(kMicrophone);
  mixed.deviceUID = next.uid();
  EXPECT_TRUE(testing::CachedRecordProblem(mixed));
}

TEST(CachedRecordProblemTest, EachWrongFieldIsCaught) {
  auto broken = [](auto edit) {
    MediaDevice record = RecordOf(kMicrophone);
    edit(record);
    return testing::CachedRecordProblem(record).has_value();
  };
  EXPECT_TRUE(broken([](MediaDevice& r) { r.name.clear(); }));
  EXPECT_TRUE(broken([](MediaDevice& r) { r.deviceID = 8; }));
  EXPECT_TRUE(broken([](MediaDevice& r) { r.mediaType = MediaType::Video; }));
  EXPECT_TRUE(broken([](MediaDevice& r) { r.inputChannelCount = 2; }));
  EXPECT_TRUE(broken([](MediaDevice& r) { r.modelUID = "other-model"; }));
  EXPECT_TRUE(broken([](MediaDevice& r) { r.isConnected = false; }));
  EXPECT_TRUE(broken(
      [](MediaDevice& r) { r.unsupportedReason = MediaDeviceUnsupportedReason::NoInputChannels; }));
  EXPECT_TRUE(broken([](MediaDevice& r) { r.inputSourceName = "Line In"; }));
  EXPECT_FALSE(broken([](MediaDevice& r) { r.modelUID = std::nullopt; }));
}

}  // namespace
}  // namespace harkwell
