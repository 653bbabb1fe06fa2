#include "HarkwellFoundation/Video/VideoDevicePropertyListeners.h"

#include "HarkwellFoundation/Backend/internal/DevicePropertyRegistration.h"
#include "HarkwellFoundation/Backend/internal/VideoHardwareBackend.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"

namespace harkwell {

namespace {

constexpr PropertyAddress kConnectedDevicesAddress{
    kCMIOHardwarePropertyDevices, kCMIOObjectPropertyScopeGlobal, kCMIOObjectPropertyElementMaster};
constexpr PropertyAddress kDeviceIsRunningAddress{kCMIODevicePropertyDeviceIsRunningSomewhere,
                                                  kCMIOObjectPropertyScopeGlobal,
                                                  kCMIOObjectPropertyElementMaster};

}  // namespace

std::optional<VideoDevicePropertyObserver> VideoDeviceAddObserverForConnectedDevices(
    std::shared_ptr<DispatchQueue> queue, std::function<void()> callback) {
  return AddDevicePropertyObserver(VideoHardwareBackend(), kCMIOObjectSystemObject,
                                   kConnectedDevicesAddress, std::move(queue), std::move(callback));
}

std::optional<VideoDevicePropertyObserver> VideoDeviceAddObserverForDeviceIsRunning(
    std::uint32_t deviceID, std::shared_ptr<DispatchQueue> queue, std::function<void()> callback) {
  return AddDevicePropertyObserver(VideoHardwareBackend(), deviceID, kDeviceIsRunningAddress,
                                   std::move(queue), std::move(callback));
}

bool VideoDeviceRemoveObserverForConnectedDevices(const VideoDevicePropertyObserver& observer) {
  return RemoveDevicePropertyObserver(VideoHardwareBackend(), observer, kConnectedDevicesAddress);
}

bool VideoDeviceRemoveObserverForDeviceIsRunning(const VideoDevicePropertyObserver& observer) {
  return RemoveDevicePropertyObserver(VideoHardwareBackend(), observer, kDeviceIsRunningAddress);
}

}  // namespace harkwell
