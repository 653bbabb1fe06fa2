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
// away does nothing. The record stores lock only around their own contents, never across a service
// call.

void VideoDeviceObserver::startObservingConnectedDevices() {
  auto record = VideoDeviceAddObserverForConnectedDevices(
      deviceEventHandlerQueue(), ConnectedDevicesChangedCallback(weak_from_this()));
  // A record replaced here is dropped; its listener stays registered.
  _connectedDevicesChangedObserver.exchange(std::move(record));
}

void VideoDeviceObserver::stopObservingConnectedDevices() {
  if (auto record = _connectedDevicesChangedObserver.exchange(std::nullopt)) {
    VideoDeviceRemoveObserverForConnectedDevices(*record);
  }
}

void VideoDeviceObserver::startObservingPropertiesForDeviceID(std::uint32_t deviceID) {
  auto record = VideoDeviceAddObserverForDeviceIsRunning(
      deviceID, deviceEventHandlerQueue(), IsRunningChangedCallback(weak_from_this(), deviceID));
  if (record) _deviceIsRunningObservers.store(deviceID, std::move(*record));
}

void VideoDeviceObserver::stopObservingPropertiesForDeviceID(std::uint32_t deviceID) {
  // The entry stays in the map: a later start overwrites it and stopping all devices clears it.
  if (auto record = _deviceIsRunningObservers.copy(deviceID)) {
    VideoDeviceRemoveObserverForDeviceIsRunning(*record);
  }
}

void VideoDeviceObserver::stopObservingPropertiesForAllDevices() {
  for (const auto& [deviceID, record] : _deviceIsRunningObservers.takeAll()) {
    VideoDeviceRemoveObserverForDeviceIsRunning(record);
  }
}

// --- Inspection ----------------------------------------------------------------------------------

bool VideoDeviceObserver::isObservingConnectedDevicesForTesting() const {
  return _connectedDevicesChangedObserver.hasValue();
}

std::size_t VideoDeviceObserver::deviceIsRunningObserverCountForTesting() const {
  return _deviceIsRunningObservers.size();
}

}  // namespace harkwell
