#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"

#include <algorithm>

// One set of helpers fills audio and video devices alike.
#include "HarkwellFoundation/Platform/DeviceConsumerCoding.h"
#include "HarkwellFoundation/Platform/SharedHardwareCodes.h"

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

void setCommonDeviceProperties(SimulatedObjectGraph& graph, ObjectID id,
                               const std::optional<std::string>& name,
                               const std::optional<std::string>& uid,
                               const std::optional<std::string>& modelUID, std::uint32_t transport,
                               std::uint32_t inputs, std::uint32_t outputs, bool running,
                               std::int32_t hogPID,
                               const std::vector<MediaDeviceConsumer>& consumers) {
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
  graph.setProperty(id, global(kAudioDevicePropertyConsumers),
                    SimulatedPropertyValue::Bytes(EncodeDeviceConsumers(consumers)), false);
}

}  // namespace

// --- Both media types ----------------------------------------------------------------------------

template <class ServiceInterface>
SimulatedHardwareService<ServiceInterface>::SimulatedHardwareService() {
  setProperty(kAudioObjectSystemObject, kDeviceList, SimulatedPropertyValue::IDList({}), false);
}

template <class ServiceInterface>
void SimulatedHardwareService<ServiceInterface>::removeDevice(ObjectID deviceID) {
  auto ids = deviceList();
  std::erase(ids, deviceID);
  removeObject(deviceID);
  setDeviceList(std::move(ids));
}

template <class ServiceInterface>
void SimulatedHardwareService<ServiceInterface>::setDeviceList(std::vector<ObjectID> deviceIDs) {
  setProperty(kAudioObjectSystemObject, kDeviceList,
              SimulatedPropertyValue::IDList(std::move(deviceIDs)));
}

template <class ServiceInterface>
std::vector<ObjectID> SimulatedHardwareService<ServiceInterface>::deviceList() const {
  auto value = property(kAudioObjectSystemObject, kDeviceList);
  if (!value) return {};
  return value->asIDList().value_or(std::vector<ObjectID>());
}

template <class ServiceInterface>
void SimulatedHardwareService<ServiceInterface>::setDeviceRunning(ObjectID deviceID, bool running) {
  setProperty(deviceID, global(kAudioDevicePropertyDeviceIsRunningSomewhere),
              SimulatedPropertyValue::UInt32(running ? 1 : 0));
}

template <class ServiceInterface>
void SimulatedHardwareService<ServiceInterface>::setDeviceConsumers(
    ObjectID deviceID, const std::vector<MediaDeviceConsumer>& consumers) {
  setProperty(deviceID, global(kAudioDevicePropertyConsumers),
              SimulatedPropertyValue::Bytes(EncodeDeviceConsumers(consumers)));
}

template class SimulatedHardwareService<AudioHardwareService>;
template class SimulatedHardwareService<VideoHardwareService>;

// --- Audio ---------------------------------------------------------------------------------------

void SimulatedAudioHardwareService::addDevice(const SimulatedAudioDevice& device) {
  setCommonDeviceProperties(*this, device.deviceID, device.name, device.deviceUID, device.modelUID,
                            device.transportType, device.inputStreamCount, device.outputStreamCount,
                            device.isRunning, device.hogModePID, device.consumers);
  if (device.selectedDataSource) {
    setProperty(device.deviceID, input(kAudioDevicePropertyDataSource),
                SimulatedPropertyValue::UInt32(*device.selectedDataSource), false);
    setProperty(device.deviceID, input(kAudioDevicePropertyDataSourceNameForIDCFString),
                SimulatedPropertyValue::TranslationTable(device.dataSourceNames), false);
  }
  auto ids = deviceList();
  ids.push_back(device.deviceID);
  setDeviceList(std::move(ids));
}

void SimulatedAudioHardwareService::setSelectedDataSource(ObjectID deviceID,
                                                          std::uint32_t dataSource) {
  setProperty(deviceID, input(kAudioDevicePropertyDataSource),
              SimulatedPropertyValue::UInt32(dataSource));
}

// --- Video ---------------------------------------------------------------------------------------

SimulatedVideoHardwareService::SimulatedVideoHardwareService() {
  setProperty(kCMIOObjectSystemObject, global(kCMIOHardwarePropertyAllowScreenCaptureDevices),
              SimulatedPropertyValue::UInt32(1), false);
}

void SimulatedVideoHardwareService::addDevice(const SimulatedVideoDevice& device) {
  setCommonDeviceProperties(*this, device.deviceID, device.name, device.deviceUID, device.modelUID,
                            device.transportType, device.inputStreamCount, device.outputStreamCount,
                            device.isRunning, device.hogModePID, device.consumers);
  auto ids = deviceList();
  ids.push_back(device.deviceID);
  setDeviceList(std::move(ids));
}

std::optional<std::uint32_t> SimulatedVideoHardwareService::screenCaptureSwitch() const {
  auto value =
      property(kCMIOObjectSystemObject, global(kCMIOHardwarePropertyAllowScreenCaptureDevices));
  if (!value) return std::nullopt;
  return value->asUInt32();
}

}  // namespace harkwell
