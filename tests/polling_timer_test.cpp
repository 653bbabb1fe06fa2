// The observer's polling timer: one shared repeating timer on the main run loop that exists
// exactly while handlers are registered, whose firings run every handler on the event-handler
// queue. Time is driven: the run loop's clock moves only when a test moves it.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "HarkwellFoundation/Observer/MediaDeviceObserver.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "tests/support/ScriptedDeviceObserver.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using namespace std::chrono_literals;
using testing::DeviceScript;
using testing::DrainQueue;
using testing::Recorder;
using testing::ScriptedDeviceObserver;

class PollingTimerTest : public ::testing::Test {
 protected:
  void SetUp() override { loop().useManualClockForTesting(); }
  void TearDown() override {
    observer_.reset();
    DrainQueue(queue_);
    loop().useSystemClockForTesting();
    EXPECT_EQ(loop().scheduledTimerCountForTesting(), 0u) << "a test left a timer behind";
  }

  static MainRunLoop& loop() { return MainRunLoop::shared(); }

  // Moves the clock and lets the main thread fire what is due, then lets the queue run the
  // passes the firings queued.
  void advance(std::chrono::nanoseconds delta) {
    loop().advanceManualClockForTesting(delta);
    loop().performDueWork();
    DrainQueue(queue_);
  }

  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("polling-test");
  std::shared_ptr<ScriptedDeviceObserver> observer_ =
      ScriptedDeviceObserver::create(queue_, std::make_shared<DeviceScript>());
  Recorder<std::string> calls_;
};

TEST_F(PollingTimerTest, FirstAddSchedulesOneTimerAndASecondDeviceAddsNone) {
  EXPECT_FALSE(observer_->devicePropertiesPollingTimerForTesting());
  observer_->addPollingHandlerForDeviceID(1, [] {});
  auto timer = observer_->devicePropertiesPollingTimerForTesting();
  ASSERT_TRUE(timer);
  EXPECT_EQ(loop().scheduledTimerCountForTesting(), 1u);
  EXPECT_EQ(timer->interval(), 5.0);
  EXPECT_EQ(timer->tolerance(), 1.0);

  observer_->addPollingHandlerForDeviceID(2, [] {});
  EXPECT_EQ(observer_->devicePropertiesPollingTimerForTesting(), timer);
  EXPECT_EQ(loop().scheduledTimerCountForTesting(), 1u);

  observer_->removePollingHandlerForDeviceID(1);
  observer_->removePollingHandlerForDeviceID(2);
}

TEST_F(PollingTimerTest, FirstFiringComesOneIntervalAfterCreation) {
  observer_->addPollingHandlerForDeviceID(1, [this] { calls_.append("poll"); });
  advance(4900ms);
  EXPECT_EQ(calls_.size(), 0u);
  advance(100ms);
  EXPECT_EQ(calls_.size(), 1u);
  advance(5s);
  EXPECT_EQ(calls_.size(), 2u);
  observer_->removePollingHandlerForDeviceID(1);
}

TEST_F(PollingTimerTest, SecondAddForTheSameDeviceReplacesTheFirstAndKeepsTheTimer) {
  observer_->addPollingHandlerForDeviceID(1, [this] { calls_.append("first"); });
  auto timer = observer_->devicePropertiesPollingTimerForTesting();
  observer_->addPollingHandlerForDeviceID(1, [this] { calls_.append("second"); });
  EXPECT_EQ(observer_->pollingHandlerCountForTesting(), 1u);
  EXPECT_EQ(observer_->devicePropertiesPollingTimerForTesting(), timer);
  advance(5s);
  advance(5s);
  EXPECT_EQ(calls_.entries(), (std::vector<std::string>{"second", "second"}));
  observer_->removePollingHandlerForDeviceID(1);
}

