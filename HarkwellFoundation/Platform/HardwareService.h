// The seam between the library and a platform: one audio and one video hardware service, each
// shaped like the platform's property interface. Everything the library does about devices goes
// through these calls; Apple, Linux and simulated services implement them.
//
// Contract for every implementation:
//   - Calls are synchronous and may come from any thread at the same time.
//   - Reads answer from the service's own state and never wait on a server or the network.
//   - `ioDataSize` is in/out: on entry the buffer's size, on success the bytes written.
//   - String properties are written as one PlatformStringRef that the caller then owns.
//   - A listener block is run on the queue it was added with, once per notification, after the
//     service's state already shows the change (so a listener that re-reads sees it).
//   - Statuses are the platform's: kNoErr on success, "!obj" for an object that is gone, "who?"
//     for a property the object does not have.
#pragma once

#include <cstdint>
#include <memory>

#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/ListenerBlock.h"
#include "HarkwellFoundation/Platform/PropertyAddress.h"

namespace harkwell {

class HARKWELL_EXPORT HardwareService {
 public:
  virtual ~HardwareService() = default;

  virtual OSStatus getPropertyDataSize(ObjectID object, const PropertyAddress& address,
                                       std::uint32_t qualifierDataSize, const void* qualifierData,
                                       std::uint32_t* outDataSize) = 0;
  virtual OSStatus getPropertyData(ObjectID object, const PropertyAddress& address,
                                   std::uint32_t qualifierDataSize, const void* qualifierData,
                                   std::uint32_t* ioDataSize, void* outData) = 0;
  // The service may write back into `data` (the hog-mode toggle writes the resulting owner).
  virtual OSStatus setPropertyData(ObjectID object, const PropertyAddress& address,
                                   std::uint32_t qualifierDataSize, const void* qualifierData,
                                   std::uint32_t dataSize, void* data) = 0;
  virtual OSStatus addPropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                            std::shared_ptr<DispatchQueue> queue,
                                            PlatformListenerBlockRef block) = 0;
  virtual OSStatus removePropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                               std::shared_ptr<DispatchQueue> queue,
                                               PlatformListenerBlockRef block) = 0;
};

// The audio service (CoreAudio's shape) adds a property test.
class HARKWELL_EXPORT AudioHardwareService : public HardwareService {
 public:
  virtual bool hasProperty(ObjectID object, const PropertyAddress& address) = 0;
};

// The video service (CoreMediaIO's shape).
class HARKWELL_EXPORT VideoHardwareService : public HardwareService {};

// The process-wide services. The first use installs the platform's default (Apple's services on
// macOS; on Linux PulseAudio and V4L2, or a service without devices where those are missing).
// Installing returns the service it replaces; calls already under way finish on the old one.
HARKWELL_EXPORT std::shared_ptr<AudioHardwareService> CurrentAudioHardwareService();
HARKWELL_EXPORT std::shared_ptr<AudioHardwareService> InstallAudioHardwareService(
    std::shared_ptr<AudioHardwareService> service);
HARKWELL_EXPORT std::shared_ptr<VideoHardwareService> CurrentVideoHardwareService();
HARKWELL_EXPORT std::shared_ptr<VideoHardwareService> InstallVideoHardwareService(
    std::shared_ptr<VideoHardwareService> service);

// The platform's default services; each platform folder provides these.
HARKWELL_EXPORT std::shared_ptr<AudioHardwareService> MakeDefaultAudioHardwareService();
HARKWELL_EXPORT std::shared_ptr<VideoHardwareService> MakeDefaultVideoHardwareService();

}  // namespace harkwell
