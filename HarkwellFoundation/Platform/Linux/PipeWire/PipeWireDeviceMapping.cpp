#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireDeviceMapping.h"

#include <algorithm>
#include <charconv>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/AudioDeviceConsumers.h"
#include "HarkwellFoundation/Platform/Linux/Reservation/SoundCardReservationSource.h"

namespace harkwell {
namespace {

// The value of `key` on the node, else on its device.
std::optional<std::string> PropertyOf(const PipeWireNode& node, const PipeWireDevice* device,
                                      const std::string& key) {
  if (auto value = PipeWirePropertyOf(node.properties, key)) return value;
  if (device) return PipeWirePropertyOf(device->properties, key);
  return std::nullopt;
}

// PipeWire writes Booleans as "true"/"false"; "1" is accepted too, as its own parser does.
bool IsTrue(const std::optional<std::string>& value) {
  return value && (*value == "true" || *value == "1");
}

std::optional<std::int64_t> NumberOf(const std::optional<std::string>& value) {
  if (!value || value->empty()) return std::nullopt;
  std::int64_t number = 0;
  const char* end = value->data() + value->size();
  auto [at, error] = std::from_chars(value->data(), end, number);
  if (error != std::errc() || at != end) return std::nullopt;
  return number;
}

bool IsDevice(PipeWireNodeRole role) {
  return role == PipeWireNodeRole::SourceDevice || role == PipeWireNodeRole::SinkDevice ||
         role == PipeWireNodeRole::DuplexDevice;
}

// Consuming halves of a filter take data in; producing halves give it out.
bool Consumes(PipeWireNodeRole role) {
  return role == PipeWireNodeRole::SinkDevice || role == PipeWireNodeRole::InputStream ||
         role == PipeWireNodeRole::DuplexDevice;
}
bool Produces(PipeWireNodeRole role) {
  return role == PipeWireNodeRole::SourceDevice || role == PipeWireNodeRole::OutputStream ||
         role == PipeWireNodeRole::DuplexDevice;
}

// Whether data enters or leaves the graph at this device: a sound card's or a headset's node.
bool HasHardware(const PipeWireNode& node) {
  const auto api = PipeWirePropertyOf(node.properties, "device.api");
  return PipeWirePropertyOf(node.properties, "device.id").has_value() || api == "alsa" ||
         api == "bluez5";
}

// What a stream node is, running or not.
MediaDeviceConsumerKind ConsumerKindOf(const PipeWireNode& node, const PipeWireGraph& graph) {
  const PipeWireProperties& properties = node.properties;
  if (PipeWirePropertyOf(properties, "node.link-group")) return MediaDeviceConsumerKind::Filter;
  // Volume controls open streams that only want peaks: marked as monitors, resampled to peaks.
  if (IsTrue(PipeWirePropertyOf(properties, "stream.monitor")) ||
      IsTrue(PipeWirePropertyOf(properties, "resample.peaks"))) {
    return MediaDeviceConsumerKind::LevelMeter;
  }
  if (IsTrue(PipeWirePropertyOf(properties, "stream.capture.sink"))) {
    return MediaDeviceConsumerKind::Monitor;
  }
  for (const auto& [id, link] : graph.links) {
    if (link.inputNodeID != node.id) continue;
    auto from = graph.nodes.find(link.outputNodeID);
    if (from != graph.nodes.end() &&
        PipeWireNodeRoleOf(from->second) == PipeWireNodeRole::SinkDevice) {
      return MediaDeviceConsumerKind::Monitor;
    }
  }
  return MediaDeviceConsumerKind::Application;
}

ConsumerGraph::StreamKind StreamKindOf(const PipeWireNode& node, const PipeWireGraph& graph) {
  const MediaDeviceConsumerKind kind = ConsumerKindOf(node, graph);
  // A program's stream moves data only while its node runs: a paused (corked) or idle one takes
  // nothing.
  if (kind == MediaDeviceConsumerKind::Application && node.state != PipeWireNodeState::Running) {
    return ConsumerGraph::StreamKind::Paused;
  }
  return StreamKindForConsumer(kind);
}

// The client a node names by "client.id", or null.
}  // namespace

const PipeWireClient* PipeWireClientOf(const PipeWireNode& node, const PipeWireGraph& graph) {
  const auto id = NumberOf(PipeWirePropertyOf(node.properties, "client.id"));
  if (!id || *id < 0 || *id > static_cast<std::int64_t>(UINT32_MAX)) return nullptr;
  auto found = graph.clients.find(static_cast<std::uint32_t>(*id));
  return found == graph.clients.end() ? nullptr : &found->second;
}

std::optional<std::string> PipeWirePropertyOf(const PipeWireProperties& properties,
                                              const std::string& key) {
  auto found = properties.find(key);
  if (found == properties.end()) return std::nullopt;
  return found->second;
}

PipeWireNodeRole PipeWireNodeRoleOf(const PipeWireNode& node) {
  const auto mediaClass = PipeWirePropertyOf(node.properties, "media.class");
  if (!mediaClass) return PipeWireNodeRole::Other;
  if (*mediaClass == "Audio/Source" || *mediaClass == "Audio/Source/Virtual") {
    return PipeWireNodeRole::SourceDevice;
  }
  if (*mediaClass == "Audio/Sink" || *mediaClass == "Audio/Sink/Virtual") {
    return PipeWireNodeRole::SinkDevice;
  }
  if (*mediaClass == "Audio/Duplex") return PipeWireNodeRole::DuplexDevice;
  if (*mediaClass == "Stream/Input/Audio") return PipeWireNodeRole::InputStream;
  if (*mediaClass == "Stream/Output/Audio") return PipeWireNodeRole::OutputStream;
  return PipeWireNodeRole::Other;
}

const PipeWireDevice* PipeWireDeviceOf(const PipeWireNode& node, const PipeWireGraph& graph) {
  const auto id = NumberOf(PipeWirePropertyOf(node.properties, "device.id"));
  if (!id || *id < 0 || *id > static_cast<std::int64_t>(UINT32_MAX)) return nullptr;
  auto found = graph.devices.find(static_cast<std::uint32_t>(*id));
  return found == graph.devices.end() ? nullptr : &found->second;
}

std::uint32_t PipeWireTransportTypeFor(const PipeWireNode& node, const PipeWireDevice* device) {
  const auto bus = PropertyOf(node, device, "device.bus");
  const auto api = PropertyOf(node, device, "device.api");
  const auto formFactor = PropertyOf(node, device, "device.form_factor");
  const auto deviceClass = PropertyOf(node, device, "device.class");
  const auto mediaClass = PipeWirePropertyOf(node.properties, "media.class");

  // The bus says how the device is attached; a built-in one says so through its form factor
  // even though it sits on a PCI (or other) bus inside the computer. PipeWire's own Bluetooth
  // support names its API bluez5.
  if (bus == "bluetooth" || api == "bluez5" || api == "bluez") {
    return kAudioDeviceTransportTypeBluetooth;
  }
  if (bus == "usb") return kAudioDeviceTransportTypeUSB;
  if (bus == "firewire" || bus == "ieee1394") return kAudioDeviceTransportTypeFireWire;
  if (formFactor == "internal") return kAudioDeviceTransportTypeBuiltIn;
  if (bus == "pci") return kAudioDeviceTransportTypePCI;
  // Null devices, loopbacks, filters and network tunnels have no hardware behind them.
  if (deviceClass == "abstract" || deviceClass == "filter") return kAudioDeviceTransportTypeVirtual;
  if (IsTrue(PipeWirePropertyOf(node.properties, "node.virtual"))) {
    return kAudioDeviceTransportTypeVirtual;
  }
  if (mediaClass && mediaClass->ends_with("/Virtual")) return kAudioDeviceTransportTypeVirtual;
  if (!bus && !device && !PipeWirePropertyOf(node.properties, "device.id")) {
    return kAudioDeviceTransportTypeVirtual;
  }
  return kAudioDeviceTransportTypeUnknown;
}

std::optional<std::string> PipeWireModelUIDFor(const PipeWireNode& node,
                                               const PipeWireDevice* device) {
  const auto vendor = PropertyOf(node, device, "device.vendor.id");
  const auto product = PropertyOf(node, device, "device.product.id");
  if (!vendor || !product || vendor->empty() || product->empty()) return std::nullopt;
  return *vendor + ":" + *product;
}

std::optional<std::uint32_t> PipeWireSoundCardFor(const PipeWireNode& node,
                                                  const PipeWireDevice* device) {
  for (const char* key : {"api.alsa.card", "alsa.card"}) {
    if (const auto text = PropertyOf(node, device, key)) {
      if (const auto number = SoundCardNumberFromProperty(*text)) return number;
    }
  }
  return std::nullopt;
}

void PipeWireInputSourcesFor(const PipeWireNode& node, const PipeWireDevice* device,
                             std::vector<MappedInputSource>& sources,
                             std::optional<std::string>& selected) {
  sources.clear();
  selected.reset();
  if (!device) return;
  const auto profileDevice = NumberOf(PipeWirePropertyOf(node.properties, "card.profile.device"));
  if (!profileDevice) return;
  const auto serves = [&](const PipeWireRoute& route) {
    return route.direction == PipeWireDirection::Input &&
           (route.devices.empty() || std::find(route.devices.begin(), route.devices.end(),
                                               *profileDevice) != route.devices.end());
  };
  for (const PipeWireRoute& route : device->routes) {
    if (!serves(route)) continue;
    const bool seen = std::any_of(sources.begin(), sources.end(),
                                  [&](const auto& source) { return source.name == route.name; });
    if (!seen) sources.push_back({route.name, route.description});
  }
  for (const PipeWireRoute& route : device->activeRoutes) {
    // A chosen route names exactly the profile device it serves.
    if (route.direction != PipeWireDirection::Input ||
        std::find(route.devices.begin(), route.devices.end(), *profileDevice) ==
            route.devices.end()) {
      continue;
    }
    // The chosen route is an input source even if the enumeration has not come yet.
    const bool listed = std::any_of(sources.begin(), sources.end(),
                                    [&](const auto& source) { return source.name == route.name; });
    if (!listed) sources.push_back({route.name, route.description});
    selected = route.name;
    break;
  }
}

ConsumerGraph PipeWireConsumerGraphOf(const PipeWireGraph& graph) {
  ConsumerGraph consumers;
  std::map<std::string, std::vector<const PipeWireNode*>> linkGroups;
  for (const auto& [id, node] : graph.nodes) {
    const PipeWireNodeRole role = PipeWireNodeRoleOf(node);
    switch (role) {
      case PipeWireNodeRole::SourceDevice:
      case PipeWireNodeRole::DuplexDevice:
        consumers.addDevice(id, ConsumerGraph::DeviceDirection::Source, HasHardware(node));
        break;
      case PipeWireNodeRole::SinkDevice:
        consumers.addDevice(id, ConsumerGraph::DeviceDirection::Sink, HasHardware(node));
        break;
      case PipeWireNodeRole::InputStream:
      case PipeWireNodeRole::OutputStream:
        consumers.addStream(id, StreamKindOf(node, graph));
        break;
      case PipeWireNodeRole::Other:
        continue;
    }
    if (auto group = PipeWirePropertyOf(node.properties, "node.link-group")) {
      linkGroups[*group].push_back(&node);
    }
  }
  for (const auto& [id, link] : graph.links) {
    if (link.state == PipeWireLinkState::Error || link.state == PipeWireLinkState::Unlinked) {
      continue;
    }
    consumers.addFlow(link.outputNodeID, link.inputNodeID);
  }
  // The two halves of a filter or loopback: what one half takes in, the other gives out.
  for (const auto& [group, members] : linkGroups) {
    for (const PipeWireNode* in : members) {
      if (!Consumes(PipeWireNodeRoleOf(*in))) continue;
      for (const PipeWireNode* out : members) {
        if (out != in && Produces(PipeWireNodeRoleOf(*out))) consumers.addFlow(in->id, out->id);
      }
    }
  }
  return consumers;
}

std::vector<MediaDeviceConsumer> PipeWireConsumersOf(std::uint32_t node, const PipeWireGraph& graph,
                                                     const ConsumerGraph& consumers) {
  std::vector<AudioClientIdentity> clients;
  clients.reserve(graph.clients.size());
  for (const auto& [id, client] : graph.clients) {
    clients.push_back(AudioClientIdentity::of(client.properties));
  }
  const std::set<std::int32_t> serverConnections = ServerConnectionProcessIDs(clients);
  return AudioDeviceConsumersIn(
      consumers, node, [&](ConsumerGraph::NodeKey key) -> std::optional<MediaDeviceConsumer> {
        auto found = graph.nodes.find(static_cast<std::uint32_t>(key));
        if (key > UINT32_MAX || found == graph.nodes.end()) return std::nullopt;
        const PipeWireNode& stream = found->second;
        MediaDeviceConsumer consumer;
        consumer.kind = ConsumerKindOf(stream, graph);
        const PipeWireClient* client = PipeWireClientOf(stream, graph);
        ApplyAudioClientIdentity(
            consumer, client ? AudioClientIdentity::of(client->properties) : AudioClientIdentity(),
            serverConnections, AudioClientIdentity::of(stream.properties));
        return consumer;
      });
}

std::vector<MappedAudioDevice> MapPipeWireGraph(const PipeWireGraph& graph) {
  const ConsumerGraph consumers = PipeWireConsumerGraphOf(graph);
  std::vector<MappedAudioDevice> devices;
  for (const auto& [id, node] : graph.nodes) {
    const PipeWireNodeRole role = PipeWireNodeRoleOf(node);
    if (!IsDevice(role)) continue;
    const PipeWireDevice* owner = PipeWireDeviceOf(node, graph);
    MappedAudioDevice device;
    device.uid = PipeWirePropertyOf(node.properties, "node.name").value_or("");
    // A node without a name has no identity to keep; the daemon always gives one to devices.
    if (device.uid.empty()) continue;
    device.name =
        PipeWirePropertyOf(node.properties, "node.description")
            .value_or(PipeWirePropertyOf(node.properties, "node.nick").value_or(device.uid));
    device.modelUID = PipeWireModelUIDFor(node, owner);
    device.transportType = PipeWireTransportTypeFor(node, owner);
    device.soundCard = PipeWireSoundCardFor(node, owner);
    const bool gives = role != PipeWireNodeRole::SinkDevice;
    const bool takes = role != PipeWireNodeRole::SourceDevice;
    device.inputStreamCount = gives ? 1 : 0;
    device.outputStreamCount = takes ? 1 : 0;
    device.isRunning = DeviceIsRunning(consumers, id);
    device.consumers = PipeWireConsumersOf(id, graph, consumers);
    if (gives)
      PipeWireInputSourcesFor(node, owner, device.inputSources, device.selectedInputSource);
    devices.push_back(std::move(device));
  }
  return devices;
}

}  // namespace harkwell
