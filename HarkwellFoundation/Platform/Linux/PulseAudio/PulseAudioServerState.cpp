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

// Sources and sinks hand over the same fields, ports included, under different type names.
template <class Info>
PulseEndpoint EndpointFrom(const Info& info, PulseEndpointKind kind) {
  PulseEndpoint endpoint;
  endpoint.kind = kind;
  endpoint.index = info.index;
  endpoint.name = TextOf(info.name);
  endpoint.description = TextOf(info.description);
  if (info.card != PA_INVALID_INDEX) endpoint.cardIndex = info.card;
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
  endpoint.isMonitor = info.monitor_of_sink != PA_INVALID_INDEX;
  return endpoint;
}

PulseEndpoint PulseEndpointFromSinkInfo(const pa_sink_info& info) {
  return EndpointFrom(info, PulseEndpointKind::Sink);
}

PulseCard PulseCardFromCardInfo(const pa_card_info& info) {
  return PulseCard{info.index, TextOf(info.name), PropertiesOf(info.proplist)};
}

PulseRecordingStream PulseRecordingStreamFromSourceOutputInfo(const pa_source_output_info& info) {
  const bool peaks = info.resample_method && std::strcmp(info.resample_method, "peaks") == 0;
  return PulseRecordingStream{info.index, info.source, info.corked != 0, peaks};
}

}  // namespace harkwell
