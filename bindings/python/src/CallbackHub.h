// What a Python MediaDeviceController hears from its C++ controller: the controller's three
// handlers lead here, and the hub passes each callback on to the Python callable set for it (with
// the GIL, through the gate) and to every open events() stream (without the GIL). Callbacks run on
// the controller's queue, one at a time.
//
// The C++ controller's handlers own the hub, so an observing controller that Python has dropped
// keeps calling its callables, as the C++ controller does for a C++ client.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <vector>

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Platform/Mutex.h"
#include "bindings/python/src/EventStream.h"
#include "bindings/python/src/PythonGate.h"

namespace harkwell::python {

class CallbackHub {
 public:
  enum class Slot { DeviceEvent, UpdatingDevices, DeviceConsumers };

  // GIL held. None clears the slot.
  pybind11::object callback(Slot slot) const;
  void setCallback(Slot slot, pybind11::object callable);

  // Any thread.
  void addStream(std::shared_ptr<EventStream> stream);
  void removeStream(const EventStream& stream);
  // For tests: how many streams are open.
  std::size_t streamCountForTesting() const;
  // Whether anyone listens for consumers: the consumers callable or a stream that asked.
  bool needsConsumers() const;

  // The controller's queue.
  void deviceEvent(MediaDeviceEvent event, const MediaDevice& device);
  void updatingDevices(bool finished);
  void deviceConsumers(const MediaDevice& device,
                       const std::vector<MediaDeviceConsumer>& consumers);

 private:
  // A Python callable, and whether there is one, read without the GIL so an empty slot costs
  // nothing on the queue.
  struct Entry {
    SharedPythonObject callable;
    std::atomic<bool> isSet{false};
  };

  std::vector<std::shared_ptr<EventStream>> streams() const;
  Entry& entry(Slot slot) { return entries_[static_cast<std::size_t>(slot)]; }
  const Entry& entry(Slot slot) const { return entries_[static_cast<std::size_t>(slot)]; }
  // Calls the slot's callable, if any, with the GIL (through the gate).
  template <class... Arguments>
  void call(Slot slot, const char* context, const Arguments&... arguments);

  std::array<Entry, 3> entries_;

  mutable Mutex streamsMutex_;
  std::vector<std::shared_ptr<EventStream>> streams_ HARKWELL_GUARDED_BY(streamsMutex_);
};

}  // namespace harkwell::python
