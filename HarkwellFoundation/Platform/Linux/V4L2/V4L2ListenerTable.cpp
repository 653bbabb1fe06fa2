#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2ListenerTable.h"

#include <algorithm>

namespace harkwell::v4l2 {

void ListenerTable::add(Listener listener) {
  std::lock_guard lock(mutex_);
  listeners_.push_back(std::move(listener));
}

bool ListenerTable::remove(ObjectID object, const PropertyAddress& address,
                           const std::shared_ptr<DispatchQueue>& queue,
                           const PlatformListenerBlockRef& block) {
  if (!block) return false;
  std::lock_guard lock(mutex_);
  auto match = std::find_if(listeners_.begin(), listeners_.end(), [&](const Listener& each) {
    return each.object == object && each.address == address && each.queue == queue &&
           each.block->closure() == block->closure();
  });
  if (match == listeners_.end()) return false;
  listeners_.erase(match);
  return true;
}

std::vector<ListenerTable::Listener> ListenerTable::listenersFor(
    ObjectID object, const PropertyAddress& address) const {
  std::vector<Listener> matching;
  std::lock_guard lock(mutex_);
  for (const Listener& each : listeners_) {
    if (each.object == object && each.address == address) matching.push_back(each);
  }
  return matching;
}

std::size_t ListenerTable::size() const {
  std::lock_guard lock(mutex_);
  return listeners_.size();
}

}  // namespace harkwell::v4l2
