// VideoDeviceObserver: the video member of the observer family. It answers the base's device
// queries from the video property reads (screen-capture devices included) and listens to the
// device list and, per observed device, the running state. A video device has no selectable input
// source and is never polled.
//
// Two asymmetries are deliberate: stopping one device removes its listener but keeps its entry in
// the map (a later start overwrites it, stopping all clears it), and starting the device-list
// observation twice keeps only the second record while the first listener stays registered.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "HarkwellFoundation/Backend/DevicePropertyObserverRecords.h"
#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Observer/MediaDeviceObserver.h"
#include "HarkwellFoundation/Video/VideoDevicePropertyListeners.h"

namespace harkwell {

class HARKWELL_EXPORT VideoDeviceObserver : public MediaDeviceObserver {
 public:
  static std::shared_ptr<VideoDeviceObserver> create(
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

 protected:
  explicit VideoDeviceObserver(std::shared_ptr<DispatchQueue> deviceEventHandlerQueue);

 private:
  LockedRecord<VideoDevicePropertyObserver> _connectedDevicesChangedObserver;
  LockedRecordMap<VideoDevicePropertyObserver> _deviceIsRunningObservers;
};

}  // namespace harkwell
