// MediaDeviceController for Python, with its queue and the events() iterator.
#include <pybind11/stl.h>

#include <mutex>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "bindings/python/src/Bindings.h"
#include "bindings/python/src/CallbackHub.h"
#include "bindings/python/src/MainLoopServing.h"
#include "bindings/python/src/PythonGate.h"
#include "bindings/python/src/RecordConversion.h"
#include "bindings/python/src/ScenarioDriver.h"

namespace py = pybind11;

namespace harkwell::python {
namespace {

// Every controller made from Python, so the exit hook can stop those still observing.
std::mutex gControllersMutex;
std::vector<std::weak_ptr<MediaDeviceController>>& Controllers() {
  static auto* controllers = new std::vector<std::weak_ptr<MediaDeviceController>>;
  return *controllers;
}

void Remember(const std::shared_ptr<MediaDeviceController>& controller) {
  std::lock_guard<std::mutex> lock(gControllersMutex);
  std::erase_if(Controllers(), [](const auto& held) { return held.expired(); });
  Controllers().push_back(controller);
}

// The Python object: the C++ controller and the hub its handlers lead to.
class PythonController {
 public:
  explicit PythonController(std::shared_ptr<DispatchQueue> queue)
      : controller_(MediaDeviceController::create(std::move(queue))),
        hub_(std::make_shared<CallbackHub>()) {
    auto hub = hub_;
    controller_->setDeviceEventHandler([hub](MediaDeviceEvent event, const MediaDevice& device) {
      hub->deviceEvent(event, device);
    });
    controller_->setUpdatingDevicesHandler(
        [hub](bool finished) { hub->updatingDevices(finished); });
    Remember(controller_);
  }

  const std::shared_ptr<MediaDeviceController>& controller() const { return controller_; }
  const std::shared_ptr<CallbackHub>& hub() const { return hub_; }

  bool observeDevices() const { return controller_->observeDevices(); }
  void setObserveDevices(bool observe) {
    ReleasedGIL released;
    controller_->setObserveDevices(observe);
  }

  py::object callback(CallbackHub::Slot slot) const { return hub_->callback(slot); }
  void setCallback(CallbackHub::Slot slot, py::object callable) {
    hub_->setCallback(slot, std::move(callable));
    updateConsumersHandler();
  }

  // The C++ consumers handler is set only while someone listens: without it the controller reads
  // no consumers at all.
  void updateConsumersHandler() {
    const bool needed = hub_->needsConsumers();
    ReleasedGIL released;
    if (needed == static_cast<bool>(controller_->deviceConsumersHandler())) return;
    if (needed) {
      auto hub = hub_;
      controller_->setDeviceConsumersHandler(
          [hub](const MediaDevice& device, const std::vector<MediaDeviceConsumer>& consumers) {
            hub->deviceConsumers(device, consumers);
          });
    } else {
      controller_->setDeviceConsumersHandler(nullptr);
    }
  }

  template <std::vector<MediaDevice> (MediaDeviceController::*Query)() const>
  py::list devices() const {
    std::vector<MediaDevice> devices;
    {
      ReleasedGIL released;
      devices = (*controller_.*Query)();
    }
    return ToPython(devices);
  }

  py::object consumersOfDevice(const py::handle& device) const {
    const MediaDevice record = DeviceFromPython(device);
    std::optional<std::vector<MediaDeviceConsumer>> consumers;
    {
      ReleasedGIL released;
      consumers = controller_->consumersOfDevice(record);
    }
    if (!consumers) return py::none();
    return ToPython(*consumers);
  }

 private:
  std::shared_ptr<MediaDeviceController> controller_;
  std::shared_ptr<CallbackHub> hub_;
};

// `for event in controller.events(...)`: yields DeviceEvent records (and ConsumersChanged ones
// when asked), ends at its deadline, at the end of a scenario it was given, or at close().
class EventIterator {
 public:
  EventIterator(std::shared_ptr<PythonController> owner, bool consumers,
                std::optional<Clock::time_point> deadline, std::shared_ptr<ScenarioDriver> until)
      : owner_(std::move(owner)),
        stream_(std::make_shared<EventStream>(consumers)),
        deadline_(deadline),
        until_(std::move(until)) {
    owner_->hub()->addStream(stream_);
    if (consumers) owner_->updateConsumersHandler();
    // Started here, the stream sees the initial discovery.
    if (!owner_->observeDevices()) owner_->setObserveDevices(true);
  }

  // An iteration dropped without close() stops collecting events.
  ~EventIterator() { close(); }
  EventIterator(const EventIterator&) = delete;
  EventIterator& operator=(const EventIterator&) = delete;

  py::object next() {
    for (;;) {
      if (stream_->isClosed()) throw py::stop_iteration();
      if (auto item = stream_->take()) {
        if (item->kind == StreamItem::Kind::DeviceEvent) {
          return DeviceEventToPython(item->event, item->device);
        }
        return ConsumersChangedToPython(item->device, item->consumers);
      }
      if (until_ && until_->finished()) {
        close();
        continue;
      }
      const auto stream = stream_;
      const auto until = until_;
      const bool ready = ServeUntil(
          [stream, until] {
            return stream->hasItems() || stream->isClosed() || (until && until->finished());
          },
          deadline_, stream_->wakeFileDescriptor());
      if (!ready) close();
    }
  }

  // Any thread, a callback included; the iteration ends at its next step.
  void close() {
    if (stream_->isClosed()) return;
    stream_->close();
    owner_->hub()->removeStream(*stream_);
    if (stream_->wantsConsumers()) owner_->updateConsumersHandler();
  }

