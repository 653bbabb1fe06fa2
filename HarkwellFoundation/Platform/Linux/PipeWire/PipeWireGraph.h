// What the library keeps of a PipeWire daemon's graph: plain copies of the nodes, devices, clients
// and links that libpipewire reports, keyed by the daemon's object IDs. The connection fills one on
// PipeWire's loop thread; everything else receives copies. Values only: no libpipewire object is
// referenced once a copy is made, so the mapping can be tested and fuzzed without a daemon.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace harkwell {

// A PipeWire property dictionary's entries ("media.class" -> "Audio/Source").
using PipeWireProperties = std::map<std::string, std::string>;

// A node's state as the daemon reports it in the node's info.
enum class PipeWireNodeState { Error, Creating, Suspended, Idle, Running };

struct PipeWireNode {
  std::uint32_t id = 0;
  PipeWireNodeState state = PipeWireNodeState::Creating;
  // The registry's properties, overlaid with the node's own from its info (which carry more:
  // node.link-group, stream.monitor, ...).
  PipeWireProperties properties;

  friend bool operator==(const PipeWireNode&, const PipeWireNode&) = default;
};

enum class PipeWireDirection { Input, Output };

// A route of a device (a sound card's or headset's jack, speaker or microphone): one entry of its
// EnumRoute params, or the Route param the device has chosen for one of its profile's devices.
struct PipeWireRoute {
  std::int32_t index = 0;
  PipeWireDirection direction = PipeWireDirection::Input;
  // For a chosen route: the profile device (card.profile.device of a node) it serves. For an
  // enumerated one: every profile device it can serve (empty: not said).
  std::vector<std::int32_t> devices;
  std::string name;
  std::string description;

  friend bool operator==(const PipeWireRoute&, const PipeWireRoute&) = default;
};

// A device object: a sound card or a Bluetooth headset, whose nodes name it by "device.id".
struct PipeWireDevice {
  std::uint32_t id = 0;
  PipeWireProperties properties;
  std::vector<PipeWireRoute> routes;        // EnumRoute: what the device can route
  std::vector<PipeWireRoute> activeRoutes;  // Route: one per profile device, what it routes now

  friend bool operator==(const PipeWireDevice&, const PipeWireDevice&) = default;
};

// A link's state as the daemon reports it in the link's info.
enum class PipeWireLinkState { Error, Unlinked, Init, Negotiating, Allocating, Paused, Active };

// Data goes from an output port of one node into an input port of another.
struct PipeWireLink {
  std::uint32_t id = 0;
  std::uint32_t outputNodeID = 0;
  std::uint32_t outputPortID = 0;
  std::uint32_t inputNodeID = 0;
  std::uint32_t inputPortID = 0;
  PipeWireLinkState state = PipeWireLinkState::Init;

  friend bool operator==(const PipeWireLink&, const PipeWireLink&) = default;
};

// A program connected to the daemon. Its properties say who it is: "pipewire.sec.pid" (the PID
// the daemon took from the client's socket), "application.name", "application.process.id" (what
// the client claims). A node names its client by "client.id".
struct PipeWireClient {
  std::uint32_t id = 0;
  PipeWireProperties properties;

  friend bool operator==(const PipeWireClient&, const PipeWireClient&) = default;
};

struct PipeWireGraph {
  std::map<std::uint32_t, PipeWireNode> nodes;
  std::map<std::uint32_t, PipeWireClient> clients;
  std::map<std::uint32_t, PipeWireDevice> devices;
  std::map<std::uint32_t, PipeWireLink> links;

  friend bool operator==(const PipeWireGraph&, const PipeWireGraph&) = default;
};

// The value of `key` in `properties`, if present.
std::optional<std::string> PipeWirePropertyOf(const PipeWireProperties& properties,
                                              const std::string& key);

}  // namespace harkwell
