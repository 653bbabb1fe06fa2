// Scenario files (the harkwell program's format) for Python programs.
#include <pybind11/stl.h>

#include <variant>

#include "bindings/python/src/Bindings.h"
#include "bindings/python/src/PythonGate.h"
#include "bindings/python/src/ScenarioDriver.h"
#include "tools/harkwell/Scenario.h"

namespace py = pybind11;

namespace harkwell::python {

void BindScenario(py::module_& module) {
  static py::exception<std::runtime_error> scenarioError(module, "ScenarioError", PyExc_ValueError);

  py::class_<ScenarioDriver, std::shared_ptr<ScenarioDriver>>(
      module, "Scenario",
      "Simulated devices and timed changes from a scenario file (see the README).")
      .def_static(
          "load",
          [](const std::string& path) {
            auto loaded = cli::LoadScenarioFile(path);
            if (const auto* error = std::get_if<cli::ScenarioError>(&loaded)) {
              PyErr_SetString(scenarioError.ptr(), error->text().c_str());
              throw py::error_already_set();
            }
            auto audio = SimulatedAudioHardwareService::create();
            auto video = SimulatedVideoHardwareService::create();
            audio->setRecordingCalls(false);
            video->setRecordingCalls(false);
            ReleasedGIL released;
            InstallAudioHardwareService(audio);
            InstallVideoHardwareService(video);
            return std::make_shared<ScenarioDriver>(std::get<cli::Scenario>(std::move(loaded)),
                                                    audio, video);
          },
          py::arg("path"),
          "Reads the file, installs fresh simulated services with its starting devices and "
          "returns the scenario, not yet started. A file that does not load raises ScenarioError "
          "naming the file, line and column.")
      .def_property_readonly("audio_service", &ScenarioDriver::audio)
      .def_property_readonly("video_service", &ScenarioDriver::video)
      .def(
          "start",
          [](ScenarioDriver& self, const py::object& controller) {
            auto queue = controller.attr("device_event_handler_queue")
                             .cast<std::shared_ptr<DispatchQueue>>();
            if (!self.start(std::move(queue))) {
              throw py::value_error("this scenario has already started");
            }
          },
          py::arg("controller"),
          "Starts the steps' clock once the controller has handled what it has queued now (its "
          "initial discovery, when observation was just switched on). The steps are applied while "
          "the main thread waits in run_main_loop() or in an events() iteration.")
      .def_property_readonly("started", &ScenarioDriver::started)
      .def_property_readonly("finished", &ScenarioDriver::finished,
                             "Every step applied and handled by the controller.");
}

}  // namespace harkwell::python
