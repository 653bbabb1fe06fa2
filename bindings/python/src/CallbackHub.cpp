#include "bindings/python/src/CallbackHub.h"

#include <algorithm>

#include "bindings/python/src/RecordConversion.h"

namespace py = pybind11;

namespace harkwell::python {

SharedPythonObject& CallbackHub::object(Slot slot) {
  switch (slot) {
    case Slot::DeviceEvent:
      return deviceEventCallback_;
    case Slot::UpdatingDevices:
      return updatingDevicesCallback_;
    case Slot::DeviceConsumers:
      break;
  }
  return deviceConsumersCallback_;
}

const SharedPythonObject& CallbackHub::object(Slot slot) const {
  return const_cast<CallbackHub*>(this)->object(slot);
}

std::atomic<bool>& CallbackHub::isSet(Slot slot) {
  switch (slot) {
    case Slot::DeviceEvent:
      return deviceEventSet_;
    case Slot::UpdatingDevices:
      return updatingDevicesSet_;
    case Slot::DeviceConsumers:
      break;
  }
  return deviceConsumersSet_;
}

py::object CallbackHub::callback(Slot slot) const {
  const auto& held = object(slot).get();
  return held ? held : py::object(py::none());
}

void CallbackHub::setCallback(Slot slot, py::object callable) {
  if (!callable.is_none() && !PyCallable_Check(callable.ptr())) {
    throw py::type_error("a handler must be callable or None");
  }
  const bool set = !callable.is_none();
  object(slot).set(set ? std::move(callable) : py::object());
  isSet(slot).store(set);
}

void CallbackHub::addStream(std::shared_ptr<EventStream> stream) {
  MutexLock lock(streamsMutex_);
  streams_.push_back(std::move(stream));
}

void CallbackHub::removeStream(const EventStream& stream) {
  MutexLock lock(streamsMutex_);
  std::erase_if(streams_, [&](const auto& held) { return held.get() == &stream; });
}

bool CallbackHub::needsConsumers() const {
  if (deviceConsumersSet_.load()) return true;
  MutexLock lock(streamsMutex_);
  return std::any_of(streams_.begin(), streams_.end(),
                     [](const auto& stream) { return stream->wantsConsumers(); });
}

std::vector<std::shared_ptr<EventStream>> CallbackHub::streams() const {
  MutexLock lock(streamsMutex_);
  return streams_;
}

void CallbackHub::deviceEvent(MediaDeviceEvent event, const MediaDevice& device) {
  for (const auto& stream : streams()) {
    stream->push({.kind = StreamItem::Kind::DeviceEvent, .event = event, .device = device});
  }
  if (!deviceEventSet_.load()) return;
  PythonGate::runWithGIL(
      [&] {
        const py::object callable = callback(Slot::DeviceEvent);
        if (!callable.is_none()) callable(ToPython(event), ToPython(device));
      },
      "harkwell device_event_handler");
}

void CallbackHub::updatingDevices(bool finished) {
  if (!updatingDevicesSet_.load()) return;
  PythonGate::runWithGIL(
      [&] {
        const py::object callable = callback(Slot::UpdatingDevices);
        if (!callable.is_none()) callable(finished);
      },
      "harkwell updating_devices_handler");
}

void CallbackHub::deviceConsumers(const MediaDevice& device,
                                  const std::vector<MediaDeviceConsumer>& consumers) {
  for (const auto& stream : streams()) {
    if (!stream->wantsConsumers()) continue;
    stream->push(
        {.kind = StreamItem::Kind::ConsumersChanged, .device = device, .consumers = consumers});
  }
  if (!deviceConsumersSet_.load()) return;
  PythonGate::runWithGIL(
      [&] {
        const py::object callable = callback(Slot::DeviceConsumers);
        if (!callable.is_none()) callable(ToPython(device), ToPython(consumers));
      },
      "harkwell device_consumers_handler");
}

}  // namespace harkwell::python
