// The audio hardware service on Apple: every call goes straight to CoreAudio's audio object
// property functions, with the same object, address, sizes and buffers, and CoreAudio's status
// comes back unchanged. String properties arrive as CFStrings that the caller owns.
//
// Listener blocks are made anew at every add and every remove (AppleListenerBlock.h), so CoreAudio
// refuses every removal; it runs each added block on the libdispatch queue of the DispatchQueue it
// was added with. A DispatchQueue that is not one of DispatchQueue's own is refused with
// kAudioHardwareIllegalOperationError.
//
// One property is the service's own: a device's consumers (kAudioDevicePropertyConsumers), read
// from CoreAudio's process objects on macOS 14 and later (CoreAudioConsumers.h says what they
// tell) and "who?" before. A consumers listener is followed by a CoreAudioConsumerWatch, which
// listens to the process list and to each process object; removing the listener (matched by its
// closure, queue and device) stops the watch at once.
//
// Any thread. The service keeps only its consumers watches. This is the process's default audio
// service on macOS.
#pragma once

#include <memory>
#include <vector>

#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/Mutex.h"

namespace harkwell {

class CoreAudioConsumerWatch;

class CoreAudioHardwareService final : public AudioHardwareService {
 public:
  static std::shared_ptr<CoreAudioHardwareService> create() {
    return std::shared_ptr<CoreAudioHardwareService>(new CoreAudioHardwareService);
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
  bool hasProperty(ObjectID object, const PropertyAddress& address) override;
  OSStatus addPropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                    std::shared_ptr<DispatchQueue> queue,
                                    PlatformListenerBlockRef block) override;
  OSStatus removePropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                       std::shared_ptr<DispatchQueue> queue,
                                       PlatformListenerBlockRef block) override;

 private:
  CoreAudioHardwareService() = default;

  Mutex watchesMutex_;
  std::vector<std::shared_ptr<CoreAudioConsumerWatch>> consumerWatches_
      HARKWELL_GUARDED_BY(watchesMutex_);
};

}  // namespace harkwell
