#include "HarkwellFoundation/Audio/AudioDeviceObserver.h"

#include <utility>

#include "HarkwellFoundation/Audio/AudioDeviceProperties.h"

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
  // The output count is only asked for once the input count is known.
  auto inputCount = AudioDeviceInputChannelCountForDeviceID(deviceID);
  if (!inputCount) return std::nullopt;
  auto outputCount = AudioDeviceOutputChannelCountForDeviceID(deviceID);
  if (!outputCount) return std::nullopt;
  return MediaDeviceChannelCounts{.inputCount = *inputCount, .outputCount = *outputCount};
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
// can already be queued when the observer goes away, and then it does nothing. The mutex guards the
// three members only; the service and the base class are always called without it.

void AudioDeviceObserver::startObservingConnectedDevices() {
  auto record = AudioDeviceAddObserverForConnectedDevices(deviceEventHandlerQueue(),
                                                          [weakSelf = weak_from_this()] {
                                                            if (auto self = weakSelf.lock())
                                                              self->noteConnectedDevicesDidChange();
                                                          });
  // A record replaced here is dropped without removing its listener.
  std::optional<AudioDevicePropertyObserver> replaced;
  std::lock_guard lock(observersMutex_);
  replaced = std::exchange(_connectedDevicesChangedObserver, std::move(record));
}

void AudioDeviceObserver::stopObservingConnectedDevices() {
  std::optional<AudioDevicePropertyObserver> record;
  {
    std::lock_guard lock(observersMutex_);
    record = std::exchange(_connectedDevicesChangedObserver, std::nullopt);
  }
  if (record) AudioDeviceRemoveObserverForConnectedDevices(*record);
}

void AudioDeviceObserver::startObservingPropertiesForDeviceID(std::uint32_t deviceID) {
  const std::weak_ptr<MediaDeviceObserver> weakSelf = weak_from_this();

  auto running = AudioDeviceAddObserverForDeviceIsRunning(
      deviceID, deviceEventHandlerQueue(), [weakSelf, deviceID] {
        if (auto self = weakSelf.lock()) self->noteIsRunningChangedForDeviceID(deviceID);
      });
  if (running) storeObserver(_deviceIsRunningObservers, deviceID, std::move(*running));

  auto inputSource = AudioDeviceAddObserverForSelectedInputSource(
      deviceID, deviceEventHandlerQueue(), [weakSelf, deviceID] {
        if (auto self = weakSelf.lock()) self->noteSelectedInputSourceChangedForDeviceID(deviceID);
      });
  if (inputSource) {
    storeObserver(_deviceSelectedInputSourceObservers, deviceID, std::move(*inputSource));
  }

  // Bluetooth devices do not always report their running state, so it is also polled. Bluetooth
  // LE devices are not.
  if (AudioDeviceTransportTypeForDeviceID(deviceID) == MediaDeviceTransportType::Bluetooth) {
    addPollingHandlerForDeviceID(deviceID, [weakSelf, deviceID] {
      auto self = weakSelf.lock();
      if (!self) return;
      auto cached = self->cachedDeviceForDeviceID(deviceID);
      if (!cached) return;
      // A failed read counts as a change.
      auto isRunning = AudioDeviceIsRunningForDeviceID(deviceID);
      if (!isRunning || *isRunning != cached->isRunning) {
        self->noteIsRunningChangedForDeviceID(deviceID);
      }
    });
  }
}

void AudioDeviceObserver::stopObservingPropertiesForDeviceID(std::uint32_t deviceID) {
  if (auto running = takeObserver(_deviceIsRunningObservers, deviceID)) {
    AudioDeviceRemoveObserverForDeviceIsRunning(*running);
  }
  if (auto inputSource = takeObserver(_deviceSelectedInputSourceObservers, deviceID)) {
    AudioDeviceRemoveObserverForSelectedInputSource(*inputSource);
  }
  removePollingHandlerForDeviceID(deviceID);
}

void AudioDeviceObserver::stopObservingPropertiesForAllDevices() {
  // Only devices with a running-state record are visited: one whose running-state registration
  // failed keeps its input-source listener and its polling handler.
  std::vector<std::uint32_t> deviceIDs;
  {
    std::lock_guard lock(observersMutex_);
    deviceIDs.reserve(_deviceIsRunningObservers.size());
    for (const auto& [deviceID, record] : _deviceIsRunningObservers) deviceIDs.push_back(deviceID);
  }
  for (std::uint32_t deviceID : deviceIDs) stopObservingPropertiesForDeviceID(deviceID);
}

void AudioDeviceObserver::storeObserver(ObserverMap& map, std::uint32_t deviceID,
                                        AudioDevicePropertyObserver record) {
  // An earlier record for the device is replaced without removing its listener; it is destroyed
  // after the lock is released.
  std::optional<AudioDevicePropertyObserver> replaced;
  std::lock_guard lock(observersMutex_);
  auto [slot, inserted] = map.try_emplace(deviceID, record);
  if (!inserted) replaced = std::exchange(slot->second, std::move(record));
}

std::optional<AudioDevicePropertyObserver> AudioDeviceObserver::takeObserver(
    ObserverMap& map, std::uint32_t deviceID) {
  std::lock_guard lock(observersMutex_);
  auto found = map.find(deviceID);
  if (found == map.end()) return std::nullopt;
  AudioDevicePropertyObserver record = std::move(found->second);
  map.erase(found);
  return record;
}

// --- Inspection ----------------------------------------------------------------------------------

bool AudioDeviceObserver::isObservingConnectedDevices() const {
  std::lock_guard lock(observersMutex_);
  return _connectedDevicesChangedObserver.has_value();
}

std::size_t AudioDeviceObserver::deviceIsRunningObserverCount() const {
  std::lock_guard lock(observersMutex_);
  return _deviceIsRunningObservers.size();
}

std::size_t AudioDeviceObserver::deviceSelectedInputSourceObserverCount() const {
  std::lock_guard lock(observersMutex_);
  return _deviceSelectedInputSourceObservers.size();
}

}  // namespace harkwell
