#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"

#include <algorithm>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"

namespace harkwell {
namespace {

constexpr PropertyAddress global(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMaster};
}
constexpr PropertyAddress input(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeInput, kAudioObjectPropertyElementMaster};
}
constexpr PropertyAddress output(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeOutput, kAudioObjectPropertyElementMaster};
}

// Stream IDs are not read by the library, only counted; any distinct values serve.
std::vector<std::uint32_t> streamIDs(ObjectID deviceID, std::uint32_t count,
                                     std::uint32_t direction) {
  std::vector<std::uint32_t> ids;
  for (std::uint32_t i = 0; i < count; ++i) ids.push_back(deviceID * 1000 + direction * 100 + i);
  return ids;
}

const PropertyAddress kDeviceList = global(kAudioHardwarePropertyDevices);

// The device-list helpers both services share; the list lives on the system object (1).
std::vector<ObjectID> readDeviceList(const SimulatedObjectGraph& graph) {
  auto value = graph.property(kAudioObjectSystemObject, kDeviceList);
  if (!value) return {};
  return value->asIDList().value_or(std::vector<ObjectID>());
}

void appendToDeviceList(SimulatedObjectGraph& graph, ObjectID deviceID) {
  auto ids = readDeviceList(graph);
  ids.push_back(deviceID);
  graph.setProperty(kAudioObjectSystemObject, kDeviceList, SimulatedPropertyValue::IDList(ids));
}

void removeFromDeviceList(SimulatedObjectGraph& graph, ObjectID deviceID) {
  auto ids = readDeviceList(graph);
  std::erase(ids, deviceID);
  graph.removeObject(deviceID);
  graph.setProperty(kAudioObjectSystemObject, kDeviceList, SimulatedPropertyValue::IDList(ids));
}

void setCommonDeviceProperties(SimulatedObjectGraph& graph, ObjectID id,
                               const std::optional<std::string>& name,
                               const std::optional<std::string>& uid,
                               const std::optional<std::string>& modelUID, std::uint32_t transport,
                               std::uint32_t inputs, std::uint32_t outputs, bool running,
                               std::int32_t hogPID) {
  graph.removeObject(id);
  graph.addObject(id);
  graph.setProperty(id, global(kAudioObjectPropertyName), SimulatedPropertyValue::String(name),
                    false);
  graph.setProperty(id, global(kAudioDevicePropertyDeviceUID), SimulatedPropertyValue::String(uid),
                    false);
  graph.setProperty(id, global(kAudioDevicePropertyModelUID),
                    SimulatedPropertyValue::String(modelUID), false);
  graph.setProperty(id, global(kAudioDevicePropertyTransportType),
                    SimulatedPropertyValue::UInt32(transport), false);
  graph.setProperty(id, input(kAudioDevicePropertyStreams),
                    SimulatedPropertyValue::IDList(streamIDs(id, inputs, 1)), false);
  graph.setProperty(id, output(kAudioDevicePropertyStreams),
                    SimulatedPropertyValue::IDList(streamIDs(id, outputs, 2)), false);
  graph.setProperty(id, global(kAudioDevicePropertyDeviceIsRunningSomewhere),
                    SimulatedPropertyValue::UInt32(running ? 1 : 0), false);
  graph.setProperty(id, global(kAudioDevicePropertyHogMode), SimulatedPropertyValue::Int32(hogPID),
                    false);
}

}  // namespace

// The audio and video codes coincide for every selector and scope used here; the static_asserts
// keep the shared helpers honest.
static_assert(kAudioHardwarePropertyDevices == kCMIOHardwarePropertyDevices);
static_assert(kAudioObjectPropertyScopeInput == kCMIODevicePropertyScopeInput);
static_assert(kAudioObjectPropertyScopeOutput == kCMIODevicePropertyScopeOutput);
static_assert(kAudioDevicePropertyDeviceIsRunningSomewhere ==
              kCMIODevicePropertyDeviceIsRunningSomewhere);

// --- Audio ---------------------------------------------------------------------------------------

SimulatedAudioHardwareService::SimulatedAudioHardwareService() {
  setProperty(kAudioObjectSystemObject, kDeviceList, SimulatedPropertyValue::IDList({}), false);
}

