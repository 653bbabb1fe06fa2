#include "HarkwellFoundation/Video/VideoDeviceObserver.h"

#include <utility>

#include "HarkwellFoundation/Backend/internal/BackendObserverSupport.h"
#include "HarkwellFoundation/Video/VideoDeviceProperties.h"

namespace harkwell {

std::shared_ptr<VideoDeviceObserver> VideoDeviceObserver::create(
    std::shared_ptr<DispatchQueue> deviceEventHandlerQueue) {
  return adopt(new VideoDeviceObserver(std::move(deviceEventHandlerQueue)));
}

VideoDeviceObserver::VideoDeviceObserver(std::shared_ptr<DispatchQueue> deviceEventHandlerQueue)
    : MediaDeviceObserver(std::move(deviceEventHandlerQueue)) {}

// --- Device-source queries -----------------------------------------------------------------------

MediaType VideoDeviceObserver::mediaType() const {
  return MediaType::Video;
}

std::vector<std::uint32_t> VideoDeviceObserver::connectedDeviceIDs() const {
  // Screen-capture devices are cameras too.
  return VideoDeviceConnectedDeviceIDs(true);
}

std::optional<std::string> VideoDeviceObserver::deviceNameForDeviceID(
    std::uint32_t deviceID) const {
  return VideoDeviceNameForDeviceID(deviceID);
}

std::optional<std::string> VideoDeviceObserver::deviceInputSourceNameForDeviceID(
    std::uint32_t) const {
  // A camera has no selectable input source; the service is not asked.
  return std::nullopt;
}

std::optional<std::string> VideoDeviceObserver::deviceUIDForDeviceID(std::uint32_t deviceID) const {
  return VideoDeviceUIDForDeviceID(deviceID);
}

std::optional<MediaDeviceChannelCounts> VideoDeviceObserver::deviceChannelCountsForDeviceID(
    std::uint32_t deviceID) const {
  return ReadChannelCounts(deviceID, &VideoDeviceInputChannelCountForDeviceID,
                           &VideoDeviceOutputChannelCountForDeviceID);
}

std::optional<bool> VideoDeviceObserver::deviceIsRunningForDeviceID(std::uint32_t deviceID) const {
  return VideoDeviceIsRunningForDeviceID(deviceID);
}

std::optional<std::string> VideoDeviceObserver::deviceModelUIDForDeviceID(
    std::uint32_t deviceID) const {
  return VideoDeviceModelUIDForDeviceID(deviceID);
}

MediaDeviceTransportType VideoDeviceObserver::deviceTransportTypeForDeviceID(
    std::uint32_t deviceID) const {
  return VideoDeviceTransportTypeForDeviceID(deviceID).value_or(MediaDeviceTransportType::Unknown);
}

// --- Observation hooks ---------------------------------------------------------------------------
//
// Listener callbacks hold the observer weakly, so a notification queued after the observer went
// away does nothing. The mutex guards the two members only and is never held across a service call.

void VideoDeviceObserver::startObservingConnectedDevices() {
  auto record = VideoDeviceAddObserverForConnectedDevices(
      deviceEventHandlerQueue(),
      CallbackWhileObserverAlive(weak_from_this(), [](MediaDeviceObserver& self) {
        self.noteConnectedDevicesDidChange();
      }));
  // A record replaced here is dropped; its listener stays registered.
  ExchangeLocked(observersMutex_, _connectedDevicesChangedObserver, std::move(record));
}

void VideoDeviceObserver::stopObservingConnectedDevices() {
  if (auto record = ExchangeLocked(observersMutex_, _connectedDevicesChangedObserver, {})) {
    VideoDeviceRemoveObserverForConnectedDevices(*record);
  }
}

void VideoDeviceObserver::startObservingPropertiesForDeviceID(std::uint32_t deviceID) {
  auto record = VideoDeviceAddObserverForDeviceIsRunning(
      deviceID, deviceEventHandlerQueue(),
      CallbackWhileObserverAlive(weak_from_this(), [deviceID](MediaDeviceObserver& self) {
        self.noteIsRunningChangedForDeviceID(deviceID);
      }));
  if (record) StoreLocked(observersMutex_, _deviceIsRunningObservers, deviceID, std::move(*record));
}

void VideoDeviceObserver::stopObservingPropertiesForDeviceID(std::uint32_t deviceID) {
  // The entry stays in the map: a later start overwrites it and stopping all devices clears it.
  if (auto record = CopyLocked(observersMutex_, _deviceIsRunningObservers, deviceID)) {
    VideoDeviceRemoveObserverForDeviceIsRunning(*record);
  }
}

void VideoDeviceObserver::stopObservingPropertiesForAllDevices() {
  std::unordered_map<std::uint32_t, VideoDevicePropertyObserver> records;
  {
    std::lock_guard lock(observersMutex_);
    records.swap(_deviceIsRunningObservers);
  }
  for (const auto& [deviceID, record] : records)
    VideoDeviceRemoveObserverForDeviceIsRunning(record);
}

// --- Inspection ----------------------------------------------------------------------------------

bool VideoDeviceObserver::isObservingConnectedDevicesForTesting() const {
  std::lock_guard lock(observersMutex_);
  return _connectedDevicesChangedObserver.has_value();
}

std::size_t VideoDeviceObserver::deviceIsRunningObserverCountForTesting() const {
  std::lock_guard lock(observersMutex_);
  return _deviceIsRunningObservers.size();
}

}  // namespace harkwell
