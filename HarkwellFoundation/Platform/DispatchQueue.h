// Serial dispatch queues. Work submitted to a queue runs one item at a time, in submission order,
// on a thread the queue owns (on Apple, libdispatch's). The main queue's work runs on the main
// thread whenever the MainRunLoop runs there.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "HarkwellFoundation/HarkwellFoundationExport.h"

namespace harkwell {

class HARKWELL_EXPORT DispatchQueue {
 public:
  using Work = std::function<void()>;

  // A new serial queue. Its thread lives until the last reference goes and the queued work has
  // run; a queue may be released from inside its own work.
  static std::shared_ptr<DispatchQueue> createSerial(std::string label);
  // The main thread's queue, served by MainRunLoop::shared().
  static const std::shared_ptr<DispatchQueue>& main();

  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;
  virtual ~DispatchQueue() = default;

  const std::string& label() const { return label_; }

  // Queues `work` and returns at once.
  virtual void async(Work work) = 0;
  // Queues `work` and waits until it has run. Called from the queue's own thread, it runs `work`
  // at once instead of waiting for itself forever.
  virtual void sync(Work work) = 0;

  // Whether the calling thread is running work of this queue right now.
  bool isCurrent() const;

 protected:
  explicit DispatchQueue(std::string label) : label_(std::move(label)) {}
  // Queues `work` with async() and blocks until it has run: sync() for a caller that is not on
  // the queue's thread.
  void asyncAndWait(Work work);
  // Marks the calling thread as running this queue's work for the lifetime of the scope.
  class CurrentQueueScope {
   public:
    explicit CurrentQueueScope(const DispatchQueue* queue);
    ~CurrentQueueScope();
    CurrentQueueScope(const CurrentQueueScope&) = delete;
    CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;

   private:
    const DispatchQueue* previous_;
  };

 private:
  std::string label_;
};

// Whether the calling thread is the process's main thread (the one that started the program).
HARKWELL_EXPORT bool IsMainThread();

}  // namespace harkwell
