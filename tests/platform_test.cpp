// The platform pieces the library stands on: serial queues, the main queue and run loop with its
// timers and descriptor, the log sink, platform strings, and the simulated services' own contract.
#include <gtest/gtest.h>
#include <unistd.h>

#if defined(__linux__)
#include <sys/epoll.h>
#endif

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <thread>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/FourCharCode.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "HarkwellFoundation/Platform/PlatformString.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "HarkwellFoundation/Platform/SystemLog.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using namespace std::chrono_literals;
using testing::DrainQueue;
using testing::LogCapture;
using testing::Recorder;

TEST(FourCharCodes, PackBigEndian) {
  EXPECT_EQ(FourCharCode("dev#"), 0x64657623u);
  EXPECT_EQ(static_cast<std::uint32_t>(kAudioHardwareBadObjectError), 0x216F626Au);
  EXPECT_EQ(FourCharCodeText(0x6F696E6B), "oink");
  EXPECT_EQ(FourCharCodeText(0x01020304), "????");
}

TEST(SerialQueue, RunsWorkInSubmissionOrderOneAtATime) {
  auto queue = DispatchQueue::createSerial("order");
  Recorder<int> order;
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  for (int i = 0; i < 200; ++i) {
    queue->async([&, i] {
      if (running.fetch_add(1) != 0) overlapped = true;
      order.append(i);
      running.fetch_sub(1);
    });
  }
  ASSERT_TRUE(order.waitForCount(200));
  const auto entries = order.entries();
  for (int i = 0; i < 200; ++i) EXPECT_EQ(entries[i], i);
  EXPECT_FALSE(overlapped);
}

TEST(SerialQueue, KnowsWhenItIsCurrent) {
  auto queue = DispatchQueue::createSerial("current");
  auto other = DispatchQueue::createSerial("other");
  bool onQueue = false;
  bool otherCurrent = true;
  queue->sync([&] {
    onQueue = queue->isCurrent();
    otherCurrent = other->isCurrent();
  });
  EXPECT_TRUE(onQueue);
  EXPECT_FALSE(otherCurrent);
  EXPECT_FALSE(queue->isCurrent());
  EXPECT_EQ(queue->label(), "current");
}

TEST(SerialQueue, SyncFromItsOwnWorkRunsAtOnce) {
  auto queue = DispatchQueue::createSerial("reentrant");
  int ran = 0;
  queue->sync([&] { queue->sync([&] { ran++; }); });
  EXPECT_EQ(ran, 1);
}

TEST(SerialQueue, MayBeReleasedFromItsOwnWorkAndFinishesWhatIsQueued) {
  auto queue = DispatchQueue::createSerial("self-release");
  Recorder<int> ran;
  std::promise<void> gate;
  auto opened = gate.get_future().share();
  auto holder = std::make_shared<std::shared_ptr<DispatchQueue>>(queue);
  queue->async([opened] { opened.wait(); });
  queue->async([holder, &ran] {
    holder->reset();  // the last reference outside the queue is already gone
    ran.append(1);
  });
  queue->async([&ran] { ran.append(2); });
  holder.reset();
  queue.reset();
  gate.set_value();
  EXPECT_TRUE(ran.waitForCount(2));
}

TEST(MainQueue, SyncFromAnotherThreadWaitsForTheMainLoop) {
  std::atomic<bool> done{false};
  bool ranOnMain = false;
  std::thread caller([&] {
    DispatchQueue::main()->sync([&] { ranOnMain = IsMainThread(); });
    done = true;
  });
  EXPECT_TRUE(MainRunLoop::shared().runUntil([&] { return done.load(); }, 10s));
  caller.join();
  EXPECT_TRUE(ranOnMain);
}

TEST(MainQueue, SyncOnTheMainThreadRunsAtOnce) {
  ASSERT_TRUE(IsMainThread());
  bool ran = false;
  DispatchQueue::main()->sync([&] { ran = DispatchQueue::main()->isCurrent(); });
  EXPECT_TRUE(ran);
}

// Only Linux offers a descriptor; on macOS a program with its own loop runs the main CFRunLoop.
#if defined(__linux__)
TEST(MainRunLoop, DescriptorBecomesReadableWhenWorkIsDue) {
  auto& loop = MainRunLoop::shared();
  loop.performDueWork();
  const int fd = loop.fileDescriptor();
  ASSERT_GE(fd, 0);
  const int watcher = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  ASSERT_EQ(epoll_ctl(watcher, EPOLL_CTL_ADD, fd, &event), 0);
  EXPECT_EQ(epoll_wait(watcher, &event, 1, 0), 0) << "nothing is due yet";

  bool ran = false;
  std::thread([&] { DispatchQueue::main()->async([&] { ran = true; }); }).join();
  EXPECT_EQ(epoll_wait(watcher, &event, 1, 5000), 1);
  loop.performDueWork();
  EXPECT_TRUE(ran);
  EXPECT_EQ(epoll_wait(watcher, &event, 1, 0), 0) << "everything due was done";
  close(watcher);
}
#endif

