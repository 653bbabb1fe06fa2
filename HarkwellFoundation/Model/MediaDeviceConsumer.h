// MediaDeviceConsumer: one process that takes data from a device (records from a microphone,
// streams from a camera) or gives it data (plays to a speaker), as the hardware service saw it.
// It is a value, separate from MediaDevice, so a client that never asks for consumers sees device
// records and events exactly as before.
//
// What each service knows:
//   - PipeWire: every client stream node linked to the device's node (and, for a sink, those
//     capturing it), with filters and loopbacks followed to the programs at their ends. The
//     process ID is the one the daemon took from the client's socket (verified), except for a
//     PulseAudio client that pipewire-pulse bridges: its socket is pipewire-pulse's, so only its
//     own claim is known (unverified). Application name and ID are what the client announced.
//   - PulseAudio: every recording stream of a source, every playback stream of a sink and every
//     capture of its monitor. The process ID is the client's own claim (`application.process.id`,
//     unverified): the PulseAudio daemon shows no socket credentials, and pipewire-pulse shows
//     only its own for the clients it bridges (a native PipeWire client seen through it keeps its
//     verified one). A filter module's own streams have no process (-1).
//   - V4L2: the processes whose descriptors hold the camera's nodes, from /proc; always verified.
//     A media server holding a node is listed as a media server; the clients it serves are its
//     feeds when the media server's graph can name them (PipeWire's does: each node its camera
//     node links to, with the client's socket PID, verified, and its application), and it has
//     none otherwise. Processes whose descriptors /proc hides from this one are missing; a program
//     holding the node itself announces no application name or ID.
//   - macOS: CoreAudio's process objects for audio devices on macOS 14 and later (verified PID,
//     bundle ID as the application ID, every one an application; nothing before macOS 14); none
//     for cameras.
//   - Simulated: whatever the test or scenario gives.
// Executable path, process name and sandbox come from /proc on Linux and are missing when the
// process has gone before they were read, or when /proc hides them (another user's process). For
// an unverified process ID they describe whatever process has that ID, so they are only as good as
// the client's claim.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Model/MediaEnumerations.h"

namespace harkwell {

// What a consumer does with the device's data.
enum class MediaDeviceConsumerKind {
  Application,  // a program that records, plays or streams: what an indicator shows
  LevelMeter,   // reads peaks for a volume meter (a mixer's meter); takes no real data
  Monitor,      // captures what a speaker plays
  Filter,       // passes the data on to other consumers (echo cancellers, loopbacks, remaps)
  MediaServer,  // serves the device to other programs (a camera held by a media server)
};

// The sandbox a consumer runs in.
enum class MediaDeviceConsumerSandbox { None, Flatpak, Snap };

namespace detail {
template <>
struct CaseNames<MediaDeviceConsumerKind> {
  static constexpr std::array<std::string_view, 5> names{"Application", "LevelMeter", "Monitor",
                                                         "Filter", "MediaServer"};
};
template <>
struct CaseNames<MediaDeviceConsumerSandbox> {
  static constexpr std::array<std::string_view, 3> names{"None", "Flatpak", "Snap"};
};
}  // namespace detail

struct HARKWELL_EXPORT MediaDeviceConsumer {
  std::int32_t processID = -1;  // -1 when nobody knows it
  // true when the server or the kernel vouched for processID (socket credentials, /proc); false
  // when it is only what the client said about itself.
  bool isProcessIDVerified = false;
  std::optional<std::string> executablePath;   // /proc/<pid>/exe
  std::optional<std::string> processName;      // /proc/<pid>/comm
  std::optional<std::string> applicationName;  // as the client announced it
  std::optional<std::string> applicationID;    // as the client announced it (reverse-DNS, bundle)
  MediaDeviceConsumerSandbox sandbox = MediaDeviceConsumerSandbox::None;
  std::optional<std::string> sandboxApplicationID;  // the Flatpak app ID or the Snap's name
  MediaDeviceConsumerKind kind = MediaDeviceConsumerKind::Application;
  // For a Filter or a MediaServer: the consumers at the end of its chains, the programs the data
  // really goes to. Empty for the other kinds.
  std::vector<MediaDeviceConsumer> feeds;

  friend bool operator==(const MediaDeviceConsumer&, const MediaDeviceConsumer&) = default;
};

HARKWELL_EXPORT std::ostream& operator<<(std::ostream& out, const MediaDeviceConsumer& consumer);

// A consumer that a privacy indicator should name: an application, or a filter or media server
// with an application at the end of one of its chains.
HARKWELL_EXPORT bool MediaDeviceConsumerReachesApplication(const MediaDeviceConsumer& consumer);

}  // namespace harkwell