TEST_F(PollingTimerTest, RemovingOneOfTwoKeepsTheTimerAndRemovingTheOtherInvalidatesIt) {
  observer_->addPollingHandlerForDeviceID(1, [] {});
  observer_->addPollingHandlerForDeviceID(2, [] {});
  auto timer = observer_->devicePropertiesPollingTimerForTesting();
  observer_->removePollingHandlerForDeviceID(1);
  EXPECT_TRUE(timer->isValid());
  EXPECT_EQ(observer_->devicePropertiesPollingTimerForTesting(), timer);
  observer_->removePollingHandlerForDeviceID(2);
  EXPECT_FALSE(timer->isValid());
  EXPECT_FALSE(observer_->devicePropertiesPollingTimerForTesting());
  EXPECT_EQ(loop().scheduledTimerCountForTesting(), 0u);
}

TEST_F(PollingTimerTest, RemovingAnUnregisteredDeviceChangesNothing) {
  observer_->addPollingHandlerForDeviceID(1, [this] { calls_.append("poll"); });
  auto timer = observer_->devicePropertiesPollingTimerForTesting();
  observer_->removePollingHandlerForDeviceID(99);
  EXPECT_EQ(observer_->pollingHandlerCountForTesting(), 1u);
  EXPECT_TRUE(timer->isValid());
  advance(5s);
  EXPECT_EQ(calls_.size(), 1u);
  observer_->removePollingHandlerForDeviceID(1);
}

TEST_F(PollingTimerTest, RemoveOnAnotherThreadReturnsOnlyAfterTheMainThreadInvalidated) {
  observer_->addPollingHandlerForDeviceID(1, [] {});
  auto timer = observer_->devicePropertiesPollingTimerForTesting();
  std::atomic<bool> returned{false};
  std::atomic<bool> invalidWhenReturned{false};
  std::thread remover([&] {
    observer_->removePollingHandlerForDeviceID(1);
    invalidWhenReturned = !timer->isValid();
    returned = true;
  });
  // The remover waits for the main thread, which runs the loop here.
  EXPECT_TRUE(loop().runUntil([&] { return returned.load(); }, 10s));
  remover.join();
  EXPECT_TRUE(invalidWhenReturned);
  EXPECT_FALSE(observer_->devicePropertiesPollingTimerForTesting());
}

TEST_F(PollingTimerTest, HandlersRunOnTheEventHandlerQueue) {
  observer_->addPollingHandlerForDeviceID(1, [this] {
    calls_.append(queue_->isCurrent() && !IsMainThread() ? "on queue" : "elsewhere");
  });
  advance(5s);
  EXPECT_EQ(calls_.entries(), (std::vector<std::string>{"on queue"}));
  observer_->removePollingHandlerForDeviceID(1);
}

TEST_F(PollingTimerTest, HandlerThatRemovesItselfDoesNotStopTheOthers) {
  // The pass runs on the queue while the main thread runs the loop, so runUntil waits for it.
  std::atomic<int> passes{0};
  observer_->addPollingHandlerForDeviceID(1, [this] {
    calls_.append("one");
    observer_->removePollingHandlerForDeviceID(1);
  });
  observer_->addPollingHandlerForDeviceID(2, [this] {
    calls_.append("two");
    observer_->removePollingHandlerForDeviceID(2);
  });
  observer_->addPollingHandlerForDeviceID(3, [this] { calls_.append("three"); });
  loop().advanceManualClockForTesting(5s);
  loop().performDueWork();
  queue_->async([&] { passes++; });
  ASSERT_TRUE(loop().runUntil([&] { return passes.load() == 1; }, 10s));
  auto calls = calls_.entries();
  std::sort(calls.begin(), calls.end());
  EXPECT_EQ(calls, (std::vector<std::string>{"one", "three", "two"}));
  EXPECT_EQ(observer_->pollingHandlerCountForTesting(), 1u);
  EXPECT_TRUE(observer_->devicePropertiesPollingTimerForTesting());
  observer_->removePollingHandlerForDeviceID(3);
}