  bool isClosed() const { return stream_->isClosed(); }

 private:
  std::shared_ptr<PythonController> owner_;
  std::shared_ptr<EventStream> stream_;
  std::optional<Clock::time_point> deadline_;
  std::shared_ptr<ScenarioDriver> until_;
};

using Slot = CallbackHub::Slot;

template <Slot slot>
void BindCallback(py::class_<PythonController, std::shared_ptr<PythonController>>& controller,
                  const char* name, const char* doc) {
  controller.def_property(
      name, [](const PythonController& self) { return self.callback(slot); },
      [](PythonController& self, py::object callable) {
        self.setCallback(slot, std::move(callable));
      },
      doc);
}

}  // namespace

void StopAllControllers() {
  std::vector<std::shared_ptr<MediaDeviceController>> live;
  {
    std::lock_guard<std::mutex> lock(gControllersMutex);
    for (const auto& held : Controllers()) {
      if (auto controller = held.lock()) live.push_back(std::move(controller));
    }
  }
  ReleasedGIL released;
  for (const auto& controller : live) controller->setObserveDevices(false);
}

void BindController(py::module_& module) {
  py::class_<DispatchQueue, std::shared_ptr<DispatchQueue>>(
      module, "DispatchQueue",
      "A serial queue: work runs one item at a time, in order, on a thread of its own.")
      .def(
          py::init([](std::string label) { return DispatchQueue::createSerial(std::move(label)); }),
          py::arg("label"))
      .def_property_readonly("label", &DispatchQueue::label)
      .def("is_current", &DispatchQueue::isCurrent,
           "Whether the calling thread is running this queue's work now.")
      .def(
          "post",
          [](DispatchQueue& queue, py::object work) {
            if (!PyCallable_Check(work.ptr())) throw py::type_error("work must be callable");
            auto held = std::make_shared<SharedPythonObject>(std::move(work));
            queue.async([held] {
              PythonGate::runWithGIL([&] { held->get()(); }, "harkwell DispatchQueue.post");
            });
          },
          py::arg("work"),
          "Queues work() to run on the queue (with the GIL) and returns at once. An exception it "
          "raises goes to sys.unraisablehook.")
      .def("__repr__", [](const DispatchQueue& queue) {
        return "<harkwell.DispatchQueue " + py::repr(py::str(queue.label())).cast<std::string>() +
               ">";
      });

  py::class_<EventIterator, std::shared_ptr<EventIterator>>(
      module, "EventIterator",
      "What controller.events() returns: DeviceEvent records (and ConsumersChanged ones when "
      "asked for) until its timeout, the end of its scenario, or close().")
      .def("__iter__", [](const std::shared_ptr<EventIterator>& self) { return self; })
      .def("__next__", &EventIterator::next)
      .def("close", &EventIterator::close, "Ends the iteration; any thread may call it.")
      .def_property_readonly("closed", &EventIterator::isClosed)
      .def("__enter__", [](const std::shared_ptr<EventIterator>& self) { return self; })
      .def("__exit__", [](EventIterator& self, const py::args&) { self.close(); });

  py::class_<PythonController, std::shared_ptr<PythonController>> controller(
      module, "MediaDeviceController",
      "Watches every audio and video device while observe_devices is True. Its handlers run on "
      "device_event_handler_queue (the process-wide default queue unless one is given). While "
      "observing it keeps itself alive, and goes on calling its handlers, after Python drops it.");
  controller
      .def(py::init([](std::shared_ptr<DispatchQueue> queue) {
             return std::make_shared<PythonController>(std::move(queue));
           }),
           py::arg("device_event_handler_queue") = nullptr)
      .def_static(
          "default_device_event_handler_queue",
          [] { return MediaDeviceController::defaultDeviceEventHandlerQueue(); },
          "The process-wide serial queue of controllers made without one.")
      .def_property_readonly(
          "device_event_handler_queue",
          [](const PythonController& self) { return self.controller()->deviceEventHandlerQueue(); })
      .def_property("observe_devices", &PythonController::observeDevices,
                    &PythonController::setObserveDevices)
      .def_property_readonly("connected_devices",
                             &PythonController::devices<&MediaDeviceController::connectedDevices>)
      .def_property_readonly(
          "connected_input_devices",
          &PythonController::devices<&MediaDeviceController::connectedInputDevices>)
      .def_property_readonly(
          "connected_supported_devices",
          &PythonController::devices<&MediaDeviceController::connectedSupportedDevices>)
      .def("consumers_of_device", &PythonController::consumersOfDevice, py::arg("device"))
      .def_property_readonly(
          "_open_event_streams_for_testing",
          [](const PythonController& self) { return self.hub()->streamCountForTesting(); })
      .def(
          "events",
          [](const std::shared_ptr<PythonController>& self, std::optional<double> timeout,
             bool consumers, std::shared_ptr<ScenarioDriver> until) {
            return std::make_shared<EventIterator>(self, consumers, DeadlineAfter(timeout),
                                                   std::move(until));
          },
          py::arg("timeout") = py::none(), py::kw_only(), py::arg("consumers") = false,
          py::arg("until") = nullptr);
  BindCallback<Slot::DeviceEvent>(controller, "device_event_handler",
                                  "Called as handler(event, device) on the controller's queue.");
  BindCallback<Slot::UpdatingDevices>(
      controller, "updating_devices_handler",
      "Called as handler(finished) on the controller's queue around every re-read device list.");
  BindCallback<Slot::DeviceConsumers>(
      controller, "device_consumers_handler",
      "Called as handler(device, consumers) on the controller's queue when a device's consumers "
      "change.");
}

}  // namespace harkwell::python
