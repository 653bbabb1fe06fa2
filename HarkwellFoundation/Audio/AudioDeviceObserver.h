// AudioDeviceObserver: the audio member of the observer family. It answers the base's device
// queries from the audio property reads, and keeps the base informed through the audio listeners:
// the device list, and per observed device its running state and selected input source. A
// Bluetooth device's running state is also polled on the base's timer, because Bluetooth devices
// do not always report it.
//
// All listeners run on deviceEventHandlerQueue(). The start and stop hooks are called by the
// controller (or the client) on one thread at a time, and by the teardown. Listener callbacks refer
// to the observer without keeping it alive.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "HarkwellFoundation/Audio/AudioDevicePropertyListeners.h"
#include "HarkwellFoundation/Backend/DevicePropertyObserverRecords.h"
#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Observer/MediaDeviceObserver.h"

namespace harkwell {

class HARKWELL_EXPORT AudioDeviceObserver : public MediaDeviceObserver {
 public:
  static std::shared_ptr<AudioDeviceObserver> create(
      std::shared_ptr<DispatchQueue> deviceEventHandlerQueue);

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

  // For tests only: what is being observed right now.
  bool isObservingConnectedDevicesForTesting() const;
  std::size_t deviceIsRunningObserverCountForTesting() const;
  std::size_t deviceSelectedInputSourceObserverCountForTesting() const;

 protected:
  explicit AudioDeviceObserver(std::shared_ptr<DispatchQueue> deviceEventHandlerQueue);

 private:
  LockedRecord<AudioDevicePropertyObserver> _connectedDevicesChangedObserver;
  LockedRecordMap<AudioDevicePropertyObserver> _deviceIsRunningObservers;
  LockedRecordMap<AudioDevicePropertyObserver> _deviceSelectedInputSourceObservers;
};

}  // namespace harkwell