TEST(MainRunLoop, RunReturnsAfterStop) {
  std::thread stopper([] { DispatchQueue::main()->async([] { MainRunLoop::shared().stop(); }); });
  MainRunLoop::shared().run();
  stopper.join();
}

TEST(MainRunLoop, RealTimerFiresOnTheMainThread) {
  auto& loop = MainRunLoop::shared();
  std::atomic<int> firings{0};
  bool onMain = true;
  auto timer = loop.scheduleRepeatingTimer(0.01, 0.0, [&] {
    onMain = onMain && IsMainThread();
    firings++;
  });
  EXPECT_TRUE(loop.runUntil([&] { return firings.load() >= 3; }, 10s));
  timer->invalidate();
  EXPECT_FALSE(timer->isValid());
  EXPECT_TRUE(onMain);
}

TEST(MainRunLoop, ManualClockFiresOnlyWhenMovedAndSkipsMissedFirings) {
  auto& loop = MainRunLoop::shared();
  loop.useManualClockForTesting();
  int firings = 0;
  auto timer = loop.scheduleRepeatingTimer(5.0, 1.0, [&] { firings++; });
  loop.performDueWork();
  EXPECT_EQ(firings, 0);
  loop.advanceManualClockForTesting(5s);
  loop.performDueWork();
  EXPECT_EQ(firings, 1);
  loop.advanceManualClockForTesting(23s);  // four periods pass; like a run-loop timer it fires once
  loop.performDueWork();
  EXPECT_EQ(firings, 2);
  timer->invalidate();
  loop.advanceManualClockForTesting(10s);
  loop.performDueWork();
  EXPECT_EQ(firings, 2);
  loop.useSystemClockForTesting();
}

TEST(MainRunLoop, InvalidationReleasesTheAction) {
  auto& loop = MainRunLoop::shared();
  auto target = std::make_shared<int>(7);
  std::weak_ptr<int> weak = target;
  auto timer = loop.scheduleRepeatingTimer(60.0, 1.0, [target] {});
  target.reset();
  EXPECT_FALSE(weak.expired());
  timer->invalidate();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(loop.scheduledTimerCountForTesting(), 0u);
}

TEST(SystemLogSink, InstalledSinkReceivesLinesUnalteredAndIsRestored) {
  std::vector<std::string> outer;
  LogSink previous = InstallLogSink([&](std::string_view line) { outer.emplace_back(line); });
  {
    LogCapture capture;
    const std::string odd = "100% \n\xff%s%n";
    SystemLog(odd);
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{odd}));
  }
  SystemLog("after");
  EXPECT_EQ(outer, (std::vector<std::string>{"after"}));
  InstallLogSink(std::move(previous));
}

TEST(PlatformStrings, KeepBytesAndCountReferences) {
  const std::size_t before = PlatformStringLiveCount();
  const std::string bytes("a\0b\xfe", 4);
  PlatformStringRef string = PlatformStringCreate(bytes);
  EXPECT_EQ(PlatformStringText(string), bytes);
  EXPECT_EQ(PlatformStringRetain(string), string);
  PlatformStringRelease(string);
  EXPECT_EQ(PlatformStringLiveCount(), before + 1);
  PlatformStringRelease(string);
  EXPECT_EQ(PlatformStringLiveCount(), before);
  PlatformStringRelease(nullptr);
  {
    OwnedPlatformString owned;
    *owned.slot() = PlatformStringCreate("x");
    EXPECT_EQ(PlatformStringLiveCount(), before + 1);
  }
  EXPECT_EQ(PlatformStringLiveCount(), before);
}

// --- The simulated service's own contract ----------------------------------------------------

constexpr PropertyAddress kRunning{kAudioDevicePropertyDeviceIsRunningSomewhere,
                                   kAudioObjectPropertyScopeGlobal, 0};

TEST(SimulatedService, AnswersBadObjectForMissingObjectsAndUnknownPropertyForMissingProperties) {
  auto service = SimulatedAudioHardwareService::create();
  std::uint32_t size = 0;
  EXPECT_EQ(service->getPropertyDataSize(42, kRunning, 0, nullptr, &size),
            kAudioHardwareBadObjectError);
  service->addDevice({.deviceID = 42, .name = "mic", .deviceUID = "mic"});
  EXPECT_EQ(service->getPropertyDataSize(42, kRunning, 0, nullptr, &size), kNoErr);
  EXPECT_EQ(size, 4u);
  const PropertyAddress missing{FourCharCode("nope"), kAudioObjectPropertyScopeGlobal, 0};
  EXPECT_EQ(service->getPropertyDataSize(42, missing, 0, nullptr, &size),
            kAudioHardwareUnknownPropertyError);
}

