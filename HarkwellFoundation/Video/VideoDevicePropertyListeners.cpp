#include "HarkwellFoundation/Video/VideoDevicePropertyListeners.h"

#include "HarkwellFoundation/Observer/DevicePropertyRegistration.h"
#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "HarkwellFoundation/Video/VideoDeviceProperties.h"

namespace harkwell {

namespace {

constexpr PropertyAddress kConnectedDevicesAddress{
    kCMIOHardwarePropertyDevices, kCMIOObjectPropertyScopeGlobal, kCMIOObjectPropertyElementMaster};
constexpr PropertyAddress kDeviceIsRunningAddress{kCMIODevicePropertyDeviceIsRunningSomewhere,
                                                  kCMIOObjectPropertyScopeGlobal,
                                                  kCMIOObjectPropertyElementMaster};

std::optional<VideoDevicePropertyObserver> AddObserver(std::uint32_t object,
                                                       const PropertyAddress& address,
                                                       std::shared_ptr<DispatchQueue> queue,
                                                       std::function<void()> callback) {
  return AddDevicePropertyObserver(*CurrentVideoHardwareService(), &VideoDeviceLogWithStatus,
                                   object, address, std::move(queue), std::move(callback));
}

bool RemoveObserver(const VideoDevicePropertyObserver& observer, const PropertyAddress& address) {
  return RemoveDevicePropertyObserver(*CurrentVideoHardwareService(), &VideoDeviceLogWithStatus,
                                      observer, address);
}

}  // namespace

std::optional<VideoDevicePropertyObserver> VideoDeviceAddObserverForConnectedDevices(
    std::shared_ptr<DispatchQueue> queue, std::function<void()> callback) {
  return AddObserver(kCMIOObjectSystemObject, kConnectedDevicesAddress, std::move(queue),
                     std::move(callback));
}

std::optional<VideoDevicePropertyObserver> VideoDeviceAddObserverForDeviceIsRunning(
    std::uint32_t deviceID, std::shared_ptr<DispatchQueue> queue, std::function<void()> callback) {
  return AddObserver(deviceID, kDeviceIsRunningAddress, std::move(queue), std::move(callback));
}

bool VideoDeviceRemoveObserverForConnectedDevices(const VideoDevicePropertyObserver& observer) {
  return RemoveObserver(observer, kConnectedDevicesAddress);
}

bool VideoDeviceRemoveObserverForDeviceIsRunning(const VideoDevicePropertyObserver& observer) {
  return RemoveObserver(observer, kDeviceIsRunningAddress);
}

}  // namespace harkwell