void SimulatedAudioHardwareService::addDevice(const SimulatedAudioDevice& device) {
  setCommonDeviceProperties(*this, device.deviceID, device.name, device.deviceUID, device.modelUID,
                            device.transportType, device.inputStreamCount, device.outputStreamCount,
                            device.isRunning, device.hogModePID);
  if (device.selectedDataSource) {
    setProperty(device.deviceID, input(kAudioDevicePropertyDataSource),
                SimulatedPropertyValue::UInt32(*device.selectedDataSource), false);
    setProperty(device.deviceID, input(kAudioDevicePropertyDataSourceNameForIDCFString),
                SimulatedPropertyValue::TranslationTable(device.dataSourceNames), false);
  }
  appendToDeviceList(*this, device.deviceID);
}

void SimulatedAudioHardwareService::removeDevice(ObjectID deviceID) {
  removeFromDeviceList(*this, deviceID);
}

void SimulatedAudioHardwareService::setDeviceList(std::vector<ObjectID> deviceIDs) {
  setProperty(kAudioObjectSystemObject, kDeviceList,
              SimulatedPropertyValue::IDList(std::move(deviceIDs)));
}

std::vector<ObjectID> SimulatedAudioHardwareService::deviceList() const {
  return readDeviceList(*this);
}

void SimulatedAudioHardwareService::setDeviceRunning(ObjectID deviceID, bool running) {
  setProperty(deviceID, global(kAudioDevicePropertyDeviceIsRunningSomewhere),
              SimulatedPropertyValue::UInt32(running ? 1 : 0));
}

void SimulatedAudioHardwareService::setSelectedDataSource(ObjectID deviceID,
                                                          std::uint32_t dataSource) {
  setProperty(deviceID, input(kAudioDevicePropertyDataSource),
              SimulatedPropertyValue::UInt32(dataSource));
}

OSStatus SimulatedAudioHardwareService::getPropertyDataSize(ObjectID object,
                                                            const PropertyAddress& address,
                                                            std::uint32_t qualifierDataSize,
                                                            const void*,
                                                            std::uint32_t* outDataSize) {
  return handleGetPropertyDataSize(object, address, qualifierDataSize, outDataSize);
}

OSStatus SimulatedAudioHardwareService::getPropertyData(ObjectID object,
                                                        const PropertyAddress& address,
                                                        std::uint32_t qualifierDataSize,
                                                        const void*, std::uint32_t* ioDataSize,
                                                        void* outData) {
  return handleGetPropertyData(object, address, qualifierDataSize, ioDataSize, outData);
}

OSStatus SimulatedAudioHardwareService::setPropertyData(ObjectID object,
                                                        const PropertyAddress& address,
                                                        std::uint32_t qualifierDataSize,
                                                        const void*, std::uint32_t dataSize,
                                                        void* data) {
  return handleSetPropertyData(object, address, qualifierDataSize, dataSize, data);
}

bool SimulatedAudioHardwareService::hasProperty(ObjectID object, const PropertyAddress& address) {
  return handleHasProperty(object, address);
}

OSStatus SimulatedAudioHardwareService::addPropertyListenerBlock(
    ObjectID object, const PropertyAddress& address, std::shared_ptr<DispatchQueue> queue,
    PlatformListenerBlockRef block) {
  return handleAddListener(object, address, std::move(queue), std::move(block));
}

OSStatus SimulatedAudioHardwareService::removePropertyListenerBlock(
    ObjectID object, const PropertyAddress& address, std::shared_ptr<DispatchQueue> queue,
    PlatformListenerBlockRef block) {
  return handleRemoveListener(object, address, std::move(queue), std::move(block));
}

OSStatus SimulatedAudioHardwareService::badObjectStatus() const {
  return kAudioHardwareBadObjectError;
}
OSStatus SimulatedAudioHardwareService::unknownPropertyStatus() const {
  return kAudioHardwareUnknownPropertyError;
}
OSStatus SimulatedAudioHardwareService::badPropertySizeStatus() const {
  return kAudioHardwareBadPropertySizeError;
}
bool SimulatedAudioHardwareService::isHogModeAddress(const PropertyAddress& address) const {
  return address.mSelector == kAudioDevicePropertyHogMode;
}

