// The video hardware service on Apple: every call goes straight to CoreMediaIO's object property
// functions and CoreMediaIO's status comes back unchanged. CoreMediaIO takes a buffer size and
// reports the bytes it used separately; the seam's in/out size carries both. String properties
// arrive as CFStrings that the caller owns.
//
// Listener blocks are made anew at every add and every remove (AppleListenerBlock.h), so
// CoreMediaIO refuses every removal; it runs each added block on the libdispatch queue of the
// DispatchQueue it was added with. A DispatchQueue that is not one of DispatchQueue's own is
// refused with kCMIOHardwareIllegalOperationError.
//
// Stateless; any thread. This is the process's default video service on macOS.
#pragma once

#include <memory>

#include "HarkwellFoundation/Platform/HardwareService.h"

namespace harkwell {

class CoreMediaIOHardwareService final : public VideoHardwareService {
 public:
  static std::shared_ptr<CoreMediaIOHardwareService> create() {
    return std::shared_ptr<CoreMediaIOHardwareService>(new CoreMediaIOHardwareService);
  }

  OSStatus getPropertyDataSize(ObjectID object, const PropertyAddress& address,
                               std::uint32_t qualifierDataSize, const void* qualifierData,
                               std::uint32_t* outDataSize) override;
  OSStatus getPropertyData(ObjectID object, const PropertyAddress& address,
                           std::uint32_t qualifierDataSize, const void* qualifierData,
                           std::uint32_t* ioDataSize, void* outData) override;
  OSStatus setPropertyData(ObjectID object, const PropertyAddress& address,
                           std::uint32_t qualifierDataSize, const void* qualifierData,
                           std::uint32_t dataSize, void* data) override;
  OSStatus addPropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                    std::shared_ptr<DispatchQueue> queue,
                                    PlatformListenerBlockRef block) override;
  OSStatus removePropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                       std::shared_ptr<DispatchQueue> queue,
                                       PlatformListenerBlockRef block) override;

 private:
  CoreMediaIOHardwareService() = default;
};

}  // namespace harkwell