TEST(SimulatedService, InjectedFailuresApplyToMatchingCallsAndRunOut) {
  auto service = SimulatedAudioHardwareService::create();
  service->addDevice({.deviceID = 42, .name = "mic", .deviceUID = "mic"});
  service->addFailure({.kind = SimulatedCallKind::GetPropertyData,
                       .object = 42,
                       .selector = kAudioDevicePropertyDeviceIsRunningSomewhere,
                       .status = -50,
                       .count = 1});
  std::uint32_t value = 0;
  std::uint32_t size = 4;
  EXPECT_EQ(service->getPropertyData(42, kRunning, 0, nullptr, &size, &value), -50);
  EXPECT_EQ(service->getPropertyData(42, kRunning, 0, nullptr, &size, &value), kNoErr);
  const auto calls = service->calls();
  ASSERT_GE(calls.size(), 2u);
  EXPECT_EQ(calls[calls.size() - 2].status, -50);
  EXPECT_EQ(calls.back().dataSize, 4u);
}

TEST(SimulatedService, ChangesRunListenersOnTheirQueueAfterTheValueChanged) {
  auto service = SimulatedAudioHardwareService::create();
  service->addDevice({.deviceID = 42, .name = "mic", .deviceUID = "mic"});
  auto queue = DispatchQueue::createSerial("listener");
  Recorder<std::uint32_t> seen;
  auto closure = std::make_shared<const PropertyListener>(
      [&](std::uint32_t count, const PropertyAddress* addresses) {
        std::uint32_t value = 0;
        std::uint32_t size = 4;
        service->getPropertyData(42, kRunning, 0, nullptr, &size, &value);
        seen.append(queue->isCurrent() && count == 1 && addresses[0] == kRunning ? value : 99);
      });
  ASSERT_EQ(
      service->addPropertyListenerBlock(42, kRunning, queue, PlatformListenerBlock::copy(closure)),
      kNoErr);
  service->setDeviceRunning(42, true);
  ASSERT_TRUE(seen.waitForCount(1));
  EXPECT_EQ(seen.entries(), (std::vector<std::uint32_t>{1}));
  EXPECT_EQ(service->removePropertyListenerBlock(42, kRunning, queue,
                                                 PlatformListenerBlock::copy(closure)),
            kNoErr);
  EXPECT_EQ(service->listenerCount(), 0u);
}

TEST(SimulatedService, RemovalByBlockIdentityNeedsTheSameBlock) {
  auto service = SimulatedAudioHardwareService::create();
  service->setListenerMatching(ListenerMatching::ByBlockIdentity);
  auto queue = DispatchQueue::createSerial("identity");
  auto closure =
      std::make_shared<const PropertyListener>([](std::uint32_t, const PropertyAddress*) {});
  auto block = PlatformListenerBlock::copy(closure);
  const PropertyAddress devices{kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal, 0};
  ASSERT_EQ(service->addPropertyListenerBlock(1, devices, queue, block), kNoErr);
  EXPECT_EQ(
      service->removePropertyListenerBlock(1, devices, queue, PlatformListenerBlock::copy(closure)),
      kAudioHardwareUnknownPropertyError);
  EXPECT_EQ(service->removePropertyListenerBlock(1, devices, queue, block), kNoErr);
}

TEST(SimulatedService, HogModeWriteTogglesAndWritesTheOwnerBack) {
  auto service = SimulatedVideoHardwareService::create();
  service->addDevice({.deviceID = 5, .name = "cam", .deviceUID = "cam", .hogModePID = -1});
  const PropertyAddress hog{FourCharCode("oink"), kAudioObjectPropertyScopeGlobal, 0};
  std::int32_t value = 0;
  EXPECT_EQ(service->setPropertyData(5, hog, 0, nullptr, 4, &value), kNoErr);
  EXPECT_EQ(value, getpid());
  value = 0;
  EXPECT_EQ(service->setPropertyData(5, hog, 0, nullptr, 4, &value), kNoErr);
  EXPECT_EQ(value, -1);
  service->addDevice({.deviceID = 6, .name = "cam2", .deviceUID = "cam2", .hogModePID = 12});
  value = 0;
  EXPECT_EQ(service->setPropertyData(6, hog, 0, nullptr, 4, &value), kNoErr);
  EXPECT_EQ(value, 12);
}

}  // namespace
}  // namespace harkwell
