// The part of a Linux audio service that answers the seam: a mirror of mapped devices (read under
// a short lock, never waiting on a server) and the property listeners it notifies. A service
// derives from it, keeps its server connection, and hands every new state to applyDevices().
//
// Thread-safety: every member may be called from any thread at the same time. Listener blocks run
// on their queues, never on the caller's thread nor the one that applies devices.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/Linux/ConsumerProcessDetails.h"
#include "HarkwellFoundation/Platform/Linux/MappedAudioDevice.h"
#include "HarkwellFoundation/Platform/Linux/MappedAudioDeviceMirror.h"
#include "HarkwellFoundation/Platform/Linux/Reservation/SoundCardReservationSource.h"
#include "HarkwellFoundation/Platform/Mutex.h"
#include "HarkwellFoundation/Platform/internal/PropertyListenerRegistry.h"

namespace harkwell {

class ReservationHogMode;

// A device with a sound card ("soundCard") answers exclusive access ("oink") from the card's
// reservation on the session bus (Reservation/internal/ReservationHogMode.h), outside the lock:
// those reads and writes are the only calls that may wait, bounded by the reservation's call
// timeout. A device without a card, or a build without sd-bus, answers
// kAudioHardwareUnknownPropertyError.
class MappedAudioHardwareService : public AudioHardwareService, public SoundCardReservationSource {
 public:
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
  // Any property of a present object may be listened to. A listener stays when its device leaves
  // and fires again for its changes when a device with that ID comes back.
  OSStatus addPropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                    std::shared_ptr<DispatchQueue> queue,
                                    PlatformListenerBlockRef block) override;
  OSStatus removePropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                       std::shared_ptr<DispatchQueue> queue,
                                       PlatformListenerBlockRef block) override;

  // How many listeners are registered (for tests and tools).
  std::size_t listenerCount() const { return listeners_.count(); }

  std::shared_ptr<DeviceReservation> deviceReservation() const override { return reservation_; }
  std::optional<std::uint32_t> soundCardOfDevice(ObjectID device) const override;

 protected:
  MappedAudioHardwareService() = default;
  // Fills the consumers' details from /proc (ConsumerProcessDetails.h), replaces the mirrored
  // devices, then queues the listeners of every property whose value changed. Calls from one
  // thread at a time (the service's server thread).
  void applyDevices(std::vector<MappedAudioDevice> devices);
  // The reservation exclusive access is answered from; set once, before devices are applied.
  // Null (the default) leaves every device without exclusive access.
  void setDeviceReservation(std::shared_ptr<DeviceReservation> reservation) {
    reservation_ = std::move(reservation);
  }

 private:
  mutable Mutex mutex_;
  MappedAudioDeviceMirror mirror_ HARKWELL_GUARDED_BY(mutex_);
  PropertyListenerRegistry listeners_;
  std::shared_ptr<DeviceReservation> reservation_;
  ConsumerProcessDetails processDetails_;  // applyDevices()'s thread only

  // Whether `address` is exclusive access and a reservation answers it.
  bool answersHogMode(const PropertyAddress& address) const;
  ReservationHogMode hogMode(ObjectID object, const PropertyAddress& address) const;
};

}  // namespace harkwell
