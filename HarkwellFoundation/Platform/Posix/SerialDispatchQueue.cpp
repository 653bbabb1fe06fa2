// Serial queues on Linux, where there is no libdispatch: one worker thread per queue runs the
// queue's work in order. The worker keeps the queue's state alive, so a queue may be released from
// inside its own work; the worker then finishes what is queued and exits on its own.
#include <pthread.h>

#include <deque>
#include <thread>

#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/Mutex.h"

namespace harkwell {
namespace {

class SerialDispatchQueue final : public DispatchQueue {
 public:
  explicit SerialDispatchQueue(std::string label)
      : DispatchQueue(std::move(label)), state_(std::make_shared<State>()) {
    worker_ = std::thread([state = state_, self = this] { runWorker(*state, self); });
    // Thread names are limited to 15 bytes; the end of a reverse-DNS label says the most.
    const std::string& name = this->label();
    const std::string shortName = name.size() > 15 ? name.substr(name.size() - 15) : name;
    pthread_setname_np(worker_.native_handle(), shortName.c_str());
  }

  ~SerialDispatchQueue() override {
    {
      MutexLock lock(state_->mutex);
      state_->closing = true;
    }
    state_->wakeUp.notifyOne();
    if (worker_.get_id() == std::this_thread::get_id()) {
      worker_.detach();
    } else {
      worker_.join();
    }
  }

  void async(Work work) override {
    {
      MutexLock lock(state_->mutex);
      state_->items.push_back(std::move(work));
    }
    state_->wakeUp.notifyOne();
  }

  void sync(Work work) override {
    if (isCurrent()) {
      work();
      return;
    }
    asyncAndWait(std::move(work));
  }

 private:
  struct State {
    Mutex mutex;
    CondVar wakeUp;
    std::deque<Work> items HARKWELL_GUARDED_BY(mutex);
    bool closing HARKWELL_GUARDED_BY(mutex) = false;
  };

  // `self` is used only as this queue's identity for isCurrent(); it is never dereferenced, so
  // the worker may outlive the queue object.
  static void runWorker(State& state, const DispatchQueue* self) {
    CurrentQueueScope scope(self);
    for (;;) {
      Work work;
      {
        MutexLock lock(state.mutex);
        while (state.items.empty() && !state.closing) state.wakeUp.wait(state.mutex);
        if (state.items.empty()) return;
        work = std::move(state.items.front());
        state.items.pop_front();
      }
      work();
      // Destroyed here, outside the lock: it may hold the last reference to the queue.
      work = nullptr;
    }
  }

  std::shared_ptr<State> state_;
  std::thread worker_;
};

}  // namespace

std::shared_ptr<DispatchQueue> DispatchQueue::createSerial(std::string label) {
  return std::make_shared<SerialDispatchQueue>(std::move(label));
}

}  // namespace harkwell
