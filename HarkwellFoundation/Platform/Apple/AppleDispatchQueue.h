// Dispatch queues on Apple: each DispatchQueue wraps a libdispatch queue, so the same queue can be
// handed to CoreAudio and CoreMediaIO, which run listener blocks on it themselves.
// DispatchQueue::createSerial() makes a serial libdispatch queue; DispatchQueue::main() wraps the
// main queue, which the main thread serves whenever it runs its CFRunLoop (MainRunLoop::shared()).
#pragma once

#include <dispatch/dispatch.h>

#include <memory>
#include <string>

#include "HarkwellFoundation/Platform/DispatchQueue.h"

namespace harkwell {

class AppleDispatchQueue final : public DispatchQueue {
 public:
  static std::shared_ptr<AppleDispatchQueue> createSerial(std::string label);
  static std::shared_ptr<AppleDispatchQueue> createMain();
  ~AppleDispatchQueue() override;

  void async(Work work) override;
  void sync(Work work) override;

  // The wrapped queue, borrowed: valid while this object lives.
  dispatch_queue_t native() const { return queue_; }

  // Marks the calling thread as running `queue`'s work for the scope's lifetime (so isCurrent()
  // holds there). For blocks that the platform itself runs on the wrapped queue; null marks
  // nothing.
  class WorkScope {
   public:
    explicit WorkScope(const DispatchQueue* queue) : scope_(queue) {}

   private:
    CurrentQueueScope scope_;
  };

 private:
  struct WorkItem;
  AppleDispatchQueue(std::string label, dispatch_queue_t queue, bool isMain);
  static void runWorkItem(void* item);
  static void runBorrowedWork(void* item);
  bool runsOnCallingThread() const;

  dispatch_queue_t queue_;
  const bool isMain_;
  // A value unique to this queue, set as the libdispatch queue's specific value, so that sync()
  // recognises the queue's own thread even inside blocks that the platform runs on it. It is freed
  // with the libdispatch queue, so it is never reused while work of this queue can still run.
  void* identity_ = nullptr;
};

// The libdispatch queue behind `queue`, or null when `queue` was not made by
// DispatchQueue::createSerial() or DispatchQueue::main() on Apple. Borrowed: valid while `queue`
// lives.
dispatch_queue_t NativeDispatchQueue(const DispatchQueue& queue);

}  // namespace harkwell
