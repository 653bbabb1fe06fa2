#include "HarkwellFoundation/Platform/DispatchQueue.h"

#include <future>

namespace harkwell {
namespace {
thread_local const DispatchQueue* tCurrentQueue = nullptr;
}  // namespace

bool DispatchQueue::isCurrent() const {
  return tCurrentQueue == this;
}

DispatchQueue::CurrentQueueScope::CurrentQueueScope(const DispatchQueue* queue)
    : previous_(tCurrentQueue) {
  tCurrentQueue = queue;
}

DispatchQueue::CurrentQueueScope::~CurrentQueueScope() {
  tCurrentQueue = previous_;
}

void DispatchQueue::asyncAndWait(Work work) {
  std::promise<void> done;
  async([&work, &done] {
    work();
    done.set_value();
  });
  done.get_future().wait();
}

}  // namespace harkwell
