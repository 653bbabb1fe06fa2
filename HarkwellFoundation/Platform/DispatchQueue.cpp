#include "HarkwellFoundation/Platform/DispatchQueue.h"

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

}  // namespace harkwell
