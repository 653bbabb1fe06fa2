#include "HarkwellFoundation/Audio/AudioDeviceObserver.h"

#include <utility>

#include "HarkwellFoundation/Audio/AudioDeviceProperties.h"
#include "HarkwellFoundation/Backend/internal/BackendObserverSupport.h"

namespace harkwell {

std::shared_ptr<AudioDeviceObserver> AudioDeviceObserver::create(
    std::shared_ptr<DispatchQueue> deviceEventHandlerQueue) {
  return adopt(new AudioDeviceObserver(std::move(deviceEventHandlerQueue)));
}

AudioDeviceObserver::AudioDeviceObserver(std::shared_ptr<DispatchQueue> deviceEventHandlerQueue)
    : MediaDeviceObserver(std::move(deviceEventHandlerQueue)) {}

// --- Device-source queries -----------------------------------------------------------------------

MediaType AudioDeviceObserver::mediaType() const {
  return MediaType::Audio;
}

std::vector<std::uint32_t> AudioDeviceObserver::connectedDeviceIDs() const {
  return AudioDeviceConnectedDeviceIDs();
}

std::optional<std::string> AudioDeviceObserver::deviceNameForDeviceID(
    std::uint32_t deviceID) const {
  return AudioDeviceNameForDeviceID(deviceID);
}

std::optional<std::string> AudioDeviceObserver::deviceInputSourceNameForDeviceID(
    std::uint32_t deviceID) const {
  return AudioDeviceSelectedInputSourceNameForDeviceID(deviceID);
}

std::optional<std::string> AudioDeviceObserver::deviceUIDForDeviceID(std::uint32_t deviceID) const {
  return AudioDeviceUIDForDeviceID(deviceID);
}

std::optional<MediaDeviceChannelCounts> AudioDeviceObserver::deviceChannelCountsForDeviceID(
    std::uint32_t deviceID) const {
  return ReadChannelCounts(deviceID, &AudioDeviceInputChannelCountForDeviceID,
                           &AudioDeviceOutputChannelCountForDeviceID);
}

std::optional<bool> AudioDeviceObserver::deviceIsRunningForDeviceID(std::uint32_t deviceID) const {
  return AudioDeviceIsRunningForDeviceID(deviceID);
}

std::optional<std::string> AudioDeviceObserver::deviceModelUIDForDeviceID(
    std::uint32_t deviceID) const {
  return AudioDeviceModelUIDForDeviceID(deviceID);
}

MediaDeviceTransportType AudioDeviceObserver::deviceTransportTypeForDeviceID(
    std::uint32_t deviceID) const {
  return AudioDeviceTransportTypeForDeviceID(deviceID).value_or(MediaDeviceTransportType::Unknown);
}

// --- Observation hooks ---------------------------------------------------------------------------
//
// Every callback given to a listener or the polling timer holds the observer weakly: a notification
// can already be queued when the observer goes away, and then it does nothing. The record stores
// lock only around their own contents; the service and the base class are always called unlocked.
// The teardown runs the stop hooks once the observer is no longer owned, so they never need
// weak_from_this().

void AudioDeviceObserver::startObservingConnectedDevices() {
  auto record = AudioDeviceAddObserverForConnectedDevices(
      deviceEventHandlerQueue(), ConnectedDevicesChangedCallback(weak_from_this()));
  // A record replaced here is dropped without removing its listener.
  _connectedDevicesChangedObserver.exchange(std::move(record));
}

void AudioDeviceObserver::stopObservingConnectedDevices() {
  if (auto record = _connectedDevicesChangedObserver.exchange(std::nullopt)) {
    AudioDeviceRemoveObserverForConnectedDevices(*record);
  }
}

void AudioDeviceObserver::startObservingPropertiesForDeviceID(std::uint32_t deviceID) {
  const std::weak_ptr<MediaDeviceObserver> weakSelf = weak_from_this();

  auto running = AudioDeviceAddObserverForDeviceIsRunning(
      deviceID, deviceEventHandlerQueue(), IsRunningChangedCallback(weakSelf, deviceID));
  if (running) _deviceIsRunningObservers.store(deviceID, std::move(*running));

  auto inputSource = AudioDeviceAddObserverForSelectedInputSource(
      deviceID, deviceEventHandlerQueue(),
      CallbackWhileObserverAlive(weakSelf, [deviceID](MediaDeviceObserver& self) {
        self.noteSelectedInputSourceChangedForDeviceID(deviceID);
      }));
  if (inputSource) _deviceSelectedInputSourceObservers.store(deviceID, std::move(*inputSource));

  // Bluetooth devices do not always report their running state, so it is also polled. Bluetooth
  // LE devices are not.
  if (AudioDeviceTransportTypeForDeviceID(deviceID) == MediaDeviceTransportType::Bluetooth) {
    addPollingHandlerForDeviceID(
        deviceID, CallbackWhileObserverAlive(weakSelf, [deviceID](MediaDeviceObserver& self) {
          auto cached = self.cachedDeviceForDeviceID(deviceID);
          if (!cached) return;
          // A failed read counts as a change.
          auto isRunning = AudioDeviceIsRunningForDeviceID(deviceID);
          if (!isRunning || *isRunning != cached->isRunning) {
            self.noteIsRunningChangedForDeviceID(deviceID);
          }
        }));
  }
}

void AudioDeviceObserver::stopObservingPropertiesForDeviceID(std::uint32_t deviceID) {
  if (auto running = _deviceIsRunningObservers.take(deviceID)) {
    AudioDeviceRemoveObserverForDeviceIsRunning(*running);
  }
  if (auto inputSource = _deviceSelectedInputSourceObservers.take(deviceID)) {
    AudioDeviceRemoveObserverForSelectedInputSource(*inputSource);
  }
  removePollingHandlerForDeviceID(deviceID);
}

void AudioDeviceObserver::stopObservingPropertiesForAllDevices() {
  // Only devices with a running-state record are visited: one whose running-state registration
  // failed keeps its input-source listener and its polling handler.
  for (std::uint32_t deviceID : _deviceIsRunningObservers.deviceIDs()) {
    stopObservingPropertiesForDeviceID(deviceID);
  }
}

// --- Inspection ----------------------------------------------------------------------------------

bool AudioDeviceObserver::isObservingConnectedDevicesForTesting() const {
  return _connectedDevicesChangedObserver.hasValue();
}

std::size_t AudioDeviceObserver::deviceIsRunningObserverCountForTesting() const {
  return _deviceIsRunningObservers.size();
}

std::size_t AudioDeviceObserver::deviceSelectedInputSourceObserverCountForTesting() const {
  return _deviceSelectedInputSourceObservers.size();
}

}  // namespace harkwell
