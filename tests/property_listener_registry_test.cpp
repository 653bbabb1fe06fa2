// The Linux services' listener registrations: removal by the wrapped closure, notification on
// each listener's own queue, and nothing run after a removal.
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/internal/PropertyListenerRegistry.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using testing::DrainQueue;
using testing::Recorder;

const PropertyAddress kRunning{kAudioDevicePropertyDeviceIsRunningSomewhere,
                               kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMaster};
const PropertyAddress kDevices{kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal,
                               kAudioObjectPropertyElementMaster};

// A closure that records, for each call, the queue it ran on and the address it was given.
struct Call {
  bool onQueue;
  PropertyAddress address;
};

SharedPropertyListener RecordingClosure(Recorder<Call>& calls,
                                        std::shared_ptr<DispatchQueue> queue) {
  return std::make_shared<const PropertyListener>(
      [&calls, queue](std::uint32_t count, const PropertyAddress* addresses) {
        ASSERT_EQ(count, 1u);
        calls.append(Call{queue->isCurrent(), addresses[0]});
      });
}

TEST(PropertyListenerRegistryTest, NotificationRunsTheBlockOnItsQueueWithTheAddress) {
  PropertyListenerRegistry registry;
  auto queue = DispatchQueue::createSerial("test.listeners");
  Recorder<Call> calls;
  auto closure = RecordingClosure(calls, queue);
  ASSERT_TRUE(registry.add(100, kRunning, queue, PlatformListenerBlock::copy(closure)));

  registry.notify(100, kRunning);

  ASSERT_TRUE(calls.waitForCount(1));
  EXPECT_TRUE(calls.entries()[0].onQueue);
  EXPECT_EQ(calls.entries()[0].address, kRunning);
}

TEST(PropertyListenerRegistryTest, OnlyListenersOfExactlyThatObjectAndAddressRun) {
  PropertyListenerRegistry registry;
  auto queue = DispatchQueue::createSerial("test.listeners");
  Recorder<Call> calls;
  auto closure = RecordingClosure(calls, queue);
  PropertyAddress inputScoped = kRunning;
  inputScoped.mScope = kAudioObjectPropertyScopeInput;
  registry.add(100, kRunning, queue, PlatformListenerBlock::copy(closure));
  registry.add(102, kRunning, queue, PlatformListenerBlock::copy(closure));
  registry.add(100, inputScoped, queue, PlatformListenerBlock::copy(closure));

  registry.notify(100, kRunning);
  DrainQueue(queue);

  EXPECT_EQ(calls.size(), 1u);
}

TEST(PropertyListenerRegistryTest, RemovalWithANewBlockAroundTheSameClosureMatches) {
  PropertyListenerRegistry registry;
  auto queue = DispatchQueue::createSerial("test.listeners");
  Recorder<Call> calls;
  auto closure = RecordingClosure(calls, queue);
  registry.add(1, kDevices, queue, PlatformListenerBlock::copy(closure));

  EXPECT_TRUE(registry.remove(1, kDevices, queue, PlatformListenerBlock::copy(closure)));
  EXPECT_EQ(registry.count(), 0u);
  registry.notify(1, kDevices);
  DrainQueue(queue);
  EXPECT_EQ(calls.size(), 0u);
}

TEST(PropertyListenerRegistryTest, RemovalNeedsTheSameObjectAddressQueueAndClosure) {
  PropertyListenerRegistry registry;
  auto queue = DispatchQueue::createSerial("test.listeners");
  auto otherQueue = DispatchQueue::createSerial("test.other");
  Recorder<Call> calls;
  auto closure = RecordingClosure(calls, queue);
  auto otherClosure = RecordingClosure(calls, queue);
  registry.add(100, kRunning, queue, PlatformListenerBlock::copy(closure));

  EXPECT_FALSE(registry.remove(102, kRunning, queue, PlatformListenerBlock::copy(closure)));
  EXPECT_FALSE(registry.remove(100, kDevices, queue, PlatformListenerBlock::copy(closure)));
  EXPECT_FALSE(registry.remove(100, kRunning, otherQueue, PlatformListenerBlock::copy(closure)));
  EXPECT_FALSE(registry.remove(100, kRunning, queue, PlatformListenerBlock::copy(otherClosure)));
  EXPECT_FALSE(registry.remove(100, kRunning, queue, nullptr));
  EXPECT_EQ(registry.count(), 1u);
}

TEST(PropertyListenerRegistryTest, MissingQueueOrBlockIsRefused) {
  PropertyListenerRegistry registry;
  auto queue = DispatchQueue::createSerial("test.listeners");
  Recorder<Call> calls;
  EXPECT_FALSE(registry.add(1, kDevices, nullptr,
                            PlatformListenerBlock::copy(RecordingClosure(calls, queue))));
  EXPECT_FALSE(registry.add(1, kDevices, queue, nullptr));
  EXPECT_EQ(registry.count(), 0u);
}

TEST(PropertyListenerRegistryTest, BlockRemovedBeforeItsQueuedCallStartsDoesNotRun) {
  PropertyListenerRegistry registry;
  auto queue = DispatchQueue::createSerial("test.listeners");
  Recorder<Call> calls;
  auto closure = RecordingClosure(calls, queue);
  registry.add(100, kRunning, queue, PlatformListenerBlock::copy(closure));
  // Hold the queue so the notification waits behind this work.
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  queue->async([released] { released.wait(); });

  registry.notify(100, kRunning);
  EXPECT_TRUE(registry.remove(100, kRunning, queue, PlatformListenerBlock::copy(closure)));
  release.set_value();
  DrainQueue(queue);

  EXPECT_EQ(calls.size(), 0u);
}

TEST(PropertyListenerRegistryTest, QueuedCallsDoNotRunOnceTheRegistryIsGone) {
  auto registry = std::make_unique<PropertyListenerRegistry>();
  auto queue = DispatchQueue::createSerial("test.listeners");
  Recorder<Call> calls;
  registry->add(100, kRunning, queue, PlatformListenerBlock::copy(RecordingClosure(calls, queue)));
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  queue->async([released] { released.wait(); });

  registry->notify(100, kRunning);
  registry.reset();
  release.set_value();
  DrainQueue(queue);

  EXPECT_EQ(calls.size(), 0u);
}

}  // namespace
}  // namespace harkwell
