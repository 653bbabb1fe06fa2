#include "HarkwellFoundation/Audio/AudioDevicePropertyListeners.h"

#include "HarkwellFoundation/Backend/internal/AudioHardwareBackend.h"
#include "HarkwellFoundation/Backend/internal/DevicePropertyRegistration.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"

namespace harkwell {

namespace {

// The three properties followed, each with the object it lives on.
constexpr PropertyAddress kConnectedDevicesAddress{kAudioHardwarePropertyDevices,
                                                   kAudioObjectPropertyScopeGlobal,
                                                   kAudioObjectPropertyElementMaster};
constexpr PropertyAddress kDeviceIsRunningAddress{kAudioDevicePropertyDeviceIsRunningSomewhere,
                                                  kAudioObjectPropertyScopeGlobal,
                                                  kAudioObjectPropertyElementMaster};
constexpr PropertyAddress kSelectedInputSourceAddress{kAudioDevicePropertyDataSource,
                                                      kAudioObjectPropertyScopeInput,
                                                      kAudioObjectPropertyElementMaster};

}  // namespace

std::optional<AudioDevicePropertyObserver> AudioDeviceAddObserverForConnectedDevices(
    std::shared_ptr<DispatchQueue> queue, std::function<void()> callback) {
  return AddDevicePropertyObserver(AudioHardwareBackend(), kAudioObjectSystemObject,
                                   kConnectedDevicesAddress, std::move(queue), std::move(callback));
}

std::optional<AudioDevicePropertyObserver> AudioDeviceAddObserverForDeviceIsRunning(
    std::uint32_t deviceID, std::shared_ptr<DispatchQueue> queue, std::function<void()> callback) {
  return AddDevicePropertyObserver(AudioHardwareBackend(), deviceID, kDeviceIsRunningAddress,
                                   std::move(queue), std::move(callback));
}

std::optional<AudioDevicePropertyObserver> AudioDeviceAddObserverForSelectedInputSource(
    std::uint32_t deviceID, std::shared_ptr<DispatchQueue> queue, std::function<void()> callback) {
  // No property check first: a device that cannot report its source refuses the registration,
  // which is logged like any other refusal.
  return AddDevicePropertyObserver(AudioHardwareBackend(), deviceID, kSelectedInputSourceAddress,
                                   std::move(queue), std::move(callback));
}

bool AudioDeviceRemoveObserverForConnectedDevices(const AudioDevicePropertyObserver& observer) {
  return RemoveDevicePropertyObserver(AudioHardwareBackend(), observer, kConnectedDevicesAddress);
}

bool AudioDeviceRemoveObserverForDeviceIsRunning(const AudioDevicePropertyObserver& observer) {
  return RemoveDevicePropertyObserver(AudioHardwareBackend(), observer, kDeviceIsRunningAddress);
}

bool AudioDeviceRemoveObserverForSelectedInputSource(const AudioDevicePropertyObserver& observer) {
  return RemoveDevicePropertyObserver(AudioHardwareBackend(), observer,
                                      kSelectedInputSourceAddress);
}

}  // namespace harkwell
