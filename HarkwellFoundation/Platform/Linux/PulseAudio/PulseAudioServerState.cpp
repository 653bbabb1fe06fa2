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

std::optional<std::uint32_t> CardIndexOf(std::uint32_t card) {
  if (card == PA_INVALID_INDEX) return std::nullopt;
  return card;
}

// Sources and sinks hand over their ports in the same shape under different type names.
template <class PortInfo>
void CopyPorts(PortInfo* const* ports, std::uint32_t count, const PortInfo* active,
               PulseEndpoint& endpoint) {
  for (std::uint32_t i = 0; ports && i < count && ports[i]; ++i) {
    endpoint.ports.push_back(PulsePort{TextOf(ports[i]->name), TextOf(ports[i]->description)});
  }
  if (active) endpoint.activePortName = TextOf(active->name);
}

}  // namespace

PulseEndpoint PulseEndpointFromSourceInfo(const pa_source_info& info) {
  PulseEndpoint endpoint;
  endpoint.kind = PulseEndpointKind::Source;
  endpoint.index = info.index;
  endpoint.name = TextOf(info.name);
  endpoint.description = TextOf(info.description);
  endpoint.cardIndex = CardIndexOf(info.card);
  endpoint.isMonitor = info.monitor_of_sink != PA_INVALID_INDEX;
  endpoint.state = StateOf(info.state);
  CopyPorts(info.ports, info.n_ports, info.active_port, endpoint);
  endpoint.properties = PropertiesOf(info.proplist);
  return endpoint;
}

PulseEndpoint PulseEndpointFromSinkInfo(const pa_sink_info& info) {
  PulseEndpoint endpoint;
  endpoint.kind = PulseEndpointKind::Sink;
  endpoint.index = info.index;
  endpoint.name = TextOf(info.name);
  endpoint.description = TextOf(info.description);
  endpoint.cardIndex = CardIndexOf(info.card);
  endpoint.state = StateOf(info.state);
  CopyPorts(info.ports, info.n_ports, info.active_port, endpoint);
  endpoint.properties = PropertiesOf(info.proplist);
  return endpoint;
}

PulseCard PulseCardFromCardInfo(const pa_card_info& info) {
  return PulseCard{info.index, TextOf(info.name), PropertiesOf(info.proplist)};
}

PulseRecordingStream PulseRecordingStreamFromSourceOutputInfo(const pa_source_output_info& info) {
  const bool peaks = info.resample_method && std::strcmp(info.resample_method, "peaks") == 0;
  return PulseRecordingStream{info.index, info.source, info.corked != 0, peaks};
}

}  // namespace harkwell
