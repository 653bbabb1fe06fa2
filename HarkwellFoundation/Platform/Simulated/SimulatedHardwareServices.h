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

#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedObjectGraph.h"

namespace harkwell {

// An audio device as the simulated platform shows it. std::nullopt strings are read as null
// references. Without `selectedDataSource` the device has no data-source properties at all.
struct SimulatedAudioDevice {
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
};

// A video device as the simulated platform shows it.
struct SimulatedVideoDevice {
  ObjectID deviceID = 0;
  std::optional<std::string> name;
  std::optional<std::string> deviceUID;
  std::optional<std::string> modelUID;
  std::uint32_t transportType = 0;  // a video transport code ("usb ", "bltn", ...)
  std::uint32_t inputStreamCount = 1;
  std::uint32_t outputStreamCount = 0;
  bool isRunning = false;
  std::int32_t hogModePID = -1;
};

class SimulatedAudioHardwareService final : public AudioHardwareService,
                                            public SimulatedObjectGraph {
 public:
  static std::shared_ptr<SimulatedAudioHardwareService> create() {
    return std::shared_ptr<SimulatedAudioHardwareService>(new SimulatedAudioHardwareService);
  }

  // Adds the device's properties, appends it to the device list and notifies the list.
  void addDevice(const SimulatedAudioDevice& device);
  // Removes the device object and takes it out of the list, then notifies the list.
  void removeDevice(ObjectID deviceID);
  // Replaces the device list as is (duplicates and unknown IDs allowed) and notifies it.
  void setDeviceList(std::vector<ObjectID> deviceIDs);
  std::vector<ObjectID> deviceList() const;
  void setDeviceRunning(ObjectID deviceID, bool running);
  void setSelectedDataSource(ObjectID deviceID, std::uint32_t dataSource);

  // The seam.
  OSStatus getPropertyDataSize(ObjectID object, const PropertyAddress& address,
                               std::uint32_t qualifierDataSize, const void* qualifierData,
                               std::uint32_t* outDataSize) override;
  OSStatus getPropertyData(ObjectID object, const PropertyAddress& address,
                           std::uint32_t qualifierDataSize, const void* qualifierData,
                           std::uint32_t* ioDataSize, void* outData) override;
  OSStatus setPropertyData(ObjectID object, const PropertyAddress& address,
                           std::uint32_t qualifierDataSize, const void* qualifierData,
                           std::uint32_t dataSize, void* data) override;
  bool hasProperty(ObjectID object, const PropertyAddress& address) override;
  OSStatus addPropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                    std::shared_ptr<DispatchQueue> queue,
                                    PlatformListenerBlockRef block) override;
  OSStatus removePropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                       std::shared_ptr<DispatchQueue> queue,
                                       PlatformListenerBlockRef block) override;

 private:
  SimulatedAudioHardwareService();
  OSStatus badObjectStatus() const override;
  OSStatus unknownPropertyStatus() const override;
  OSStatus badPropertySizeStatus() const override;
  bool isHogModeAddress(const PropertyAddress& address) const override;
};

class SimulatedVideoHardwareService final : public VideoHardwareService,
                                            public SimulatedObjectGraph {
 public:
  static std::shared_ptr<SimulatedVideoHardwareService> create() {
    return std::shared_ptr<SimulatedVideoHardwareService>(new SimulatedVideoHardwareService);
  }

  void addDevice(const SimulatedVideoDevice& device);
  void removeDevice(ObjectID deviceID);
  void setDeviceList(std::vector<ObjectID> deviceIDs);
  std::vector<ObjectID> deviceList() const;
  void setDeviceRunning(ObjectID deviceID, bool running);
  // The value of the system object's screen-capture switch (1 after creation).
  std::optional<std::uint32_t> screenCaptureSwitch() const;

  OSStatus getPropertyDataSize(ObjectID object, const PropertyAddress& address,
                               std::uint32_t qualifierDataSize, const void* qualifierData,
                               std::uint32_t* outDataSize) override;
  OSStatus getPropertyData(ObjectID object, const PropertyAddress& address,
                           std::uint32_t qualifierDataSize, const void* qualifierData,
                           std::uint32_t* ioDataSize, void* outData) override;
  OSStatus setPropertyData(ObjectID object, const PropertyAddress& address,
                           std::uint32_t qualifierDataSize, const void* qualifierData,
                           std::uint32_t dataSize, void* data) override;
  OSStatus addPropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                    std::shared_ptr<DispatchQueue> queue,
                                    PlatformListenerBlockRef block) override;
  OSStatus removePropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                       std::shared_ptr<DispatchQueue> queue,
                                       PlatformListenerBlockRef block) override;

 private:
  SimulatedVideoHardwareService();
  OSStatus badObjectStatus() const override;
  OSStatus unknownPropertyStatus() const override;
  OSStatus badPropertySizeStatus() const override;
  bool isHogModeAddress(const PropertyAddress& address) const override;
};

}  // namespace harkwell
