// How a PipeWire graph becomes the audio devices this library shows: which nodes count as devices
// and what each of their properties is. Pure functions of the graph, so they are tested (and
// fuzzed) without a daemon. The table of rules is in PipeWireHardwareService.h; the functions below
// implement it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Platform/Linux/ConsumerGraph.h"
#include "HarkwellFoundation/Platform/Linux/MappedAudioDevice.h"
#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireGraph.h"

namespace harkwell {

// What a node's "media.class" makes of it.
enum class PipeWireNodeRole {
  Other,         // not audio, or not a device nor a stream (drivers, MIDI, video)
  SourceDevice,  // Audio/Source, Audio/Source/Virtual
  SinkDevice,    // Audio/Sink, Audio/Sink/Virtual
  DuplexDevice,  // Audio/Duplex: both at once
  InputStream,   // Stream/Input/Audio: records from a source (or a sink's monitor)
  OutputStream,  // Stream/Output/Audio: plays to a sink
};

PipeWireNodeRole PipeWireNodeRoleOf(const PipeWireNode& node);

// Who uses the device node `node` (AudioDeviceConsumers.h), following the links and link groups
// of `consumers` (PipeWireConsumerGraphOf): for each stream node, the process of its client
// ("client.id"): the client's "pipewire.sec.pid", verified, unless the client is one that
// pipewire-pulse serves ("client.api" pipewire-pulse) and that PID is pipewire-pulse's own
// connection's; else the claimed "application.process.id", unverified. Application name and ID
// from the client, else the node. Kind: a node.link-group member is a filter (with the programs at
// the ends of its chains as `feeds`); stream.monitor or resample.peaks a level meter;
// stream.capture.sink or a link from a sink a monitor; any other an application, running or not.
// The /proc details are not filled in here.
std::vector<MediaDeviceConsumer> PipeWireConsumersOf(std::uint32_t node, const PipeWireGraph& graph,
                                                     const ConsumerGraph& consumers);

// The client a node names by "client.id", if the graph has it.
const PipeWireClient* PipeWireClientOf(const PipeWireNode& node, const PipeWireGraph& graph);

// Every device of the graph, in the order of the daemon's node IDs, with its consumers.
std::vector<MappedAudioDevice> MapPipeWireGraph(const PipeWireGraph& graph);

// The device object that owns `node` (its "device.id"), or null.
const PipeWireDevice* PipeWireDeviceOf(const PipeWireNode& node, const PipeWireGraph& graph);

// The transport code from "device.bus", "device.api", "device.form_factor" and "device.class" of
// the node, else of its device; 0 (unknown) when nothing tells.
std::uint32_t PipeWireTransportTypeFor(const PipeWireNode& node, const PipeWireDevice* device);

// The ALSA card number from "api.alsa.card", else "alsa.card" (the node's own, else its device's);
// absent when neither is a decimal number.
std::optional<std::uint32_t> PipeWireSoundCardFor(const PipeWireNode& node,
                                                  const PipeWireDevice* device);

// "vendor:product" from "device.vendor.id" and "device.product.id" (the node's own, else its
// device's); absent unless both are known.
std::optional<std::string> PipeWireModelUIDFor(const PipeWireNode& node,
                                               const PipeWireDevice* device);

// The input sources of a source node: the input routes of its device that serve the node's
// profile device ("card.profile.device"), and the one the device routes now. Empty for nodes
// without a device or routes.
void PipeWireInputSourcesFor(const PipeWireNode& node, const PipeWireDevice* device,
                             std::vector<MappedInputSource>& sources,
                             std::optional<std::string>& selected);

// Where data flows in the graph, for the running rule (ConsumerGraph.h), keyed by node ID:
// device nodes are devices; stream nodes are streams of the kind their properties and state say;
// every link that is not in error is a flow; and within one "node.link-group" the consuming halves
// flow into the producing ones.
ConsumerGraph PipeWireConsumerGraphOf(const PipeWireGraph& graph);

}  // namespace harkwell
