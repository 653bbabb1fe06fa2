// The harkwell program's waits on its main thread: they must keep the main run loop served while
// the event queue itself waits for the main thread, as an observer does when it ends its polling
// timer.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <chrono>

#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "tools/harkwell/MainLoopWait.h"
#include "tools/harkwell/QueueBarrier.h"

namespace harkwell::cli {
namespace {

using namespace std::chrono_literals;

TEST(MainLoopWait, ReturnsOnceQueueWorkThatWaitsForTheMainThreadHasRun) {
  ASSERT_TRUE(IsMainThread());
  auto queue = DispatchQueue::createSerial("com.harkwell.test.wait");
  std::atomic<bool> ranOnMain{false};
  std::atomic<bool> queueWorkDone{false};
  queue->async([&] {
    DispatchQueue::main()->sync([&] { ranOnMain = IsMainThread(); });
    queueWorkDone = true;
  });
  WaitForQueueServingMainLoop(*queue);
  EXPECT_TRUE(ranOnMain);
  EXPECT_TRUE(queueWorkDone);
}

// Polls `fd` for reading while serving the main run loop, as the watch loop does; true once it is
// readable, false at the deadline.
bool ReadableWhileServingTheMainLoop(int fd, std::chrono::milliseconds deadline) {
  return MainRunLoop::shared().runUntil(
      [fd] {
        pollfd descriptor{fd, POLLIN, 0};
        return poll(&descriptor, 1, 0) > 0;
      },
      deadline);
}

TEST(QueueBarrier, PassesAfterTheWorkQueuedBeforeItEvenWhenThatWorkWaitsForTheMainThread) {
  auto queue = DispatchQueue::createSerial("com.harkwell.test.barrier");
  QueueBarrier barrier(queue);
  ASSERT_TRUE(barrier.isValid());
  EXPECT_FALSE(barrier.pending());

  std::atomic<bool> queueWorkDone{false};
  queue->async([&] {
    DispatchQueue::main()->sync([] {});
    queueWorkDone = true;
  });
  barrier.post();
  EXPECT_TRUE(barrier.pending());
  ASSERT_TRUE(ReadableWhileServingTheMainLoop(barrier.fd(), 10s));
  EXPECT_TRUE(queueWorkDone);
  barrier.collect();
  EXPECT_FALSE(barrier.pending());
  pollfd descriptor{barrier.fd(), POLLIN, 0};
  EXPECT_EQ(poll(&descriptor, 1, 0), 0) << "a collected barrier leaves its pipe empty";

  // It can be posted again.
  barrier.post();
  ASSERT_TRUE(ReadableWhileServingTheMainLoop(barrier.fd(), 10s));
  barrier.collect();
  WaitForQueueServingMainLoop(*queue);
}

}  // namespace
}  // namespace harkwell::cli
