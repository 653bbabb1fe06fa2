// The extension module harkwell._harkwell. The package (harkwell/__init__.py) is its public face:
// it defines the records and enumerations, hands them to this module and re-exports the rest.
#include <pybind11/functional.h>
#include <pybind11/stl.h>

#include "HarkwellFoundation/Host/ComputerModelIdentifier.h"
#include "HarkwellFoundation/Model/MediaDeviceHogMode.h"
#include "HarkwellFoundation/Model/MediaEnumerations.h"
#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "HarkwellFoundation/Platform/SystemLog.h"
#include "bindings/python/src/Bindings.h"
#include "bindings/python/src/MainLoopServing.h"
#include "bindings/python/src/PythonGate.h"
#include "bindings/python/src/RecordConversion.h"
#include "bindings/python/src/ScenarioDriver.h"

namespace py = pybind11;

namespace harkwell::python {
namespace {

template <class E>
py::list CaseNames() {
  py::list names;
  for (const auto name : detail::CaseNames<E>::names)
    names.append(py::str(name.data(), name.size()));
  return names;
}

void RequireMainThread(const char* what) {
  if (!IsMainThread())
    throw std::runtime_error(std::string(what) + " runs on the main thread only");
}

// The library's log lines to a Python callable, on whatever thread logs.
void SetLogHandler(py::object handler) {
  if (handler.is_none()) {
    ReleasedGIL released;
    InstallLogSink(nullptr);
    return;
  }
  auto held = std::make_shared<SharedPythonObject>(std::move(handler));
  ReleasedGIL released;
  InstallLogSink([held](std::string_view line) {
    PythonGate::runWithGIL([&] { held->get()(py::str(line.data(), line.size())); },
                           "harkwell log handler");
  });
}

}  // namespace
}  // namespace harkwell::python

PYBIND11_MODULE(_harkwell, module) {
  using namespace harkwell;
  using namespace harkwell::python;
  module.doc() = "HarkwellFoundation's library, as the harkwell package uses it";

  module.def("_use_record_types", &UseRecordTypes, py::arg("records"));
  module.def("_case_names", [] {
    py::dict names;
    names["MediaType"] = CaseNames<MediaType>();
    names["MediaDeviceTransportType"] = CaseNames<MediaDeviceTransportType>();
    names["MediaDeviceEvent"] = CaseNames<MediaDeviceEvent>();
    names["MediaDeviceUnsupportedReason"] = CaseNames<MediaDeviceUnsupportedReason>();
    names["MediaDeviceConsumerKind"] = CaseNames<MediaDeviceConsumerKind>();
    names["MediaDeviceConsumerSandbox"] = CaseNames<MediaDeviceConsumerSandbox>();
    return names;
  });
  module.def("_shutdown", [] {
    StopAllControllers();
    PythonGate::close();
  });

  // Exclusive access, for MediaDevice's methods; every call goes to the platform (on Linux, the
  // session bus, up to a second), so the GIL is released.
  module.def("_enable_hog_mode", [](const py::handle& device) {
    const MediaDevice record = DeviceFromPython(device);
    ReleasedGIL released;
    return record.enableHogMode();
  });
  module.def("_disable_hog_mode", [](const py::handle& device) {
    const MediaDevice record = DeviceFromPython(device);
    ReleasedGIL released;
    return record.disableHogMode();
  });
  module.def("_current_hog_mode", [](const py::handle& device) {
    const MediaDevice record = DeviceFromPython(device);
    std::optional<MediaDeviceHogMode> mode;
    {
      ReleasedGIL released;
      mode = record.currentHogMode();
    }
    return ToPython(*mode);
  });
  module.def("_hog_mode_for_pid",
             [](std::int32_t pid) { return ToPython(MediaDeviceHogMode(pid)); });
  module.def("_consumer_reaches_application", [](const py::handle& consumer) {
    return MediaDeviceConsumerReachesApplication(ConsumerFromPython(consumer));
  });
  module.def("_unsupported_reason_ordinal",
             [](std::uint64_t inputs, std::uint64_t outputs) -> std::optional<int> {
               const auto reason = MediaDeviceUnsupportedReasonForChannelCounts(inputs, outputs);
               if (!reason) return std::nullopt;
               return static_cast<int>(*reason);
             });

  module.def(
      "computer_model_identifier",
      [] {
        ReleasedGIL released;
        return ComputerModelIdentifier();
      },
      "The computer's model identifier, or None when it cannot be read.");

  module.def(
      "run_main_loop",
      [](std::optional<double> seconds, std::shared_ptr<ScenarioDriver> until) {
        RequireMainThread("run_main_loop()");
        const auto deadline = DeadlineAfter(seconds);
        ServeUntil([until] { return until && until->finished(); }, deadline, -1);
      },
      py::arg("seconds") = py::none(), py::kw_only(), py::arg("until") = nullptr,
      "Serves the library's main run loop on the main thread for `seconds` (None: until "
      "interrupted), or until the scenario `until` has finished.");
  module.def(
      "main_loop_file_descriptor", [] { return MainRunLoop::shared().fileDescriptor(); },
      "A descriptor that turns readable when the main run loop has work; for a program with its "
      "own event loop, which then calls perform_main_loop_work().");
  module.def(
      "perform_main_loop_work",
      [] {
        RequireMainThread("perform_main_loop_work()");
        ReleasedGIL released;
        MainRunLoop::shared().performDueWork();
        ScenarioDriver::PlayDueSteps(Clock::now());
      },
      "Runs the main run loop's due work (and due scenario steps) without waiting.");
  module.def("set_log_handler", &SetLogHandler, py::arg("handler"),
             "Sends the library's log lines (one per failed platform call) to handler(line), on "
             "the thread that logs; None goes back to stderr.");

  BindController(module);
  BindSimulatedServices(module);
  BindScenario(module);
}