// --- Video ---------------------------------------------------------------------------------------

SimulatedVideoHardwareService::SimulatedVideoHardwareService() {
  setProperty(kCMIOObjectSystemObject, kDeviceList, SimulatedPropertyValue::IDList({}), false);
  setProperty(kCMIOObjectSystemObject, global(kCMIOHardwarePropertyAllowScreenCaptureDevices),
              SimulatedPropertyValue::UInt32(1), false);
}

void SimulatedVideoHardwareService::addDevice(const SimulatedVideoDevice& device) {
  setCommonDeviceProperties(*this, device.deviceID, device.name, device.deviceUID, device.modelUID,
                            device.transportType, device.inputStreamCount, device.outputStreamCount,
                            device.isRunning, device.hogModePID);
  appendToDeviceList(*this, device.deviceID);
}

void SimulatedVideoHardwareService::removeDevice(ObjectID deviceID) {
  removeFromDeviceList(*this, deviceID);
}

void SimulatedVideoHardwareService::setDeviceList(std::vector<ObjectID> deviceIDs) {
  setProperty(kCMIOObjectSystemObject, kDeviceList,
              SimulatedPropertyValue::IDList(std::move(deviceIDs)));
}

std::vector<ObjectID> SimulatedVideoHardwareService::deviceList() const {
  return readDeviceList(*this);
}

void SimulatedVideoHardwareService::setDeviceRunning(ObjectID deviceID, bool running) {
  setProperty(deviceID, global(kCMIODevicePropertyDeviceIsRunningSomewhere),
              SimulatedPropertyValue::UInt32(running ? 1 : 0));
}

std::optional<std::uint32_t> SimulatedVideoHardwareService::screenCaptureSwitch() const {
  auto value =
      property(kCMIOObjectSystemObject, global(kCMIOHardwarePropertyAllowScreenCaptureDevices));
  if (!value) return std::nullopt;
  return value->asUInt32();
}

OSStatus SimulatedVideoHardwareService::getPropertyDataSize(ObjectID object,
                                                            const PropertyAddress& address,
                                                            std::uint32_t qualifierDataSize,
                                                            const void*,
                                                            std::uint32_t* outDataSize) {
  return handleGetPropertyDataSize(object, address, qualifierDataSize, outDataSize);
}

OSStatus SimulatedVideoHardwareService::getPropertyData(ObjectID object,
                                                        const PropertyAddress& address,
                                                        std::uint32_t qualifierDataSize,
                                                        const void*, std::uint32_t* ioDataSize,
                                                        void* outData) {
  return handleGetPropertyData(object, address, qualifierDataSize, ioDataSize, outData);
}

OSStatus SimulatedVideoHardwareService::setPropertyData(ObjectID object,
                                                        const PropertyAddress& address,
                                                        std::uint32_t qualifierDataSize,
                                                        const void*, std::uint32_t dataSize,
                                                        void* data) {
  return handleSetPropertyData(object, address, qualifierDataSize, dataSize, data);
}

OSStatus SimulatedVideoHardwareService::addPropertyListenerBlock(
    ObjectID object, const PropertyAddress& address, std::shared_ptr<DispatchQueue> queue,
    PlatformListenerBlockRef block) {
  return handleAddListener(object, address, std::move(queue), std::move(block));
}

OSStatus SimulatedVideoHardwareService::removePropertyListenerBlock(
    ObjectID object, const PropertyAddress& address, std::shared_ptr<DispatchQueue> queue,
    PlatformListenerBlockRef block) {
  return handleRemoveListener(object, address, std::move(queue), std::move(block));
}

OSStatus SimulatedVideoHardwareService::badObjectStatus() const {
  return kCMIOHardwareBadObjectError;
}
OSStatus SimulatedVideoHardwareService::unknownPropertyStatus() const {
  return kCMIOHardwareUnknownPropertyError;
}
OSStatus SimulatedVideoHardwareService::badPropertySizeStatus() const {
  return kCMIOHardwareBadPropertySizeError;
}
bool SimulatedVideoHardwareService::isHogModeAddress(const PropertyAddress& address) const {
  return address.mSelector == kCMIODevicePropertyHogMode;
}

}  // namespace harkwell
