// The enumerations that every part of the library exchanges. Each is an `enum class` whose cases
// keep their declared order: `hashValue(x)` is the case's ordinal, `std::hash` agrees, and
// `caseName(x)` gives the case's own name as text (for printing and JSON).
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <ostream>
#include <string_view>

namespace harkwell {

// Which back end produced a device record.
enum class MediaType { Audio, Video };

// How a device is attached to the computer.
enum class MediaDeviceTransportType {
  Unknown,
  Aggregate,
  AirPlay,
  AVB,
  Bluetooth,
  BluetoothLE,
  BuiltIn,
  DisplayPort,
  FireWire,
  HDMI,
  Network,
  PCI,
  Thunderbolt,
  USB,
  Virtual,
  Wireless,
  Other,
};

// What an observer reports to its event handler.
enum class MediaDeviceEvent {
  InitialDiscovery,    // present when the client started observing (sent by the controller)
  Connected,           // appeared in the platform's device list after it was first read
  Disconnected,        // left the platform's device list
  ChangedRunning,      // the running state was re-read
  ChangedInputSource,  // the selected input source was re-read
};

// Why a device is not one that the library supports; an empty optional means supported.
enum class MediaDeviceUnsupportedReason { NoInputChannels, InputAndOutputChannels };

namespace detail {
template <class E>
struct CaseNames;
template <>
struct CaseNames<MediaType> {
  static constexpr std::array<std::string_view, 2> names{"Audio", "Video"};
};
template <>
struct CaseNames<MediaDeviceTransportType> {
  static constexpr std::array<std::string_view, 17> names{
      "Unknown",     "Aggregate",   "AirPlay",  "AVB",      "Bluetooth", "BluetoothLE",
      "BuiltIn",     "DisplayPort", "FireWire", "HDMI",     "Network",   "PCI",
      "Thunderbolt", "USB",         "Virtual",  "Wireless", "Other"};
};
template <>
struct CaseNames<MediaDeviceEvent> {
  static constexpr std::array<std::string_view, 5> names{
      "InitialDiscovery", "Connected", "Disconnected", "ChangedRunning", "ChangedInputSource"};
};
template <>
struct CaseNames<MediaDeviceUnsupportedReason> {
  static constexpr std::array<std::string_view, 2> names{"NoInputChannels",
                                                         "InputAndOutputChannels"};
};
template <class E>
concept LibraryEnumeration = requires {
  CaseNames<E>::names;
};
}  // namespace detail

// The ordinal of a case, which is also its hash value.
template <detail::LibraryEnumeration E>
constexpr std::size_t hashValue(E value) {
  return static_cast<std::size_t>(value);
}

// The case's own name, for example "ChangedRunning".
template <detail::LibraryEnumeration E>
constexpr std::string_view caseName(E value) {
  return detail::CaseNames<E>::names[static_cast<std::size_t>(value)];
}

// The case whose name is `name`, or empty when no case has that name.
template <detail::LibraryEnumeration E>
constexpr std::optional<E> caseFromName(std::string_view name) {
  const auto& names = detail::CaseNames<E>::names;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (names[i] == name) return static_cast<E>(i);
  }
  return std::nullopt;
}

template <detail::LibraryEnumeration E>
std::ostream& operator<<(std::ostream& out, E value) {
  return out << caseName(value);
}

}  // namespace harkwell

template <harkwell::detail::LibraryEnumeration E>
struct std::hash<E> {
  std::size_t operator()(E value) const noexcept { return harkwell::hashValue(value); }
};
