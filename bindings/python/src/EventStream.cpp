#include "bindings/python/src/EventStream.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

namespace harkwell::python {

EventStream::EventStream(bool wantsConsumers)
    : wantsConsumers_(wantsConsumers), wakeFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (wakeFd_ < 0) std::abort();
}

EventStream::~EventStream() {
  ::close(wakeFd_);
}

void EventStream::push(StreamItem item) {
  MutexLock lock(mutex_);
  if (closed_) return;
  items_.push_back(std::move(item));
  updateWake();
}

void EventStream::close() {
  MutexLock lock(mutex_);
  closed_ = true;
  updateWake();
}

bool EventStream::isClosed() const {
  MutexLock lock(mutex_);
  return closed_;
}

bool EventStream::hasItems() const {
  MutexLock lock(mutex_);
  return !items_.empty();
}

std::optional<StreamItem> EventStream::take() {
  MutexLock lock(mutex_);
  if (items_.empty()) return std::nullopt;
  StreamItem item = std::move(items_.front());
  items_.pop_front();
  updateWake();
  return item;
}

// The descriptor is readable exactly while something is there to see.
void EventStream::updateWake() const {
  const bool wanted = closed_ || !items_.empty();
  if (wanted == wakeArmed_) return;
  std::uint64_t value = 1;
  if (wanted) {
    [[maybe_unused]] ssize_t ignored = ::write(wakeFd_, &value, sizeof value);
  } else {
    [[maybe_unused]] ssize_t ignored = ::read(wakeFd_, &value, sizeof value);
  }
  wakeArmed_ = wanted;
}

}  // namespace harkwell::python
