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
             OptionalText deviceUID, OptionalText modelUID, const py::object& transportType,
             std::uint32_t inputStreams, std::uint32_t outputStreams, bool isRunning,
             std::map<std::uint32_t, OptionalText> inputSources,
             std::optional<std::uint32_t> selectedInputSource, std::int32_t hogModePID,
             const py::iterable& consumers) {
            SimulatedAudioDevice device{
                .deviceID = deviceID,
                .name = std::move(name),
                .deviceUID = std::move(deviceUID),
                .modelUID = std::move(modelUID),
                .transportType = TransportCode(MediaType::Audio, transportType),
                .inputStreamCount = inputStreams,
                .outputStreamCount = outputStreams,
                .isRunning = isRunning,
                .selectedDataSource = selectedInputSource,
                .dataSourceNames = std::move(inputSources),
                .hogModePID = hogModePID,
                .consumers = ConsumersFromPython(consumers)};
            ReleasedGIL released;
            self.addDevice(device);
          },
          py::arg("device_id"), py::arg("name"), py::arg("device_uid"), py::kw_only(),
          py::arg("model_uid") = py::none(), py::arg("transport_type") = py::none(),
          py::arg("input_streams") = 1, py::arg("output_streams") = 0,
          py::arg("is_running") = false,
          py::arg("input_sources") = std::map<std::uint32_t, OptionalText>{},
          py::arg("selected_input_source") = py::none(), py::arg("hog_mode_pid") = -1,
          py::arg("consumers") = py::tuple())
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
             OptionalText deviceUID, OptionalText modelUID, const py::object& transportType,
             std::uint32_t inputStreams, std::uint32_t outputStreams, bool isRunning,
             std::int32_t hogModePID, const py::iterable& consumers) {
            SimulatedVideoDevice device{
                .deviceID = deviceID,
                .name = std::move(name),
                .deviceUID = std::move(deviceUID),
                .modelUID = std::move(modelUID),
                .transportType = TransportCode(MediaType::Video, transportType),
                .inputStreamCount = inputStreams,
                .outputStreamCount = outputStreams,
                .isRunning = isRunning,
                .hogModePID = hogModePID,
                .consumers = ConsumersFromPython(consumers)};
            ReleasedGIL released;
            self.addDevice(device);
          },
          py::arg("device_id"), py::arg("name"), py::arg("device_uid"), py::kw_only(),
          py::arg("model_uid") = py::none(), py::arg("transport_type") = py::none(),
          py::arg("input_streams") = 1, py::arg("output_streams") = 0,
          py::arg("is_running") = false, py::arg("hog_mode_pid") = -1,
          py::arg("consumers") = py::tuple());
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
