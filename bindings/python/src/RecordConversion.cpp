#include "bindings/python/src/RecordConversion.h"

#include <pybind11/stl.h>

#include <optional>
#include <string>

namespace py = pybind11;

namespace harkwell::python {
namespace {

// The package's classes, and each enumeration's members by ordinal. Never destroyed: it holds
// Python objects, which must not be dropped after the interpreter is gone.
struct RecordTypes {
  py::object mediaDevice;
  py::object mediaDeviceConsumer;
  py::object hogMode;
  py::object deviceEvent;
  py::object consumersChanged;
  std::vector<py::object> mediaTypes;
  std::vector<py::object> transportTypes;
  std::vector<py::object> events;
  std::vector<py::object> unsupportedReasons;
  std::vector<py::object> consumerKinds;
  std::vector<py::object> sandboxes;
  std::vector<py::object> hogModeKinds;
};

RecordTypes* gTypes = nullptr;

const RecordTypes& Types() {
  if (gTypes == nullptr) throw std::runtime_error("harkwell._records has not been loaded");
  return *gTypes;
}

std::vector<py::object> Members(const py::object& enumeration) {
  std::vector<py::object> members;
  for (const auto& member : enumeration)
    members.push_back(py::reinterpret_borrow<py::object>(member));
  for (std::size_t i = 0; i < members.size(); ++i) {
    if (members[i].attr("value").cast<std::size_t>() != i) {
      throw std::runtime_error("a harkwell enumeration is not in ordinal order");
    }
  }
  return members;
}

template <class E>
py::object Member(const std::vector<py::object>& members, E value) {
  return members.at(static_cast<std::size_t>(value));
}

py::object OptionalText(const std::optional<std::string>& text) {
  return text ? py::object(py::str(*text)) : py::object(py::none());
}

std::optional<std::string> OptionalTextFrom(const py::handle& value) {
  if (value.is_none()) return std::nullopt;
  return value.cast<std::string>();
}

}  // namespace

void UseRecordTypes(const py::module_& records) {
  auto* types = new RecordTypes;
  types->mediaDevice = records.attr("MediaDevice");
  types->mediaDeviceConsumer = records.attr("MediaDeviceConsumer");
  types->hogMode = records.attr("MediaDeviceHogMode");
  types->deviceEvent = records.attr("DeviceEvent");
  types->consumersChanged = records.attr("ConsumersChanged");
  types->mediaTypes = Members(records.attr("MediaType"));
  types->transportTypes = Members(records.attr("MediaDeviceTransportType"));
  types->events = Members(records.attr("MediaDeviceEvent"));
  types->unsupportedReasons = Members(records.attr("MediaDeviceUnsupportedReason"));
  types->consumerKinds = Members(records.attr("MediaDeviceConsumerKind"));
  types->sandboxes = Members(records.attr("MediaDeviceConsumerSandbox"));
  types->hogModeKinds = Members(records.attr("MediaDeviceHogMode").attr("Kind"));
  // A second import (a reloaded package) replaces the classes; the old ones stay referenced.
  gTypes = types;
}

py::object ToPython(MediaType value) {
  return Member(Types().mediaTypes, value);
}

py::object ToPython(MediaDeviceEvent value) {
  return Member(Types().events, value);
}

py::object ToPython(const MediaDevice& device) {
  const auto& types = Types();
  return types.mediaDevice(
      device.deviceID, Member(types.mediaTypes, device.mediaType), device.deviceUID,
      OptionalText(device.modelUID), Member(types.transportTypes, device.transportType),
      device.name, OptionalText(device.inputSourceName), device.inputChannelCount,
      device.outputChannelCount, device.isConnected, device.isRunning,
      device.unsupportedReason ? Member(types.unsupportedReasons, *device.unsupportedReason)
                               : py::object(py::none()));
}

py::object ToPython(const MediaDeviceConsumer& consumer) {
  const auto& types = Types();
  return types.mediaDeviceConsumer(
      consumer.processID, consumer.isProcessIDVerified, OptionalText(consumer.executablePath),
      OptionalText(consumer.processName), OptionalText(consumer.applicationName),
      OptionalText(consumer.applicationID), Member(types.sandboxes, consumer.sandbox),
      OptionalText(consumer.sandboxApplicationID), Member(types.consumerKinds, consumer.kind),
      ToPython(consumer.feeds));
}

py::tuple ToPython(const std::vector<MediaDeviceConsumer>& consumers) {
  py::tuple result(consumers.size());
  for (std::size_t i = 0; i < consumers.size(); ++i) result[i] = ToPython(consumers[i]);
  return result;
}

py::list ToPython(const std::vector<MediaDevice>& devices) {
  py::list result;
  for (const auto& device : devices) result.append(ToPython(device));
  return result;
}

py::object ToPython(const MediaDeviceHogMode& mode) {
  const auto& types = Types();
  const auto pid = mode.otherProcessPID();
  return types.hogMode(Member(types.hogModeKinds, mode.kind()),
                       pid ? py::object(py::int_(*pid)) : py::object(py::none()));
}

py::object DeviceEventToPython(MediaDeviceEvent event, const MediaDevice& device) {
  return Types().deviceEvent(ToPython(event), ToPython(device));
}

py::object ConsumersChangedToPython(const MediaDevice& device,
                                    const std::vector<MediaDeviceConsumer>& consumers) {
  return Types().consumersChanged(ToPython(device), ToPython(consumers));
}

int OrdinalFromPython(const py::handle& member) {
  if (!py::hasattr(member, "value")) {
    throw py::type_error("expected a harkwell enumeration member, got " +
                         std::string(py::str(py::type::handle_of(member))));
  }
  return member.attr("value").cast<int>();
}

MediaDevice DeviceFromPython(const py::handle& device) {
  MediaDevice out;
  out.deviceID = device.attr("device_id").cast<std::uint32_t>();
  out.mediaType = EnumFromPython<MediaType>(device.attr("media_type"));
  out.deviceUID = device.attr("device_uid").cast<std::string>();
  out.modelUID = OptionalTextFrom(device.attr("model_uid"));
  out.transportType = EnumFromPython<MediaDeviceTransportType>(device.attr("transport_type"));
  out.name = device.attr("name").cast<std::string>();
  out.inputSourceName = OptionalTextFrom(device.attr("input_source_name"));
  out.inputChannelCount = device.attr("input_channel_count").cast<std::uint64_t>();
  out.outputChannelCount = device.attr("output_channel_count").cast<std::uint64_t>();
  out.isConnected = device.attr("is_connected").cast<bool>();
  out.isRunning = device.attr("is_running").cast<bool>();
  const py::object reason = device.attr("unsupported_reason");
  if (!reason.is_none()) {
    out.unsupportedReason = EnumFromPython<MediaDeviceUnsupportedReason>(reason);
  }
  return out;
}

MediaDeviceConsumer ConsumerFromPython(const py::handle& consumer) {
  MediaDeviceConsumer out;
  out.processID = consumer.attr("process_id").cast<std::int32_t>();
  out.isProcessIDVerified = consumer.attr("is_process_id_verified").cast<bool>();
  out.executablePath = OptionalTextFrom(consumer.attr("executable_path"));
  out.processName = OptionalTextFrom(consumer.attr("process_name"));
  out.applicationName = OptionalTextFrom(consumer.attr("application_name"));
  out.applicationID = OptionalTextFrom(consumer.attr("application_id"));
  out.sandbox = EnumFromPython<MediaDeviceConsumerSandbox>(consumer.attr("sandbox"));
  out.sandboxApplicationID = OptionalTextFrom(consumer.attr("sandbox_application_id"));
  out.kind = EnumFromPython<MediaDeviceConsumerKind>(consumer.attr("kind"));
  out.feeds = ConsumersFromPython(consumer.attr("feeds"));
  return out;
}

std::vector<MediaDeviceConsumer> ConsumersFromPython(const py::handle& consumers) {
  std::vector<MediaDeviceConsumer> out;
  for (const auto& consumer : consumers) out.push_back(ConsumerFromPython(consumer));
  return out;
}

}  // namespace harkwell::python
