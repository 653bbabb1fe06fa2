// The simulated audio and video services: the seam's calls answered from a SimulatedObjectGraph,
// plus device-level helpers that set every property a device has and notify like a platform does
// (plugging a device in changes the system object's device list, starting it changes its running
// state). Used by the test suites, the benchmarks and the command-line program's scenarios.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedObjectGraph.h"

namespace harkwell {

// An audio device as the simulated platform shows it. std::nullopt strings are read as null
// references. Without `selectedDataSource` the device has no data-source properties at all.
struct HARKWELL_EXPORT SimulatedAudioDevice {
  ObjectID deviceID = 0;
  std::optional<std::string> name;
  std::optional<std::string> deviceUID;
  std::optional<std::string> modelUID;
  std::uint32_t transportType = 0;  // an audio transport code ("usb ", "blue", ...)
  std::uint32_t inputStreamCount = 1;
  std::uint32_t outputStreamCount = 0;
  bool isRunning = false;
  std::optional<std::uint32_t> selectedDataSource;
  std::map<std::uint32_t, std::optional<std::string>> dataSourceNames;
  std::int32_t hogModePID = -1;
  std::vector<MediaDeviceConsumer> consumers;
};

// A video device as the simulated platform shows it.
struct HARKWELL_EXPORT SimulatedVideoDevice {
  ObjectID deviceID = 0;
  std::optional<std::string> name;
  std::optional<std::string> deviceUID;
  std::optional<std::string> modelUID;
  std::uint32_t transportType = 0;  // a video transport code ("usb ", "bltn", ...)
  std::uint32_t inputStreamCount = 1;
  std::uint32_t outputStreamCount = 0;
  bool isRunning = false;
  std::int32_t hogModePID = -1;
  std::vector<MediaDeviceConsumer> consumers;
};

// The seam's calls answered from the graph, and the device-list and running-state helpers, which
// are the same for both media types.
template <class ServiceInterface>
class HARKWELL_EXPORT SimulatedHardwareService : public ServiceInterface,
                                                 public SimulatedObjectGraph {
 public:
  // Removes the device object and takes it out of the list, then notifies the list.
  void removeDevice(ObjectID deviceID);
  // Replaces the device list as is (duplicates and unknown IDs allowed) and notifies it.
  void setDeviceList(std::vector<ObjectID> deviceIDs);
  std::vector<ObjectID> deviceList() const;
  void setDeviceRunning(ObjectID deviceID, bool running);
  // Replaces the device's consumers and notifies its consumers property.
  void setDeviceConsumers(ObjectID deviceID, const std::vector<MediaDeviceConsumer>& consumers);

  OSStatus getPropertyDataSize(ObjectID object, const PropertyAddress& address,
                               std::uint32_t qualifierDataSize, const void*,
                               std::uint32_t* outDataSize) override {
    return handleGetPropertyDataSize(object, address, qualifierDataSize, outDataSize);
  }
  OSStatus getPropertyData(ObjectID object, const PropertyAddress& address,
                           std::uint32_t qualifierDataSize, const void*, std::uint32_t* ioDataSize,
                           void* outData) override {
    return handleGetPropertyData(object, address, qualifierDataSize, ioDataSize, outData);
  }
  OSStatus setPropertyData(ObjectID object, const PropertyAddress& address,
                           std::uint32_t qualifierDataSize, const void*, std::uint32_t dataSize,
                           void* data) override {
    return handleSetPropertyData(object, address, qualifierDataSize, dataSize, data);
  }
  OSStatus addPropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                    std::shared_ptr<DispatchQueue> queue,
                                    PlatformListenerBlockRef block) override {
    return handleAddListener(object, address, std::move(queue), std::move(block));
  }
  OSStatus removePropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                       std::shared_ptr<DispatchQueue> queue,
                                       PlatformListenerBlockRef block) override {
    return handleRemoveListener(object, address, std::move(queue), std::move(block));
  }

 protected:
  SimulatedHardwareService();
};

extern template class SimulatedHardwareService<AudioHardwareService>;
extern template class SimulatedHardwareService<VideoHardwareService>;

class HARKWELL_EXPORT SimulatedAudioHardwareService final
    : public SimulatedHardwareService<AudioHardwareService> {
 public:
  static std::shared_ptr<SimulatedAudioHardwareService> create() {
    return std::shared_ptr<SimulatedAudioHardwareService>(new SimulatedAudioHardwareService);
  }

  // Adds the device's properties, appends it to the device list and notifies the list.
  void addDevice(const SimulatedAudioDevice& device);
  void setSelectedDataSource(ObjectID deviceID, std::uint32_t dataSource);

  bool hasProperty(ObjectID object, const PropertyAddress& address) override {
    return handleHasProperty(object, address);
  }

 private:
  SimulatedAudioHardwareService() = default;
};

class HARKWELL_EXPORT SimulatedVideoHardwareService final
    : public SimulatedHardwareService<VideoHardwareService> {
 public:
  static std::shared_ptr<SimulatedVideoHardwareService> create() {
    return std::shared_ptr<SimulatedVideoHardwareService>(new SimulatedVideoHardwareService);
  }

  void addDevice(const SimulatedVideoDevice& device);
  // The value of the system object's screen-capture switch (1 after creation).
  std::optional<std::uint32_t> screenCaptureSwitch() const;

 private:
  SimulatedVideoHardwareService();
};

}  // namespace harkwell