TEST_F(PollingTimerTest, RemovingTheLastHandlerInAPassEndsTheFirings) {
  auto timer = std::shared_ptr<RunLoopTimer>();
  std::atomic<bool> removed{false};
  std::promise<void> gate;
  auto opened = gate.get_future().share();
  observer_->addPollingHandlerForDeviceID(1, [this, &removed] {
    calls_.append("poll");
    observer_->removePollingHandlerForDeviceID(1);
    removed = true;
  });
  timer = observer_->devicePropertiesPollingTimerForTesting();
  // Hold the queue so that two firings queue two passes before either runs.
  queue_->async([opened] { opened.wait(); });
  loop().advanceManualClockForTesting(5s);
  loop().performDueWork();
  loop().advanceManualClockForTesting(5s);
  loop().performDueWork();
  gate.set_value();
  ASSERT_TRUE(loop().runUntil([&] { return removed.load(); }, 10s));
  DrainQueue(queue_);
  // The second pass found an empty map.
  EXPECT_EQ(calls_.entries(), (std::vector<std::string>{"poll"}));
  EXPECT_FALSE(timer->isValid());
  advance(5s);
  EXPECT_EQ(calls_.size(), 1u);
}

TEST_F(PollingTimerTest, FiringsAreNotCoalesced) {
  std::promise<void> gate;
  observer_->addPollingHandlerForDeviceID(1, [this] { calls_.append("poll"); });
  queue_->async([opened = gate.get_future().share()] { opened.wait(); });
  loop().advanceManualClockForTesting(5s);
  loop().performDueWork();
  loop().advanceManualClockForTesting(5s);
  loop().performDueWork();
  gate.set_value();
  DrainQueue(queue_);
  EXPECT_EQ(calls_.size(), 2u);
  observer_->removePollingHandlerForDeviceID(1);
}

TEST_F(PollingTimerTest, HandlerAddedDuringAPassIsFirstCalledAtTheNextFiring) {
  observer_->addPollingHandlerForDeviceID(1, [this] {
    calls_.append("one");
    observer_->addPollingHandlerForDeviceID(2, [this] { calls_.append("two"); });
  });
  advance(5s);
  EXPECT_EQ(calls_.entries(), (std::vector<std::string>{"one"}));
  calls_.clear();
  advance(5s);
  auto calls = calls_.entries();
  std::sort(calls.begin(), calls.end());
  EXPECT_EQ(calls, (std::vector<std::string>{"one", "two"}));
  observer_->removePollingHandlerForDeviceID(1);
  observer_->removePollingHandlerForDeviceID(2);
}

TEST_F(PollingTimerTest, WithoutHandlersThereIsNoTimerAndNothingFires) {
  // Only the timer starts a polling pass, so with no timer on the loop nothing can fire.
  EXPECT_FALSE(observer_->devicePropertiesPollingTimerForTesting());
  EXPECT_EQ(loop().scheduledTimerCountForTesting(), 0u);

  // The same holds once the map has been emptied again.
  observer_->addPollingHandlerForDeviceID(1, [] {});
  ASSERT_EQ(loop().scheduledTimerCountForTesting(), 1u);
  observer_->removePollingHandlerForDeviceID(1);
  advance(60s);
  EXPECT_FALSE(observer_->devicePropertiesPollingTimerForTesting());
  EXPECT_EQ(loop().scheduledTimerCountForTesting(), 0u);
}

TEST_F(PollingTimerTest, ObserverWithALiveTimerIsNotTornDown) {
  auto script = std::make_shared<DeviceScript>();
  auto observer = ScriptedDeviceObserver::create(queue_, script);
  DrainQueue(queue_);
  observer->addPollingHandlerForDeviceID(1, [] {});
  std::weak_ptr<ScriptedDeviceObserver> weak = observer;
  observer.reset();
  DrainQueue(queue_);
  ASSERT_FALSE(weak.expired()) << "the scheduled timer holds its observer";
  EXPECT_TRUE(script->calls().empty() ||
              script->calls().back() != "stopObservingPropertiesForAllDevices()");

  weak.lock()->removePollingHandlerForDeviceID(1);
  DrainQueue(queue_);
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(script->calls().back(), "stopObservingPropertiesForAllDevices()");
}

}  // namespace
}  // namespace harkwell
