#include "tests/support/ScriptedDeviceObserver.h"

namespace harkwell::testing {

ScriptedDevice CompleteDevice(const std::string& name, bool isRunning) {
  return ScriptedDevice{.name = name,
                        .deviceUID = name + "-uid",
                        .channelCounts = MediaDeviceChannelCounts{1, 0},
                        .isRunning = isRunning,
                        .modelUID = name + "-model",
                        .transportType = MediaDeviceTransportType::USB,
                        .inputSourceName = std::nullopt};
}

void DeviceScript::setConnectedDeviceIDs(std::vector<std::uint32_t> ids) {
  std::lock_guard lock(mutex_);
  connectedDeviceIDs_ = std::move(ids);
}

void DeviceScript::setDevice(std::uint32_t deviceID, ScriptedDevice device) {
  std::lock_guard lock(mutex_);
  devices_[deviceID] = std::move(device);
}

std::vector<std::string> DeviceScript::calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

void DeviceScript::clearCalls() {
  std::lock_guard lock(mutex_);
  calls_.clear();
}

void DeviceScript::record(std::string call) const {
  std::lock_guard lock(mutex_);
  calls_.push_back(std::move(call));
}

ScriptedDevice DeviceScript::device(std::uint32_t deviceID) const {
  std::lock_guard lock(mutex_);
  auto found = devices_.find(deviceID);
  return found == devices_.end() ? ScriptedDevice{} : found->second;
}

namespace {
std::string callText(const char* operation, std::uint32_t deviceID) {
  return std::string(operation) + "(" + std::to_string(deviceID) + ")";
}
}  // namespace

std::shared_ptr<ScriptedDeviceObserver> ScriptedDeviceObserver::create(
    std::shared_ptr<DispatchQueue> queue, std::shared_ptr<DeviceScript> script,
    MediaType mediaType) {
  return adopt(new ScriptedDeviceObserver(std::move(queue), std::move(script), mediaType));
}

ScriptedDeviceObserver::ScriptedDeviceObserver(std::shared_ptr<DispatchQueue> queue,
                                               std::shared_ptr<DeviceScript> script,
                                               MediaType mediaType)
    : MediaDeviceObserver(std::move(queue)), script_(std::move(script)), mediaType_(mediaType) {}

MediaType ScriptedDeviceObserver::mediaType() const {
  return mediaType_;
}

std::vector<std::uint32_t> ScriptedDeviceObserver::connectedDeviceIDs() const {
  script_->record("connectedDeviceIDs()");
  std::lock_guard lock(script_->mutex_);
  return script_->connectedDeviceIDs_;
}

std::optional<std::string> ScriptedDeviceObserver::deviceNameForDeviceID(
    std::uint32_t deviceID) const {
  script_->record(callText("deviceNameForDeviceID", deviceID));
  return script_->device(deviceID).name;
}

std::optional<std::string> ScriptedDeviceObserver::deviceInputSourceNameForDeviceID(
    std::uint32_t deviceID) const {
  script_->record(callText("deviceInputSourceNameForDeviceID", deviceID));
  return script_->device(deviceID).inputSourceName;
}

std::optional<std::string> ScriptedDeviceObserver::deviceUIDForDeviceID(
    std::uint32_t deviceID) const {
  script_->record(callText("deviceUIDForDeviceID", deviceID));
  return script_->device(deviceID).deviceUID;
}

std::optional<MediaDeviceChannelCounts> ScriptedDeviceObserver::deviceChannelCountsForDeviceID(
    std::uint32_t deviceID) const {
  script_->record(callText("deviceChannelCountsForDeviceID", deviceID));
  return script_->device(deviceID).channelCounts;
}

std::optional<bool> ScriptedDeviceObserver::deviceIsRunningForDeviceID(
    std::uint32_t deviceID) const {
  script_->record(callText("deviceIsRunningForDeviceID", deviceID));
  return script_->device(deviceID).isRunning;
}

std::optional<std::string> ScriptedDeviceObserver::deviceModelUIDForDeviceID(
    std::uint32_t deviceID) const {
  script_->record(callText("deviceModelUIDForDeviceID", deviceID));
  return script_->device(deviceID).modelUID;
}

MediaDeviceTransportType ScriptedDeviceObserver::deviceTransportTypeForDeviceID(
    std::uint32_t deviceID) const {
  script_->record(callText("deviceTransportTypeForDeviceID", deviceID));
  return script_->device(deviceID).transportType;
}

void ScriptedDeviceObserver::startObservingConnectedDevices() {
  script_->record("startObservingConnectedDevices()");
}

void ScriptedDeviceObserver::stopObservingConnectedDevices() {
  script_->record("stopObservingConnectedDevices()");
}

void ScriptedDeviceObserver::startObservingPropertiesForDeviceID(std::uint32_t deviceID) {
  script_->record(callText("startObservingPropertiesForDeviceID", deviceID));
}

void ScriptedDeviceObserver::stopObservingPropertiesForDeviceID(std::uint32_t deviceID) {
  script_->record(callText("stopObservingPropertiesForDeviceID", deviceID));
}

void ScriptedDeviceObserver::stopObservingPropertiesForAllDevices() {
  script_->record("stopObservingPropertiesForAllDevices()");
}

}  // namespace harkwell::testing
