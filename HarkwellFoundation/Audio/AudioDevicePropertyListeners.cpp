#include "HarkwellFoundation/Audio/AudioDevicePropertyListeners.h"

#include "HarkwellFoundation/Audio/AudioDeviceProperties.h"
#include "HarkwellFoundation/Observer/DevicePropertyRegistration.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/HardwareService.h"

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

std::optional<AudioDevicePropertyObserver> AddObserver(std::uint32_t object,
                                                       const PropertyAddress& address,
                                                       std::shared_ptr<DispatchQueue> queue,
                                                       std::function<void()> callback) {
  return AddDevicePropertyObserver(*CurrentAudioHardwareService(), &AudioDeviceLogWithStatus,
                                   object, address, std::move(queue), std::move(callback));
}

bool RemoveObserver(const AudioDevicePropertyObserver& observer, const PropertyAddress& address) {
  return RemoveDevicePropertyObserver(*CurrentAudioHardwareService(), &AudioDeviceLogWithStatus,
                                      observer, address);
}

}  // namespace

std::optional<AudioDevicePropertyObserver> AudioDeviceAddObserverForConnectedDevices(
    std::shared_ptr<DispatchQueue> queue, std::function<void()> callback) {
  return AddObserver(kAudioObjectSystemObject, kConnectedDevicesAddress, std::move(queue),
                     std::move(callback));
}

std::optional<AudioDevicePropertyObserver> AudioDeviceAddObserverForDeviceIsRunning(
    std::uint32_t deviceID, std::shared_ptr<DispatchQueue> queue, std::function<void()> callback) {
  return AddObserver(deviceID, kDeviceIsRunningAddress, std::move(queue), std::move(callback));
}

std::optional<AudioDevicePropertyObserver> AudioDeviceAddObserverForSelectedInputSource(
    std::uint32_t deviceID, std::shared_ptr<DispatchQueue> queue, std::function<void()> callback) {
  // No property check first: a device that cannot report its source refuses the registration,
  // which is logged like any other refusal.
  return AddObserver(deviceID, kSelectedInputSourceAddress, std::move(queue), std::move(callback));
}

bool AudioDeviceRemoveObserverForConnectedDevices(const AudioDevicePropertyObserver& observer) {
  return RemoveObserver(observer, kConnectedDevicesAddress);
}

bool AudioDeviceRemoveObserverForDeviceIsRunning(const AudioDevicePropertyObserver& observer) {
  return RemoveObserver(observer, kDeviceIsRunningAddress);
}

bool AudioDeviceRemoveObserverForSelectedInputSource(const AudioDevicePropertyObserver& observer) {
  return RemoveObserver(observer, kSelectedInputSourceAddress);
}

}  // namespace harkwell
