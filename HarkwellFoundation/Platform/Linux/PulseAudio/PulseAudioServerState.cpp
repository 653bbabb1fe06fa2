#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioServerState.h"

#include <pulse/pulseaudio.h>

#include <cstring>

namespace harkwell {
namespace {

std::string TextOf(const char* text) {
  return text ? std::string(text) : std::string();
}

PulseProperties PropertiesOf(const pa_proplist* list) {
  PulseProperties properties;
  if (!list) return properties;
  void* state = nullptr;
  while (const char* key = pa_proplist_iterate(list, &state)) {
    // Binary entries have no text form; gets() answers null for them.
    if (const char* value = pa_proplist_gets(list, key)) properties.emplace(key, value);
  }
  return properties;
}

std::optional<std::uint32_t> IndexOf(std::uint32_t index) {
  if (index == PA_INVALID_INDEX) return std::nullopt;
  return index;
}

// The module a stream belongs to when no client opened it. A client's streams name the protocol
// module the client came through as their owner, which ties nothing together.
std::optional<std::uint32_t> ModuleOwning(std::uint32_t ownerModule, std::uint32_t client) {
  if (client != PA_INVALID_INDEX) return std::nullopt;
  return IndexOf(ownerModule);
}

// A proplist entry that reads "true".
bool IsTrue(const pa_proplist* list, const char* key) {
  const char* value = list ? pa_proplist_gets(list, key) : nullptr;
  return value && std::strcmp(value, "true") == 0;
}

std::optional<std::string> LinkGroupOf(const pa_proplist* list) {
  const char* value = list ? pa_proplist_gets(list, "node.link-group") : nullptr;
  if (!value) return std::nullopt;
  return std::string(value);
}

PulseEndpointState StateOf(int state) {
  // Sources and sinks number their states alike (PA_SOURCE_RUNNING == PA_SINK_RUNNING, ...).
  switch (state) {
    case PA_SOURCE_RUNNING:
      return PulseEndpointState::Running;
    case PA_SOURCE_IDLE:
      return PulseEndpointState::Idle;
    case PA_SOURCE_SUSPENDED:
      return PulseEndpointState::Suspended;
    default:
      return PulseEndpointState::Invalid;
  }
}

// Sources and sinks hand over the same fields, ports included, under different type names.
template <class Info>
PulseEndpoint EndpointFrom(const Info& info, PulseEndpointKind kind) {
  PulseEndpoint endpoint;
  endpoint.kind = kind;
  endpoint.index = info.index;
  endpoint.name = TextOf(info.name);
  endpoint.description = TextOf(info.description);
  endpoint.cardIndex = IndexOf(info.card);
  endpoint.ownerModule = IndexOf(info.owner_module);
  endpoint.state = StateOf(info.state);
  for (std::uint32_t i = 0; info.ports && i < info.n_ports && info.ports[i]; ++i) {
    endpoint.ports.push_back(
        PulsePort{TextOf(info.ports[i]->name), TextOf(info.ports[i]->description)});
  }
  if (info.active_port) endpoint.activePortName = TextOf(info.active_port->name);
  endpoint.properties = PropertiesOf(info.proplist);
  return endpoint;
}

}  // namespace

PulseEndpoint PulseEndpointFromSourceInfo(const pa_source_info& info) {
  PulseEndpoint endpoint = EndpointFrom(info, PulseEndpointKind::Source);
  endpoint.monitoredSink = IndexOf(info.monitor_of_sink);
  endpoint.isMonitor = endpoint.monitoredSink.has_value();
  return endpoint;
}

PulseEndpoint PulseEndpointFromSinkInfo(const pa_sink_info& info) {
  return EndpointFrom(info, PulseEndpointKind::Sink);
}

PulseCard PulseCardFromCardInfo(const pa_card_info& info) {
  return PulseCard{info.index, TextOf(info.name), PropertiesOf(info.proplist)};
}

PulseClient PulseClientFromClientInfo(const pa_client_info& info) {
  return PulseClient{info.index, PropertiesOf(info.proplist)};
}

PulseRecordingStream PulseRecordingStreamFromSourceOutputInfo(const pa_source_output_info& info) {
  const bool peaks = (info.resample_method && std::strcmp(info.resample_method, "peaks") == 0) ||
                     IsTrue(info.proplist, "stream.monitor") ||
                     IsTrue(info.proplist, "resample.peaks");
  return PulseRecordingStream{info.index,
                              info.source,
                              info.corked != 0,
                              peaks,
                              ModuleOwning(info.owner_module, info.client),
                              LinkGroupOf(info.proplist),
                              IndexOf(info.client),
                              PropertiesOf(info.proplist)};
}

PulsePlaybackStream PulsePlaybackStreamFromSinkInputInfo(const pa_sink_input_info& info) {
  return PulsePlaybackStream{info.index,
                             info.sink,
                             info.corked != 0,
                             ModuleOwning(info.owner_module, info.client),
                             LinkGroupOf(info.proplist),
                             IndexOf(info.client),
                             PropertiesOf(info.proplist)};
}

}  // namespace harkwell
