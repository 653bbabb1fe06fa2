// Tells the main thread, without blocking it, that everything queued on a dispatch queue before a
// point has run. post() queues a work item that writes to a pipe; the main thread polls that
// pipe's descriptor alongside its other work and calls collect() once it is readable.
//
// The watch loop uses it where it would otherwise wait with queue->sync(): the queue may itself be
// waiting for the main thread (an observer invalidates its polling timer there when a Bluetooth
// device goes away), so a main thread blocked on the queue would never get to it.
//
// Main thread only; the queued items keep the pipe alive, so the barrier may go first.
#pragma once

#include <memory>

#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "tools/harkwell/WakePipe.h"

namespace harkwell::cli {

class QueueBarrier {
 public:
  explicit QueueBarrier(std::shared_ptr<DispatchQueue> queue);

  bool isValid() const { return pipe_->isValid(); }
  // Queues the barrier. One at a time: call it only while nothing is pending.
  void post();
  // Whether a posted barrier has not been collected yet.
  bool pending() const { return pending_; }
  // Becomes readable once the pending barrier has passed the queue.
  int fd() const { return pipe_->readFd(); }
  // Called once fd() is readable: the barrier is no longer pending.
  void collect();

 private:
  const std::shared_ptr<DispatchQueue> queue_;
  const std::shared_ptr<WakePipe> pipe_;
  bool pending_ = false;
};

}  // namespace harkwell::cli
