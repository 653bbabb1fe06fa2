// A MediaDeviceObserver whose device-source queries answer from a script the test edits: the list
// of connected IDs and, per device, each answer (an empty optional is a failed query). Every query
// and hook call is recorded in order, as text such as "deviceUIDForDeviceID(5)", so a test can
// assert exactly what the base asked and when.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Observer/MediaDeviceObserver.h"

namespace harkwell::testing {

struct ScriptedDevice {
  std::optional<std::string> name;
  std::optional<std::string> deviceUID;
  std::optional<MediaDeviceChannelCounts> channelCounts;
  std::optional<bool> isRunning;
  std::optional<std::string> modelUID;
  MediaDeviceTransportType transportType = MediaDeviceTransportType::Unknown;
  std::optional<std::string> inputSourceName;
};

// A device every query answers.
ScriptedDevice CompleteDevice(const std::string& name, bool isRunning = false);

// Shared between the test's thread and the observer's queue.
class DeviceScript {
 public:
  void setConnectedDeviceIDs(std::vector<std::uint32_t> ids);
  void setDevice(std::uint32_t deviceID, ScriptedDevice device);
  // Edits one device in place.
  template <class Edit>
  void editDevice(std::uint32_t deviceID, Edit edit) {
    std::lock_guard lock(mutex_);
    edit(devices_[deviceID]);
  }
  std::vector<std::string> calls() const;
  void clearCalls();

 private:
  friend class ScriptedDeviceObserver;
  void record(std::string call) const;
  ScriptedDevice device(std::uint32_t deviceID) const;

  mutable std::mutex mutex_;
  std::vector<std::uint32_t> connectedDeviceIDs_;
  std::map<std::uint32_t, ScriptedDevice> devices_;
  mutable std::vector<std::string> calls_;
};

class ScriptedDeviceObserver final : public MediaDeviceObserver {
 public:
  static std::shared_ptr<ScriptedDeviceObserver> create(std::shared_ptr<DispatchQueue> queue,
                                                        std::shared_ptr<DeviceScript> script,
                                                        MediaType mediaType = MediaType::Audio);

  MediaType mediaType() const override;
  std::vector<std::uint32_t> connectedDeviceIDs() const override;
  std::optional<std::string> deviceNameForDeviceID(std::uint32_t deviceID) const override;
  std::optional<std::string> deviceInputSourceNameForDeviceID(
      std::uint32_t deviceID) const override;
  std::optional<std::string> deviceUIDForDeviceID(std::uint32_t deviceID) const override;
  std::optional<MediaDeviceChannelCounts> deviceChannelCountsForDeviceID(
      std::uint32_t deviceID) const override;
  std::optional<bool> deviceIsRunningForDeviceID(std::uint32_t deviceID) const override;
  std::optional<std::string> deviceModelUIDForDeviceID(std::uint32_t deviceID) const override;
  MediaDeviceTransportType deviceTransportTypeForDeviceID(std::uint32_t deviceID) const override;

  void startObservingConnectedDevices() override;
  void stopObservingConnectedDevices() override;
  void startObservingPropertiesForDeviceID(std::uint32_t deviceID) override;
  void stopObservingPropertiesForDeviceID(std::uint32_t deviceID) override;
  void stopObservingPropertiesForAllDevices() override;

 private:
  ScriptedDeviceObserver(std::shared_ptr<DispatchQueue> queue, std::shared_ptr<DeviceScript> script,
                         MediaType mediaType);
  const std::shared_ptr<DeviceScript> script_;
  const MediaType mediaType_;
};

}  // namespace harkwell::testing
