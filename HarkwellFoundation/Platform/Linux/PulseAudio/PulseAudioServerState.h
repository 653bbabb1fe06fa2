// What the library keeps of a PulseAudio server's state: plain copies of the sources, sinks, cards,
// clients, recording streams and playback streams that libpulse reports, keyed by the server's own
// indexes. The connection fills one on libpulse's loop thread; everything else receives copies.
// Values only: no libpulse object is referenced after a conversion returns.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

// libpulse's records, as its introspection callbacks hand them over.
struct pa_source_info;
struct pa_sink_info;
struct pa_card_info;
struct pa_client_info;
struct pa_source_output_info;
struct pa_sink_input_info;

namespace harkwell {

// A proplist's string entries ("device.bus" -> "usb"), found by any string-like key.
using PulseProperties = std::map<std::string, std::string, std::less<>>;

enum class PulseEndpointKind { Source, Sink };

// The server's device states, which sources and sinks share.
enum class PulseEndpointState { Running, Idle, Suspended, Invalid };

// A port of a source or sink: a jack, a built-in microphone, a line input.
struct PulsePort {
  std::string name;
  std::string description;

  friend bool operator==(const PulsePort&, const PulsePort&) = default;
};

// A source or a sink.
struct PulseEndpoint {
  PulseEndpointKind kind = PulseEndpointKind::Source;
  std::uint32_t index = 0;
  std::string name;
  std::string description;
  std::optional<std::uint32_t> cardIndex;      // absent for devices no card owns (null sinks)
  bool isMonitor = false;                      // a source that records what a sink plays
  std::optional<std::uint32_t> monitoredSink;  // the sink a monitor source records
  // The module that made the device (a null source, a filter); absent for none.
  std::optional<std::uint32_t> ownerModule;
  PulseEndpointState state = PulseEndpointState::Invalid;
  std::vector<PulsePort> ports;
  std::optional<std::string> activePortName;  // absent when the device has no ports
  PulseProperties properties;

  friend bool operator==(const PulseEndpoint&, const PulseEndpoint&) = default;
};

struct PulseCard {
  std::uint32_t index = 0;
  std::string name;
  PulseProperties properties;

  friend bool operator==(const PulseCard&, const PulseCard&) = default;
};

// A program connected to the server (or, on pipewire-pulse, any PipeWire client): its properties
// say who it is ("application.name", "application.process.id", on pipewire-pulse
// "pipewire.sec.pid").
struct PulseClient {
  std::uint32_t index = 0;
  PulseProperties properties;

  friend bool operator==(const PulseClient&, const PulseClient&) = default;
};

// A source output: a stream that records from a source.
struct PulseRecordingStream {
  std::uint32_t index = 0;
  std::uint32_t sourceIndex = 0;
  bool corked = false;
  // A level meter: the server feeds it peaks instead of samples, as volume-control programs ask
  // for. PulseAudio tells by the resample method "peaks"; pipewire-pulse reports "PipeWire" there
  // and marks the stream with "stream.monitor" or "resample.peaks" set to "true".
  bool levelMeter = false;
  // What ties a filter's halves together: the module that opened the stream itself, with no client
  // (PulseAudio's filter modules own their streams and the device they offer; a client's streams
  // are left without one), and PipeWire's "node.link-group".
  std::optional<std::uint32_t> ownerModule;
  std::optional<std::string> linkGroup;
  // The client that opened it (absent for a module's own stream), and the stream's properties.
  std::optional<std::uint32_t> client;
  PulseProperties properties;

  friend bool operator==(const PulseRecordingStream&, const PulseRecordingStream&) = default;
};

// A sink input: a stream that plays to a sink.
struct PulsePlaybackStream {
  std::uint32_t index = 0;
  std::uint32_t sinkIndex = 0;
  bool corked = false;
  // As for recording streams.
  std::optional<std::uint32_t> ownerModule;
  std::optional<std::string> linkGroup;
  std::optional<std::uint32_t> client;
  PulseProperties properties;

  friend bool operator==(const PulsePlaybackStream&, const PulsePlaybackStream&) = default;
};

struct PulseServerState {
  std::map<std::uint32_t, PulseEndpoint> sources;
  std::map<std::uint32_t, PulseEndpoint> sinks;
  std::map<std::uint32_t, PulseCard> cards;
  std::map<std::uint32_t, PulseClient> clients;
  std::map<std::uint32_t, PulseRecordingStream> recordingStreams;
  std::map<std::uint32_t, PulsePlaybackStream> playbackStreams;

  friend bool operator==(const PulseServerState&, const PulseServerState&) = default;
};

// Copies of libpulse's records. Null strings become empty ones; a record's proplist may be null.
PulseEndpoint PulseEndpointFromSourceInfo(const pa_source_info& info);
PulseEndpoint PulseEndpointFromSinkInfo(const pa_sink_info& info);
PulseCard PulseCardFromCardInfo(const pa_card_info& info);
PulseClient PulseClientFromClientInfo(const pa_client_info& info);
PulseRecordingStream PulseRecordingStreamFromSourceOutputInfo(const pa_source_output_info& info);
PulsePlaybackStream PulsePlaybackStreamFromSinkInputInfo(const pa_sink_input_info& info);

}  // namespace harkwell
