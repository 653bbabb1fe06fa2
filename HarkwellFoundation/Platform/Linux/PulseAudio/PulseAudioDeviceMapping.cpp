#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioDeviceMapping.h"

#include <map>
#include <set>
#include <string_view>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/AudioDeviceConsumers.h"
#include "HarkwellFoundation/Platform/Linux/Reservation/SoundCardReservationSource.h"

namespace harkwell {
namespace {

// The value of `key` on the device, else on its card; null when neither has it.
const std::string* PropertyOf(const PulseEndpoint& endpoint, const PulseCard* card,
                              std::string_view key) {
  if (auto found = endpoint.properties.find(key); found != endpoint.properties.end()) {
    return &found->second;
  }
  if (card) {
    if (auto found = card->properties.find(key); found != card->properties.end()) {
      return &found->second;
    }
  }
  return nullptr;
}

bool Is(const std::string* value, std::string_view expected) {
  return value && *value == expected;
}

const PulseCard* CardOf(const PulseEndpoint& endpoint, const PulseServerState& state) {
  if (!endpoint.cardIndex) return nullptr;
  auto found = state.cards.find(*endpoint.cardIndex);
  return found == state.cards.end() ? nullptr : &found->second;
}

// The kinds of record, as the upper half of a graph key.
enum class RecordKind : std::uint64_t { Source = 1, Sink = 2, Recording = 3, Playback = 4 };

ConsumerGraph::NodeKey KeyOf(RecordKind kind, std::uint32_t index) {
  return (static_cast<std::uint64_t>(kind) << 32) | index;
}

bool HasHardware(const PulseEndpoint& endpoint, const PulseCard* card) {
  if (endpoint.cardIndex) return true;
  const std::uint32_t transport = PulseTransportTypeFor(endpoint, card);
  return transport != kAudioDeviceTransportTypeVirtual &&
         transport != kAudioDeviceTransportTypeUnknown;
}

// The names of the filter groups a record belongs to: its owner module's and its link group's.
std::vector<std::string> GroupsOf(const std::optional<std::uint32_t>& ownerModule,
                                  const std::optional<std::string>& linkGroup) {
  std::vector<std::string> groups;
  if (ownerModule) groups.push_back("module " + std::to_string(*ownerModule));
  if (linkGroup) groups.push_back("link " + *linkGroup);
  return groups;
}

std::optional<std::string> LinkGroupOf(const PulseEndpoint& endpoint) {
  auto found = endpoint.properties.find("node.link-group");
  if (found == endpoint.properties.end()) return std::nullopt;
  return found->second;
}

// The members of one filter group, by index.
struct FilterGroup {
  std::set<std::uint32_t> sources;
  std::set<std::uint32_t> sinks;
  std::set<std::uint32_t> recordings;
  std::set<std::uint32_t> playbacks;
};

// Every member of every group the record belongs to, merged.
FilterGroup MembersOf(const std::map<std::string, FilterGroup>& groups,
                      const std::vector<std::string>& names) {
  FilterGroup members;
  for (const std::string& name : names) {
    auto found = groups.find(name);
    if (found == groups.end()) continue;
    const FilterGroup& group = found->second;
    members.sources.insert(group.sources.begin(), group.sources.end());
    members.sinks.insert(group.sinks.begin(), group.sinks.end());
    members.recordings.insert(group.recordings.begin(), group.recordings.end());
    members.playbacks.insert(group.playbacks.begin(), group.playbacks.end());
  }
  return members;
}

// What a recording stream is, paused or not. A module's stream, or one of a link group, is a
// filter's half even before the rest of its filter shows up: a filter module puts its recording
// stream in place before its source.
MediaDeviceConsumerKind RecordingConsumerKind(const PulseRecordingStream& stream,
                                              const PulseServerState& state) {
  if (stream.levelMeter) return MediaDeviceConsumerKind::LevelMeter;
  if (stream.ownerModule || stream.linkGroup) return MediaDeviceConsumerKind::Filter;
  auto source = state.sources.find(stream.sourceIndex);
  if (source != state.sources.end() && source->second.isMonitor) {
    return MediaDeviceConsumerKind::Monitor;
  }
  return MediaDeviceConsumerKind::Application;
}

MediaDeviceConsumerKind PlaybackConsumerKind(const PulsePlaybackStream& stream) {
  if (stream.ownerModule || stream.linkGroup) return MediaDeviceConsumerKind::Filter;
  return MediaDeviceConsumerKind::Application;
}

// The consumer a stream stands for: its client's process and application (the stream's own
// properties where the client says nothing; a module's stream has no client) and its kind.
template <class Stream>
MediaDeviceConsumer ConsumerFor(const Stream& stream, MediaDeviceConsumerKind kind,
                                const PulseServerState& state,
                                const std::set<std::int32_t>& serverConnections) {
  MediaDeviceConsumer consumer;
  consumer.kind = kind;
  AudioClientIdentity client;
  if (stream.client) {
    if (auto found = state.clients.find(*stream.client); found != state.clients.end()) {
      client = AudioClientIdentity::of(found->second.properties);
    }
  }
  ApplyAudioClientIdentity(consumer, client, serverConnections,
                           AudioClientIdentity::of(stream.properties));
  return consumer;
}

bool IsRunningIn(const PulseEndpoint& endpoint, const ConsumerGraph& graph) {
  // A suspended device moves no data, whoever holds a stream on it. An idle one may: the server
  // reports a new stream before the state it puts the device in, and the stream is the answer.
  const bool awake =
      endpoint.state == PulseEndpointState::Running || endpoint.state == PulseEndpointState::Idle;
  return awake && DeviceIsRunning(graph, PulseGraphKeyFor(endpoint));
}

}  // namespace

std::vector<MediaDeviceConsumer> PulseConsumersOf(const PulseEndpoint& endpoint,
                                                  const PulseServerState& state,
                                                  const ConsumerGraph& graph) {
  std::vector<AudioClientIdentity> clients;
  clients.reserve(state.clients.size());
  for (const auto& [index, client] : state.clients) {
    clients.push_back(AudioClientIdentity::of(client.properties));
  }
  const std::set<std::int32_t> serverConnections = ServerConnectionProcessIDs(clients);
  return AudioDeviceConsumersIn(
      graph, PulseGraphKeyFor(endpoint),
      [&](ConsumerGraph::NodeKey key) -> std::optional<MediaDeviceConsumer> {
        const auto index = static_cast<std::uint32_t>(key & 0xFFFFFFFFu);
        switch (static_cast<RecordKind>(key >> 32)) {
          case RecordKind::Recording: {
            auto found = state.recordingStreams.find(index);
            if (found == state.recordingStreams.end()) return std::nullopt;
            return ConsumerFor(found->second, RecordingConsumerKind(found->second, state), state,
                               serverConnections);
          }
          case RecordKind::Playback: {
            auto found = state.playbackStreams.find(index);
            if (found == state.playbackStreams.end()) return std::nullopt;
            return ConsumerFor(found->second, PlaybackConsumerKind(found->second), state,
                               serverConnections);
          }
          default:
            return std::nullopt;
        }
      });
}

ConsumerGraph::NodeKey PulseGraphKeyFor(const PulseEndpoint& endpoint) {
  return KeyOf(endpoint.kind == PulseEndpointKind::Source ? RecordKind::Source : RecordKind::Sink,
               endpoint.index);
}

ConsumerGraph PulseConsumerGraphFor(const PulseServerState& state) {
  using Direction = ConsumerGraph::DeviceDirection;
  using Kind = ConsumerGraph::StreamKind;
  ConsumerGraph graph;
  std::map<std::string, FilterGroup> groups;

  for (const auto& [index, source] : state.sources) {
    if (source.isMonitor) continue;
    graph.addDevice(KeyOf(RecordKind::Source, index), Direction::Source,
                    HasHardware(source, CardOf(source, state)));
    for (const std::string& name : GroupsOf(source.ownerModule, LinkGroupOf(source))) {
      groups[name].sources.insert(index);
    }
  }
  for (const auto& [index, sink] : state.sinks) {
    graph.addDevice(KeyOf(RecordKind::Sink, index), Direction::Sink,
                    HasHardware(sink, CardOf(sink, state)));
    for (const std::string& name : GroupsOf(sink.ownerModule, LinkGroupOf(sink))) {
      groups[name].sinks.insert(index);
    }
  }
  for (const auto& [index, stream] : state.recordingStreams) {
    for (const std::string& name : GroupsOf(stream.ownerModule, stream.linkGroup)) {
      groups[name].recordings.insert(index);
    }
  }
  for (const auto& [index, stream] : state.playbackStreams) {
    for (const std::string& name : GroupsOf(stream.ownerModule, stream.linkGroup)) {
      groups[name].playbacks.insert(index);
    }
  }

  for (const auto& [index, stream] : state.recordingStreams) {
    const ConsumerGraph::NodeKey key = KeyOf(RecordKind::Recording, index);
    auto recorded = state.sources.find(stream.sourceIndex);
    const PulseEndpoint* source = recorded == state.sources.end() ? nullptr : &recorded->second;
    const std::vector<std::string> names = GroupsOf(stream.ownerModule, stream.linkGroup);
    const FilterGroup filter = MembersOf(groups, names);
    const bool isFilter = !names.empty();
    const bool isMonitorCapture = source && source->isMonitor;
    graph.addStream(key, stream.corked
                             ? Kind::Paused
                             : StreamKindForConsumer(RecordingConsumerKind(stream, state)));

    if (isMonitorCapture) {
      if (source->monitoredSink)
        graph.addFlow(KeyOf(RecordKind::Sink, *source->monitoredSink), key);
    } else {
      graph.addFlow(KeyOf(RecordKind::Source, stream.sourceIndex), key);
    }
    if (!isFilter) continue;
    for (std::uint32_t offered : filter.sources) {
      const PulseEndpoint& output = state.sources.at(offered);
      // A filter source that names its master takes only from the stream on that master.
      auto master = output.properties.find("device.master_device");
      if (master != output.properties.end() && source && master->second != source->name) continue;
      graph.addFlow(key, KeyOf(RecordKind::Source, offered));
    }
    // A loopback offers no device: its recording half feeds its playback half.
    if (filter.sources.empty()) {
      for (std::uint32_t playback : filter.playbacks) {
        graph.addFlow(key, KeyOf(RecordKind::Playback, playback));
      }
    }
  }

  for (const auto& [index, stream] : state.playbackStreams) {
    const ConsumerGraph::NodeKey key = KeyOf(RecordKind::Playback, index);
    const std::vector<std::string> names = GroupsOf(stream.ownerModule, stream.linkGroup);
    const FilterGroup filter = MembersOf(groups, names);
    const bool isFilter = !names.empty();
    graph.addStream(
        key, stream.corked ? Kind::Paused : StreamKindForConsumer(PlaybackConsumerKind(stream)));
    graph.addFlow(key, KeyOf(RecordKind::Sink, stream.sinkIndex));
    if (!isFilter) continue;
    for (std::uint32_t input : filter.sinks) graph.addFlow(KeyOf(RecordKind::Sink, input), key);
    if (filter.sinks.empty()) {
      for (std::uint32_t recording : filter.recordings) {
        graph.addFlow(KeyOf(RecordKind::Recording, recording), key);
      }
    }
  }
  return graph;
}

std::uint32_t PulseTransportTypeFor(const PulseEndpoint& endpoint, const PulseCard* card) {
  const std::string* bus = PropertyOf(endpoint, card, "device.bus");
  const std::string* api = PropertyOf(endpoint, card, "device.api");
  const std::string* formFactor = PropertyOf(endpoint, card, "device.form_factor");
  const std::string* deviceClass = PropertyOf(endpoint, card, "device.class");

  // The bus says how the device is attached; a built-in one says so through its form factor
  // even though it sits on a PCI (or other) bus inside the computer.
  // PulseAudio's Bluetooth modules say "bluez"; PipeWire's (through pipewire-pulse) "bluez5".
  if (Is(bus, "bluetooth") || Is(api, "bluez") || Is(api, "bluez5")) {
    return kAudioDeviceTransportTypeBluetooth;
  }
  if (Is(bus, "usb")) return kAudioDeviceTransportTypeUSB;
  if (Is(bus, "firewire") || Is(bus, "ieee1394")) return kAudioDeviceTransportTypeFireWire;
  if (Is(formFactor, "internal")) return kAudioDeviceTransportTypeBuiltIn;
  if (Is(bus, "pci")) return kAudioDeviceTransportTypePCI;
  // Null devices, loopbacks, filters and network tunnels have no hardware behind them.
  if (Is(deviceClass, "abstract") || Is(deviceClass, "filter")) {
    return kAudioDeviceTransportTypeVirtual;
  }
  if (!bus && !endpoint.cardIndex) return kAudioDeviceTransportTypeVirtual;
  return kAudioDeviceTransportTypeUnknown;
}

std::optional<std::string> PulseModelUIDFor(const PulseEndpoint& endpoint, const PulseCard* card) {
  const std::string* vendor = PropertyOf(endpoint, card, "device.vendor.id");
  const std::string* product = PropertyOf(endpoint, card, "device.product.id");
  if (!vendor || !product || vendor->empty() || product->empty()) return std::nullopt;
  return *vendor + ":" + *product;
}

std::optional<std::uint32_t> PulseSoundCardFor(const PulseEndpoint& endpoint,
                                               const PulseCard* card) {
  // PulseAudio's ALSA modules say "alsa.card"; PipeWire's server says "api.alsa.card".
  for (const char* key : {"alsa.card", "api.alsa.card"}) {
    if (const auto text = PropertyOf(endpoint, card, key)) {
      if (const auto number = SoundCardNumberFromProperty(*text)) return number;
    }
  }
  return std::nullopt;
}

bool PulseEndpointIsRunning(const PulseEndpoint& endpoint, const PulseServerState& state) {
  ConsumerGraph graph = PulseConsumerGraphFor(state);
  const bool isSource = endpoint.kind == PulseEndpointKind::Source;
  graph.addDevice(
      PulseGraphKeyFor(endpoint),
      isSource ? ConsumerGraph::DeviceDirection::Source : ConsumerGraph::DeviceDirection::Sink,
      HasHardware(endpoint, CardOf(endpoint, state)));
  return IsRunningIn(endpoint, graph);
}

PulseMappedDevice MapPulseEndpoint(const PulseEndpoint& endpoint, const PulseCard* card,
                                   const ConsumerGraph& graph) {
  PulseMappedDevice device;
  device.kind = endpoint.kind;
  device.uid = endpoint.name;
  device.name = endpoint.description;
  device.modelUID = PulseModelUIDFor(endpoint, card);
  device.transportType = PulseTransportTypeFor(endpoint, card);
  const bool isSource = endpoint.kind == PulseEndpointKind::Source;
  device.inputStreamCount = isSource ? 1 : 0;
  device.outputStreamCount = isSource ? 0 : 1;
  device.isRunning = IsRunningIn(endpoint, graph);
  device.soundCard = PulseSoundCardFor(endpoint, card);
  if (isSource && !endpoint.ports.empty()) {
    for (const PulsePort& port : endpoint.ports) {
      device.inputSources.push_back({port.name, port.description});
    }
    device.selectedInputSource = endpoint.activePortName;
  }
  return device;
}

std::vector<MappedAudioDevice> DistinctPulseDevices(const std::vector<PulseMappedDevice>& devices) {
  std::map<std::pair<PulseEndpointKind, std::string>, std::size_t> lastOfKey;
  for (std::size_t i = 0; i < devices.size(); ++i) {
    lastOfKey[{devices[i].kind, devices[i].uid}] = i;
  }
  std::vector<MappedAudioDevice> distinct;
  distinct.reserve(lastOfKey.size());
  for (std::size_t i = 0; i < devices.size(); ++i) {
    if (lastOfKey[{devices[i].kind, devices[i].uid}] == i) distinct.push_back(devices[i]);
  }
  return distinct;
}

std::vector<PulseMappedDevice> MapPulseServerState(const PulseServerState& state) {
  const ConsumerGraph graph = PulseConsumerGraphFor(state);
  std::vector<PulseMappedDevice> devices;
  devices.reserve(state.sources.size() + state.sinks.size());
  for (const auto& [index, source] : state.sources) {
    if (source.isMonitor) continue;
    devices.push_back(MapPulseEndpoint(source, CardOf(source, state), graph));
    devices.back().consumers = PulseConsumersOf(source, state, graph);
  }
  for (const auto& [index, sink] : state.sinks) {
    devices.push_back(MapPulseEndpoint(sink, CardOf(sink, state), graph));
    devices.back().consumers = PulseConsumersOf(sink, state, graph);
  }
  return devices;
}

}  // namespace harkwell
