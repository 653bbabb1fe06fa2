// The simulated services for Python, and installing the process-wide services.
#include <pybind11/stl.h>

#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "bindings/python/src/Bindings.h"
#include "bindings/python/src/PythonGate.h"
#include "bindings/python/src/RecordConversion.h"
#include "tools/harkwell/Scenario.h"

namespace py = pybind11;

namespace harkwell::python {
namespace {

using OptionalText = std::optional<std::string>;

std::uint32_t TransportCode(MediaType mediaType, const py::handle& transport) {
  // None is Unknown.
  const auto value = transport.is_none() ? MediaDeviceTransportType::Unknown
                                         : EnumFromPython<MediaDeviceTransportType>(transport);
  const auto code = cli::TransportCodeFor(mediaType, value);
  if (!code) {
    throw py::value_error(std::string(caseName(mediaType)) + " devices have no transport " +
                          std::string(caseName(value)));
  }
  return *code;
}

// The keyword `name` taken out of `fields`, or `otherwise` when it is not there.
template <class T>
T Take(py::dict& fields, const char* name, T otherwise) {
  if (!fields.contains(name)) return otherwise;
  return fields.attr("pop")(name).template cast<T>();
}

void RefuseOthers(const py::dict& fields) {
  for (const auto& [name, value] : fields) {
    throw py::type_error("add_device() got an unexpected keyword argument '" +
                         name.cast<std::string>() + "'");
  }
}

// A device of either media type with the fields they share, taken out of `fields`.
template <class Device>
Device DeviceFromFields(MediaType mediaType, ObjectID deviceID, OptionalText name,
                        OptionalText deviceUID, py::dict& fields) {
  Device device;
  device.deviceID = deviceID;
  device.name = std::move(name);
  device.deviceUID = std::move(deviceUID);
  device.modelUID = Take(fields, "model_uid", OptionalText());
  device.transportType =
      TransportCode(mediaType, Take(fields, "transport_type", py::object(py::none())));
  device.inputStreamCount = Take(fields, "input_streams", std::uint32_t{1});
  device.outputStreamCount = Take(fields, "output_streams", std::uint32_t{0});
  device.isRunning = Take(fields, "is_running", false);
  device.hogModePID = Take(fields, "hog_mode_pid", std::int32_t{-1});
  device.consumers = ConsumersFromPython(Take(fields, "consumers", py::object(py::tuple())));
  return device;
}

// Python has no use for the services' record of every call, which would only grow.
template <class Service>
std::shared_ptr<Service> MakeService() {
  auto service = Service::create();
  service->setRecordingCalls(false);
  return service;
}

void InstallService(const std::shared_ptr<SimulatedAudioHardwareService>& service) {
  InstallAudioHardwareService(service);
}
void InstallService(const std::shared_ptr<SimulatedVideoHardwareService>& service) {
  InstallVideoHardwareService(service);
}

// The calls shared by both services; each notifies on the listeners' queues and returns, so the
// GIL is released only for form's sake.
template <class Service, class Class>
void BindCommon(Class& service) {
  service
      .def(
          "remove_device",
          [](Service& self, ObjectID deviceID) {
            ReleasedGIL released;
            self.removeDevice(deviceID);
          },
          py::arg("device_id"))
      .def(
          "set_device_running",
          [](Service& self, ObjectID deviceID, bool running) {
            ReleasedGIL released;
            self.setDeviceRunning(deviceID, running);
          },
          py::arg("device_id"), py::arg("running"))
      .def(
          "set_device_consumers",
          [](Service& self, ObjectID deviceID, const py::iterable& consumers) {
            auto list = ConsumersFromPython(consumers);
            ReleasedGIL released;
            self.setDeviceConsumers(deviceID, list);
          },
          py::arg("device_id"), py::arg("consumers"))
      .def_property_readonly("device_ids", &Service::deviceList,
                             "The IDs in the service's device list, in its order.")
      .def(
          "install", [](const std::shared_ptr<Service>& self) { InstallService(self); },
          "Makes this the process-wide service of its media type.");
}

}  // namespace

void BindSimulatedServices(py::module_& module) {
  py::class_<SimulatedAudioHardwareService, std::shared_ptr<SimulatedAudioHardwareService>> audio(
      module, "SimulatedAudioService",
      "In-memory microphones and speakers; install() makes the library use them.");
  audio.def(py::init([] { return MakeService<SimulatedAudioHardwareService>(); }))
      .def(
          "add_device",
          [](SimulatedAudioHardwareService& self, ObjectID deviceID, OptionalText name,
             OptionalText deviceUID, const py::kwargs& keywords) {
            py::dict fields(keywords);
            auto device = DeviceFromFields<SimulatedAudioDevice>(
                MediaType::Audio, deviceID, std::move(name), std::move(deviceUID), fields);
            device.dataSourceNames =
                Take(fields, "input_sources", std::map<std::uint32_t, OptionalText>{});
            device.selectedDataSource =
                Take(fields, "selected_input_source", std::optional<std::uint32_t>());
            RefuseOthers(fields);
            ReleasedGIL released;
            self.addDevice(device);
          },
          py::arg("device_id"), py::arg("name"), py::arg("device_uid"),
          "Adds a device and notifies the device list. Keywords, all optional: model_uid, "
          "transport_type (a MediaDeviceTransportType), input_streams (1), output_streams (0), "
          "is_running, hog_mode_pid (-1), consumers, input_sources ({id: name}) and "
          "selected_input_source (without it the device has no input sources).")
      .def(
          "set_selected_input_source",
          [](SimulatedAudioHardwareService& self, ObjectID deviceID, std::uint32_t source) {
            ReleasedGIL released;
            self.setSelectedDataSource(deviceID, source);
          },
          py::arg("device_id"), py::arg("source"));
  BindCommon<SimulatedAudioHardwareService>(audio);

  py::class_<SimulatedVideoHardwareService, std::shared_ptr<SimulatedVideoHardwareService>> video(
      module, "SimulatedVideoService", "In-memory cameras; install() makes the library use them.");
  video.def(py::init([] { return MakeService<SimulatedVideoHardwareService>(); }))
      .def(
          "add_device",
          [](SimulatedVideoHardwareService& self, ObjectID deviceID, OptionalText name,
             OptionalText deviceUID, const py::kwargs& keywords) {
            py::dict fields(keywords);
            auto device = DeviceFromFields<SimulatedVideoDevice>(
                MediaType::Video, deviceID, std::move(name), std::move(deviceUID), fields);
            RefuseOthers(fields);
            ReleasedGIL released;
            self.addDevice(device);
          },
          py::arg("device_id"), py::arg("name"), py::arg("device_uid"),
          "Adds a camera and notifies the device list. Keywords, all optional: model_uid, "
          "transport_type (a MediaDeviceTransportType), input_streams (1), output_streams (0), "
          "is_running, hog_mode_pid (-1) and consumers.");
  BindCommon<SimulatedVideoHardwareService>(video);

  module.def(
      "use_default_services",
      [] {
        ReleasedGIL released;
        InstallAudioHardwareService(MakeDefaultAudioHardwareService());
        InstallVideoHardwareService(MakeDefaultVideoHardwareService());
      },
      "Goes back to the computer's own devices (PipeWire or PulseAudio, and V4L2).");
}

}  // namespace harkwell::python
