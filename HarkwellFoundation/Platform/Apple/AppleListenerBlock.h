// Turning the seam's listener blocks into the platform's. CoreAudio and CoreMediaIO take a real
// block and a libdispatch queue, and match a removal to its registration by block identity. Each
// add and each remove here makes a new block around the seam block's closure, hands it over and
// releases its own reference, so a removal never names the block that was added and the platform
// refuses it. That is the behaviour the library expects of Apple's services; the platform keeps
// the added block (and the closure it holds) until the process ends.
//
// Used by the CoreAudio and CoreMediaIO services only; Apple only.
#pragma once

#include <Block.h>
#include <dispatch/dispatch.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "HarkwellFoundation/Platform/Apple/AppleDispatchQueue.h"
#include "HarkwellFoundation/Platform/Apple/AppleSdkValues.h"
#include "HarkwellFoundation/Platform/HardwareService.h"

namespace harkwell {

// Calls `registration` (the platform's add or remove function) for `object` and `address` with
// `queue`'s libdispatch queue and a new block that runs `block`'s closure with the changed
// addresses. The block marks itself as work of `queue` while it runs, so queue->isCurrent() holds
// inside the closure. A queue that is not one of DispatchQueue's own has no libdispatch queue to
// hand over; that call is refused with `refusedStatus`.
template <class NativeAddress, class NativeBlock, class Registration>
OSStatus RegisterWithNewBlock(Registration registration, ObjectID object,
                              const PropertyAddress& address,
                              const std::shared_ptr<DispatchQueue>& queue,
                              const PlatformListenerBlockRef& block, OSStatus refusedStatus) {
  dispatch_queue_t nativeQueue = queue ? NativeDispatchQueue(*queue) : nullptr;
  if (!nativeQueue || !block) return refusedStatus;

  const SharedPropertyListener closure = block->closure();
  const std::weak_ptr<DispatchQueue> weakQueue = queue;
  NativeBlock listener = ^(std::uint32_t count, const NativeAddress* changed) {
    std::vector<PropertyAddress> addresses;
    addresses.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
      addresses.push_back({changed[i].mSelector, changed[i].mScope, changed[i].mElement});
    }
    const std::shared_ptr<DispatchQueue> current = weakQueue.lock();
    AppleDispatchQueue::WorkScope scope(current.get());
    (*closure)(count, addresses.data());
  };

  NativeBlock copied = Block_copy(listener);
  const NativeAddress nativeAddress = ToNativeAddress<NativeAddress>(address);
  const OSStatus status = registration(object, &nativeAddress, nativeQueue, copied);
  Block_release(copied);
  return status;
}

}  // namespace harkwell
