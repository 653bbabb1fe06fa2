// The library's values as the Python package's records and enumerations (harkwell._records), and
// back. The package hands its classes over once, at import; every conversion needs the GIL.
#pragma once

#include <pybind11/pybind11.h>

#include <string>
#include <vector>

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Model/MediaDeviceHogMode.h"

namespace harkwell::python {

// Keeps the record classes of `records` (the harkwell._records module).
void UseRecordTypes(const pybind11::module_& records);

inline pybind11::object ToPython(bool value) {
  return pybind11::bool_(value);
}
pybind11::object ToPython(MediaType value);
pybind11::object ToPython(MediaDeviceEvent value);
pybind11::object ToPython(const MediaDevice& device);
pybind11::object ToPython(const MediaDeviceConsumer& consumer);
pybind11::tuple ToPython(const std::vector<MediaDeviceConsumer>& consumers);
pybind11::list ToPython(const std::vector<MediaDevice>& devices);
pybind11::object ToPython(const MediaDeviceHogMode& mode);
pybind11::object DeviceEventToPython(MediaDeviceEvent event, const MediaDevice& device);
pybind11::object ConsumersChangedToPython(const MediaDevice& device,
                                          const std::vector<MediaDeviceConsumer>& consumers);

// From the package's records (or anything with the same attributes); a wrong type raises
// TypeError.
MediaDevice DeviceFromPython(const pybind11::handle& device);
MediaDeviceConsumer ConsumerFromPython(const pybind11::handle& consumer);
std::vector<MediaDeviceConsumer> ConsumersFromPython(const pybind11::handle& consumers);

// The ordinal of a member of one of the package's enumerations.
int OrdinalFromPython(const pybind11::handle& member);

// The library's case of a member of the package's enumeration of the same name; an ordinal out of
// range raises ValueError.
template <class E>
E EnumFromPython(const pybind11::handle& member) {
  const int ordinal = OrdinalFromPython(member);
  if (ordinal < 0 || static_cast<std::size_t>(ordinal) >= detail::CaseNames<E>::names.size()) {
    throw pybind11::value_error(std::to_string(ordinal) + " is not a case of this enumeration");
  }
  return static_cast<E>(ordinal);
}

}  // namespace harkwell::python
