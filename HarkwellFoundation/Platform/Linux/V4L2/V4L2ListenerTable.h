// The property listeners registered with the V4L2 service, one entry per (object, address, queue,
// closure). A removal is matched by the closure its block wraps (block->closure()), since every
// add and remove hands the service a newly made block around the same closure.
//
// Any thread may call any member. Blocks are only stored here; the service runs them on their
// queues without holding this table's lock.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/ListenerBlock.h"
#include "HarkwellFoundation/Platform/PropertyAddress.h"

namespace harkwell::v4l2 {

class ListenerTable {
 public:
  struct Listener {
    ObjectID object = 0;
    PropertyAddress address;
    std::shared_ptr<DispatchQueue> queue;
    PlatformListenerBlockRef block;
  };

  void add(Listener listener);
  // Removes one registration of the same object, address, queue and wrapped closure; false when
  // there is none.
  bool remove(ObjectID object, const PropertyAddress& address,
              const std::shared_ptr<DispatchQueue>& queue, const PlatformListenerBlockRef& block);
  // The listeners registered for exactly this object and address.
  std::vector<Listener> listenersFor(ObjectID object, const PropertyAddress& address) const;
  std::size_t size() const;

 private:
  mutable std::mutex mutex_;
  std::vector<Listener> listeners_;  // guarded by mutex_
};

}  // namespace harkwell::v4l2
