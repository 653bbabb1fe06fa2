// The record of one registered property listener, shared by the audio and video back ends. It is a
// value: copies share the listener closure (the closure's identity is what a service that matches
// removals by closure compares) and the queue. Dropping a record does not remove the listener.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/ListenerBlock.h"

namespace harkwell {

struct HARKWELL_EXPORT DevicePropertyObserver {
  std::uint32_t deviceID = 0;  // the object listened to: the system object (1) or a device
  std::function<void()> callback;
  std::shared_ptr<DispatchQueue> callbackQueue;
  SharedPropertyListener listenerBlock;  // calls `callback`, ignoring its arguments
};

}  // namespace harkwell
