// The property listeners registered with a hardware service, and their notification. A removal
// finds its registration by object, address, queue and the closure its block wraps (each add and
// remove brings a block made anew around the same closure).
//
// Any thread may add, remove and notify at the same time. notify() only queues work: each matching
// block runs later on its own queue, never on the notifying thread and never under this lock. A
// block that was removed before its queued call starts is not run, nor is any queued call once the
// registry is gone.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/ListenerBlock.h"
#include "HarkwellFoundation/Platform/Mutex.h"
#include "HarkwellFoundation/Platform/PropertyAddress.h"

namespace harkwell {

class PropertyListenerRegistry {
 public:
  PropertyListenerRegistry() = default;
  PropertyListenerRegistry(const PropertyListenerRegistry&) = delete;
  PropertyListenerRegistry& operator=(const PropertyListenerRegistry&) = delete;
  ~PropertyListenerRegistry();

  // False when the queue or the block is missing.
  bool add(ObjectID object, const PropertyAddress& address, std::shared_ptr<DispatchQueue> queue,
           PlatformListenerBlockRef block);
  // False when no registration matches.
  bool remove(ObjectID object, const PropertyAddress& address,
              const std::shared_ptr<DispatchQueue>& queue, const PlatformListenerBlockRef& block);
  // Queues block(1, &address) on the queue of every listener of exactly this object and address.
  void notify(ObjectID object, const PropertyAddress& address) const;

  std::size_t count() const;

 private:
  struct Registration {
    ObjectID object;
    PropertyAddress address;
    std::shared_ptr<DispatchQueue> queue;
    PlatformListenerBlockRef block;
    // Cleared by remove(), checked by calls already queued.
    std::shared_ptr<std::atomic<bool>> live;
  };

  mutable Mutex mutex_;
  std::vector<Registration> registrations_ HARKWELL_GUARDED_BY(mutex_);
};

}  // namespace harkwell
