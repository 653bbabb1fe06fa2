#include "HarkwellFoundation/Platform/internal/PropertyListenerRegistry.h"

#include <algorithm>

namespace harkwell {

PropertyListenerRegistry::~PropertyListenerRegistry() {
  MutexLock lock(mutex_);
  for (Registration& registration : registrations_) *registration.live = false;
}

bool PropertyListenerRegistry::add(ObjectID object, const PropertyAddress& address,
                                   std::shared_ptr<DispatchQueue> queue,
                                   PlatformListenerBlockRef block) {
  if (!queue || !block) return false;
  MutexLock lock(mutex_);
  registrations_.push_back({object, address, std::move(queue), std::move(block),
                            std::make_shared<std::atomic<bool>>(true)});
  return true;
}

bool PropertyListenerRegistry::remove(ObjectID object, const PropertyAddress& address,
                                      const std::shared_ptr<DispatchQueue>& queue,
                                      const PlatformListenerBlockRef& block) {
  if (!block) return false;
  MutexLock lock(mutex_);
  auto match = std::find_if(
      registrations_.begin(), registrations_.end(), [&](const Registration& registration) {
        return registration.object == object && registration.address == address &&
               registration.queue == queue && registration.block->closure() == block->closure();
      });
  if (match == registrations_.end()) return false;
  *match->live = false;
  registrations_.erase(match);
  return true;
}

void PropertyListenerRegistry::notify(ObjectID object, const PropertyAddress& address) const {
  std::vector<Registration> matching;
  {
    MutexLock lock(mutex_);
    for (const Registration& registration : registrations_) {
      if (registration.object == object && registration.address == address) {
        matching.push_back(registration);
      }
    }
  }
  for (Registration& registration : matching) {
    registration.queue->async(
        [block = std::move(registration.block), live = std::move(registration.live), address] {
          if (*live) (*block)(1, &address);
        });
  }
}

std::size_t PropertyListenerRegistry::count() const {
  MutexLock lock(mutex_);
  return registrations_.size();
}

}  // namespace harkwell
