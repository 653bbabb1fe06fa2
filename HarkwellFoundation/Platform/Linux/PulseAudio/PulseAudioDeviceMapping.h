// How a PulseAudio server's state becomes the audio devices this library shows: which sources and
// sinks count as devices and what each of their properties is. Pure functions of the state, so
// they are tested (and can be fuzzed) without a server. The table of rules is in
// PulseAudioHardwareService.h; the functions below implement it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Platform/Linux/ConsumerGraph.h"
#include "HarkwellFoundation/Platform/Linux/MappedAudioDevice.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioServerState.h"

namespace harkwell {

// One device as the service presents it, before it is given an object ID: what the shared mirror
// answers from (MappedAudioDevice.h; a source's input sources are its ports, by port name), and
// whether it is a source or a sink.
struct PulseMappedDevice : MappedAudioDevice {
  PulseEndpointKind kind = PulseEndpointKind::Source;

  friend bool operator==(const PulseMappedDevice&, const PulseMappedDevice&) = default;
};

// Every device of the server: its sources other than monitors, then its sinks, each in the
// server's index order.
std::vector<PulseMappedDevice> MapPulseServerState(const PulseServerState& state);

// The devices to show: two records of one kind under one name (never from a sane server) are one
// device, the last; sources still come before sinks, so a source and a sink of one name always
// take their IDs in the same order.
std::vector<MappedAudioDevice> DistinctPulseDevices(const std::vector<PulseMappedDevice>& devices);

// One source or sink, without its consumers; `card` is the card that owns it, or null; `graph` is
// the server's (PulseConsumerGraphFor).
PulseMappedDevice MapPulseEndpoint(const PulseEndpoint& endpoint, const PulseCard* card,
                                   const ConsumerGraph& graph);

// The transport code from the device's and then the card's "device.bus", "device.api",
// "device.form_factor" and "device.class"; 0 (unknown) when nothing tells.
std::uint32_t PulseTransportTypeFor(const PulseEndpoint& endpoint, const PulseCard* card);

// "vendor:product" from "device.vendor.id" and "device.product.id" (the device's own, else the
// card's); absent unless both are known.
std::optional<std::string> PulseModelUIDFor(const PulseEndpoint& endpoint, const PulseCard* card);

// The ALSA card number from "alsa.card", else "api.alsa.card" (the device's own, else its card's);
// absent when neither is a decimal number.
std::optional<std::uint32_t> PulseSoundCardFor(const PulseEndpoint& endpoint,
                                               const PulseCard* card);

// Where data flows on the server, for the shared running rule (ConsumerGraph.h):
//   devices   every source but monitors, and every sink; with hardware behind it when a card owns
//             it or its transport is a bus (neither virtual nor unknown)
//   streams   a recording stream is paused when corked, else a level meter when the server feeds
//             it peaks, else one half of a filter when a module opened it (it has no client) or
//             it has a "node.link-group", else a monitor capture when it records a sink's monitor,
//             else a program's. A playback stream is paused when corked, else a filter's half on
//             the same terms, else a program's. (Programs' streams belong to clients; a module
//             that sends a source over the network is judged as a filter feeding nobody.)
//   filters   records that share an owner module or a "node.link-group" belong to one filter: a
//             filter module (virtual, remapped, echo-cancelling source or sink, loopback) owns the
//             streams it opens and the devices it offers. Its recording stream feeds the sources of
//             the group (only those whose "device.master_device", if any, names the source it
//             records from), or, without any, the group's playback streams (a loopback). Its
//             playback stream is fed by the sinks of the group, or, without any, by the group's
//             recording streams. A half whose group offers nothing yet feeds nothing.
//   flows     a source into each stream recording from it, a sink into each capture of its
//             monitor, each playback stream into its sink, and the filter links above.
// Keys: the record's index, with the kind of record in the upper 32 bits.
ConsumerGraph PulseConsumerGraphFor(const PulseServerState& state);
ConsumerGraph::NodeKey PulseGraphKeyFor(const PulseEndpoint& endpoint);

// Who uses the device (AudioDeviceConsumers.h): a source's recording streams, a sink's playback
// streams and the captures of its monitor, each as its client tells: the client's
// "pipewire.sec.pid" (pipewire-pulse), verified, unless it is pipewire-pulse's own connection;
// else its "application.process.id", unverified. A stream's kind: a level meter as for the running
// rule below; a filter's half (owner module or link group), with the programs at the ends of its
// chains as `feeds`; a capture of a sink's monitor is a monitor; any other an application. A
// paused (corked) stream is listed by what it is. A module's stream has no client and no PID.
// `graph` is the server's (PulseConsumerGraphFor).
std::vector<MediaDeviceConsumer> PulseConsumersOf(const PulseEndpoint& endpoint,
                                                  const PulseServerState& state,
                                                  const ConsumerGraph& graph);

// Whether the device is in use by any process: the server does not hold it suspended and the
// shared rule finds a real consumer (a source) or a real producer (a sink) in the server's graph.
// A device missing from `state` is judged as if it were there.
bool PulseEndpointIsRunning(const PulseEndpoint& endpoint, const PulseServerState& state);

}  // namespace harkwell
