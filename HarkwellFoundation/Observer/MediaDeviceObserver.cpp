#include "HarkwellFoundation/Observer/MediaDeviceObserver.h"

#include <unordered_set>
#include <utility>

#include "HarkwellFoundation/Platform/SystemLog.h"

namespace harkwell {

MediaDeviceObserver::MediaDeviceObserver(std::shared_ptr<DispatchQueue> deviceEventHandlerQueue)
    : deviceEventHandlerQueue_(std::move(deviceEventHandlerQueue)) {}

// The timer reference is released here without invalidating the timer; a live timer holds its
// observer, so an observer is only destroyed once its timer is gone.
MediaDeviceObserver::~MediaDeviceObserver() = default;

void MediaDeviceObserver::_queueInitialCacheFill() {
  deviceEventHandlerQueue_->async([self = shared_from_this()] { self->_updateCachedDevices(); });
}

void MediaDeviceObserver::_tearDown() {
  stopObservingConnectedDevices();
  stopObservingPropertiesForAllDevices();
}

// --- Callbacks -----------------------------------------------------------------------------------

MediaDeviceObserver::UpdatingDevicesHandler MediaDeviceObserver::updatingDevicesHandler() const {
  MutexLock lock(handlersMutex_);
  return updatingDevicesHandler_;
}

void MediaDeviceObserver::setUpdatingDevicesHandler(UpdatingDevicesHandler handler) {
  MutexLock lock(handlersMutex_);
  std::swap(updatingDevicesHandler_, handler);
  // The replaced handler is destroyed after the lock is released.
}

MediaDeviceObserver::DeviceEventHandler MediaDeviceObserver::deviceEventHandler() const {
  MutexLock lock(handlersMutex_);
  return deviceEventHandler_;
}

void MediaDeviceObserver::setDeviceEventHandler(DeviceEventHandler handler) {
  MutexLock lock(handlersMutex_);
  std::swap(deviceEventHandler_, handler);
}

// --- Cache ---------------------------------------------------------------------------------------

std::vector<MediaDevice> MediaDeviceObserver::connectedDevices() const {
  MutexLock lock(cacheMutex_);
  std::vector<MediaDevice> devices;
  devices.reserve(_cachedDevices.size());
  for (const auto& [deviceID, device] : _cachedDevices) devices.push_back(device);
  return devices;
}

std::optional<MediaDevice> MediaDeviceObserver::cachedDeviceForDeviceID(
    std::uint32_t deviceID) const {
  MutexLock lock(cacheMutex_);
  auto found = _cachedDevices.find(deviceID);
  if (found == _cachedDevices.end()) return std::nullopt;
  return found->second;
}

bool MediaDeviceObserver::_isCached(std::uint32_t deviceID) const {
  MutexLock lock(cacheMutex_);
  return _cachedDevices.count(deviceID) != 0;
}

std::optional<MediaDevice> MediaDeviceObserver::_buildDeviceForDeviceID(
    std::uint32_t deviceID) const {
  // The first four answers are required; the first one missing abandons the device.
  auto name = deviceNameForDeviceID(deviceID);
  std::optional<std::string> deviceUID;
  std::optional<MediaDeviceChannelCounts> counts;
  std::optional<bool> isRunning;
  if (name) deviceUID = deviceUIDForDeviceID(deviceID);
  if (deviceUID) counts = deviceChannelCountsForDeviceID(deviceID);
  if (counts) isRunning = deviceIsRunningForDeviceID(deviceID);
  if (!isRunning) {
    SystemLog("Cannot initialize " +
              std::string(mediaType() == MediaType::Audio ? "Audio" : "Video") +
              " device for device ID: " + std::to_string(deviceID));
    return std::nullopt;
  }
  auto modelUID = deviceModelUIDForDeviceID(deviceID);
  auto unsupportedReason =
      MediaDeviceUnsupportedReasonForChannelCounts(counts->inputCount, counts->outputCount);
  const MediaType type = mediaType();
  const MediaDeviceTransportType transportType = deviceTransportTypeForDeviceID(deviceID);
  auto inputSourceName = deviceInputSourceNameForDeviceID(deviceID);
  return MediaDevice{
      .deviceID = deviceID,
      .mediaType = type,
      .deviceUID = std::move(*deviceUID),
      .modelUID = std::move(modelUID),
      .transportType = transportType,
      .name = std::move(*name),
      .inputSourceName = std::move(inputSourceName),
      .inputChannelCount = counts->inputCount,
      .outputChannelCount = counts->outputCount,
      .isConnected = true,
      .isRunning = *isRunning,
      .unsupportedReason = unsupportedReason,
  };
}

std::vector<MediaDevice> MediaDeviceObserver::_removeCachedDevicesWithRemainingConnectedDeviceIDs(
    const std::vector<std::uint32_t>& connectedDeviceIDs) {
  // A set instead of a search of the list per cached device keeps large device lists linear;
  // the walk still follows the cache's order.
  const std::unordered_set<std::uint32_t> remaining(connectedDeviceIDs.begin(),
                                                    connectedDeviceIDs.end());
  std::vector<MediaDevice> disconnected;
  MutexLock lock(cacheMutex_);
  for (const auto& [deviceID, device] : _cachedDevices) {
    if (remaining.count(device.deviceID) != 0) continue;
    MediaDevice copy = device;
    copy.isConnected = false;
    copy.isRunning = false;
    disconnected.push_back(std::move(copy));
  }
  for (const auto& device : disconnected) _cachedDevices.erase(device.deviceID);
  return disconnected;
}

std::vector<std::uint32_t> MediaDeviceObserver::_newDeviceIDsForConnectedDeviceIDs(
    const std::vector<std::uint32_t>& connectedDeviceIDs) const {
  std::vector<std::uint32_t> newDeviceIDs;
  MutexLock lock(cacheMutex_);
  for (std::uint32_t deviceID : connectedDeviceIDs) {
    if (_cachedDevices.count(deviceID) == 0) newDeviceIDs.push_back(deviceID);
  }
  return newDeviceIDs;
}

void MediaDeviceObserver::_cacheDevice(const MediaDevice& device) {
  MutexLock lock(cacheMutex_);
  _cachedDevices.insert_or_assign(device.deviceID, device);
}

MediaDeviceObserver::UpdateResult MediaDeviceObserver::_updateCachedDevices() {
  const std::vector<std::uint32_t> deviceIDs = connectedDeviceIDs();
  UpdateResult result;
  result.disconnectedDevices = _removeCachedDevicesWithRemainingConnectedDeviceIDs(deviceIDs);
  for (std::uint32_t deviceID : _newDeviceIDsForConnectedDeviceIDs(deviceIDs)) {
    if (auto device = _buildDeviceForDeviceID(deviceID)) {
      _cacheDevice(*device);
      result.newlyConnectedDevices.push_back(std::move(*device));
    }
  }
  return result;
}

// --- Notes ---------------------------------------------------------------------------------------

void MediaDeviceObserver::noteConnectedDevicesDidChange() {
  if (auto updating = updatingDevicesHandler()) updating(*this, false);
  const UpdateResult result = _updateCachedDevices();
  if (auto handler = deviceEventHandler()) {
    for (const auto& device : result.disconnectedDevices) {
      handler(*this, MediaDeviceEvent::Disconnected, device);
    }
    for (const auto& device : result.newlyConnectedDevices) {
      handler(*this, MediaDeviceEvent::Connected, device);
    }
  }
  if (auto updating = updatingDevicesHandler()) updating(*this, true);
}

void MediaDeviceObserver::noteIsRunningChangedForDeviceID(std::uint32_t deviceID) {
  if (!_isCached(deviceID)) return;
  const bool isRunning = deviceIsRunningForDeviceID(deviceID).value_or(false);
  MediaDevice patched;
  {
    MutexLock lock(cacheMutex_);
    auto found = _cachedDevices.find(deviceID);
    if (found == _cachedDevices.end()) return;
    found->second.isRunning = isRunning;
    patched = found->second;
  }
  if (auto handler = deviceEventHandler()) {
    handler(*this, MediaDeviceEvent::ChangedRunning, patched);
  }
}

void MediaDeviceObserver::noteSelectedInputSourceChangedForDeviceID(std::uint32_t deviceID) {
  if (!_isCached(deviceID)) return;
  auto inputSourceName = deviceInputSourceNameForDeviceID(deviceID);
  if (!inputSourceName) return;
  MediaDevice patched;
  {
    MutexLock lock(cacheMutex_);
    auto found = _cachedDevices.find(deviceID);
    if (found == _cachedDevices.end()) return;
    found->second.inputSourceName = std::move(inputSourceName);
    patched = found->second;
  }
  if (auto handler = deviceEventHandler()) {
    handler(*this, MediaDeviceEvent::ChangedInputSource, patched);
  }
}

// --- Polling -------------------------------------------------------------------------------------

void MediaDeviceObserver::addPollingHandlerForDeviceID(std::uint32_t deviceID,
                                                       PollingHandler pollingHandler) {
  std::shared_ptr<const PollingHandler> replaced;
  MutexLock lock(pollingMutex_);
  auto& slot = _devicePropertiesPollingHandlers[deviceID];
  replaced = std::exchange(slot, std::make_shared<const PollingHandler>(std::move(pollingHandler)));
  if (!_devicePropertiesPollingTimer) {
    // The timer holds the observer until it is invalidated.
    _devicePropertiesPollingTimer = MainRunLoop::shared().scheduleRepeatingTimer(
        devicePropertiesPollingInterval_, kDevicePropertiesPollingTolerance,
        [self = shared_from_this()] { self->_pollDeviceProperties(); });
  }
}

void MediaDeviceObserver::removePollingHandlerForDeviceID(std::uint32_t deviceID) {
  std::shared_ptr<const PollingHandler> removed;
  std::shared_ptr<RunLoopTimer> timer;
  {
    MutexLock lock(pollingMutex_);
    auto found = _devicePropertiesPollingHandlers.find(deviceID);
    if (found != _devicePropertiesPollingHandlers.end()) {
      removed = std::move(found->second);
      _devicePropertiesPollingHandlers.erase(found);
    }
    if (!_devicePropertiesPollingHandlers.empty()) return;
    // Cleared before the invalidation so that a concurrent add schedules a fresh timer.
    timer = std::exchange(_devicePropertiesPollingTimer, nullptr);
  }
  if (!timer) return;
  // The run loop that holds the timer is the main thread's, so that is where it is invalidated.
  if (IsMainThread()) {
    timer->invalidate();
  } else {
    DispatchQueue::main()->sync([&timer] { timer->invalidate(); });
  }
}

void MediaDeviceObserver::_pollDeviceProperties() {
  // Every firing queues its own pass; firings are not coalesced.
  deviceEventHandlerQueue_->async([self = shared_from_this()] { self->_runPollingHandlers(); });
}

void MediaDeviceObserver::_runPollingHandlers() {
  std::vector<std::shared_ptr<const PollingHandler>> snapshot;
  {
    MutexLock lock(pollingMutex_);
    snapshot.reserve(_devicePropertiesPollingHandlers.size());
    for (const auto& [deviceID, handler] : _devicePropertiesPollingHandlers) {
      snapshot.push_back(handler);
    }
  }
  for (const auto& handler : snapshot) (*handler)();
}

std::shared_ptr<RunLoopTimer> MediaDeviceObserver::devicePropertiesPollingTimerForTesting() const {
  MutexLock lock(pollingMutex_);
  return _devicePropertiesPollingTimer;
}

std::size_t MediaDeviceObserver::pollingHandlerCountForTesting() const {
  MutexLock lock(pollingMutex_);
  return _devicePropertiesPollingHandlers.size();
}

// --- Operations every subclass provides ---------------------------------------------------------

MediaType MediaDeviceObserver::mediaType() const {
  __builtin_trap();
}
std::vector<std::uint32_t> MediaDeviceObserver::connectedDeviceIDs() const {
  __builtin_trap();
}
std::optional<std::string> MediaDeviceObserver::deviceNameForDeviceID(std::uint32_t) const {
  __builtin_trap();
}
std::optional<std::string> MediaDeviceObserver::deviceInputSourceNameForDeviceID(
    std::uint32_t) const {
  __builtin_trap();
}
std::optional<std::string> MediaDeviceObserver::deviceUIDForDeviceID(std::uint32_t) const {
  __builtin_trap();
}
std::optional<MediaDeviceChannelCounts> MediaDeviceObserver::deviceChannelCountsForDeviceID(
    std::uint32_t) const {
  __builtin_trap();
}
std::optional<bool> MediaDeviceObserver::deviceIsRunningForDeviceID(std::uint32_t) const {
  __builtin_trap();
}
std::optional<std::string> MediaDeviceObserver::deviceModelUIDForDeviceID(std::uint32_t) const {
  __builtin_trap();
}
MediaDeviceTransportType MediaDeviceObserver::deviceTransportTypeForDeviceID(std::uint32_t) const {
  __builtin_trap();
}
void MediaDeviceObserver::startObservingConnectedDevices() {
  __builtin_trap();
}
void MediaDeviceObserver::stopObservingConnectedDevices() {
  __builtin_trap();
}
void MediaDeviceObserver::startObservingPropertiesForDeviceID(std::uint32_t) {
  __builtin_trap();
}
void MediaDeviceObserver::stopObservingPropertiesForDeviceID(std::uint32_t) {
  __builtin_trap();
}
void MediaDeviceObserver::stopObservingPropertiesForAllDevices() {
  __builtin_trap();
}

}  // namespace harkwell
