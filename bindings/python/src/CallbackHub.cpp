#include "bindings/python/src/CallbackHub.h"

#include <algorithm>

#include "bindings/python/src/RecordConversion.h"

namespace py = pybind11;

namespace harkwell::python {

py::object CallbackHub::callback(Slot slot) const {
  const auto& held = entry(slot).callable.get();
  return held ? held : py::object(py::none());
}

void CallbackHub::setCallback(Slot slot, py::object callable) {
  if (!callable.is_none() && !PyCallable_Check(callable.ptr())) {
    throw py::type_error("a handler must be callable or None");
  }
  const bool set = !callable.is_none();
  entry(slot).callable.set(set ? std::move(callable) : py::object());
  entry(slot).isSet.store(set);
}

void CallbackHub::addStream(std::shared_ptr<EventStream> stream) {
  MutexLock lock(streamsMutex_);
  streams_.push_back(std::move(stream));
}

void CallbackHub::removeStream(const EventStream& stream) {
  MutexLock lock(streamsMutex_);
  std::erase_if(streams_, [&](const auto& held) { return held.get() == &stream; });
}

std::size_t CallbackHub::streamCountForTesting() const {
  MutexLock lock(streamsMutex_);
  return streams_.size();
}

bool CallbackHub::needsConsumers() const {
  if (entry(Slot::DeviceConsumers).isSet.load()) return true;
  MutexLock lock(streamsMutex_);
  return std::any_of(streams_.begin(), streams_.end(),
                     [](const auto& stream) { return stream->wantsConsumers(); });
}

std::vector<std::shared_ptr<EventStream>> CallbackHub::streams() const {
  MutexLock lock(streamsMutex_);
  return streams_;
}

template <class... Arguments>
void CallbackHub::call(Slot slot, const char* context, const Arguments&... arguments) {
  if (!entry(slot).isSet.load()) return;
  PythonGate::runWithGIL(
      [&] {
        const py::object callable = callback(slot);
        if (!callable.is_none()) callable(ToPython(arguments)...);
      },
      context);
}

void CallbackHub::deviceEvent(MediaDeviceEvent event, const MediaDevice& device) {
  for (const auto& stream : streams()) {
    stream->push({.kind = StreamItem::Kind::DeviceEvent, .event = event, .device = device});
  }
  call(Slot::DeviceEvent, "harkwell device_event_handler", event, device);
}

void CallbackHub::updatingDevices(bool finished) {
  call(Slot::UpdatingDevices, "harkwell updating_devices_handler", finished);
}

void CallbackHub::deviceConsumers(const MediaDevice& device,
                                  const std::vector<MediaDeviceConsumer>& consumers) {
  for (const auto& stream : streams()) {
    if (!stream->wantsConsumers()) continue;
    stream->push(
        {.kind = StreamItem::Kind::ConsumersChanged, .device = device, .consumers = consumers});
  }
  call(Slot::DeviceConsumers, "harkwell device_consumers_handler", device, consumers);
}

}  // namespace harkwell::python
