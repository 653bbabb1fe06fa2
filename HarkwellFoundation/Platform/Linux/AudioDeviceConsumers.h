// Who uses a Linux audio device, read the same way for every sound server: the streams next to the
// device in the graph of where data flows (ConsumerGraph.h), and the process and application of the
// client behind each stream. Pure functions of values, tested without a server; /proc is read
// elsewhere (ConsumerProcessDetails.h).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Platform/Linux/ConsumerGraph.h"

namespace harkwell {

// What the service shows of the stream under a graph key: its process, application and kind
// (Application, LevelMeter, Monitor or Filter, by what the stream is, paused or not); nullopt for
// a key it does not show.
using DescribeStream =
    std::function<std::optional<MediaDeviceConsumer>(ConsumerGraph::NodeKey stream)>;

// The consumers of `device`, in the order of its flows:
//   - a source's: every stream its flows enter (programs recording, level meters, the recording
//     halves of filters);
//   - a sink's: every stream whose flows enter it (programs playing, the playback halves of
//     filters), and the monitors and level meters that capture what it plays. A filter's half fed
//     by the sink itself is the sink's own plumbing (a filter sink passing on what it takes) and
//     is not listed.
// A Filter's `feeds` are the programs at the far ends of its chains, away from the device
// (ProgramStreamsServedBy), as `describe` shows them. A consumer equal to one already listed (a
// process with two streams) is listed once. Empty for a key that is not a device.
std::vector<MediaDeviceConsumer> AudioDeviceConsumersIn(const ConsumerGraph& graph,
                                                        ConsumerGraph::NodeKey device,
                                                        const DescribeStream& describe);

// How the running rule sees a stream of a consumer's kind that moves data (is not paused).
ConsumerGraph::StreamKind StreamKindForConsumer(MediaDeviceConsumerKind kind);

// What a client says about itself, and what its server adds, in the properties both servers use.
struct AudioClientIdentity {
  // "pipewire.sec.pid": the PID PipeWire (and pipewire-pulse) took from the client's socket.
  std::optional<std::int32_t> socketProcessID;
  // "application.process.id": the PID the client claims.
  std::optional<std::int32_t> claimedProcessID;
  std::optional<std::string> applicationName;  // "application.name"
  std::optional<std::string> applicationID;    // "application.id"
  // "client.api" is "pipewire-pulse": a PulseAudio client that pipewire-pulse serves, whose
  // PipeWire connection is pipewire-pulse's own.
  bool servedByPulseBridge = false;

  // From a property map of either server.
  template <class Properties>
  static AudioClientIdentity of(const Properties& properties);
  static AudioClientIdentity fromLookup(
      const std::function<const std::string*(const char* key)>& lookup);
};

template <class Properties>
AudioClientIdentity AudioClientIdentity::of(const Properties& properties) {
  return fromLookup([&](const char* key) -> const std::string* {
    auto found = properties.find(key);
    return found == properties.end() ? nullptr : &found->second;
  });
}

// The socket PIDs that belong to the sound servers' own connections: those of every client that
// pipewire-pulse does not serve. A bridged client whose socket PID is one of them (pipewire-pulse
// gives each of its clients its own PID) has no credentials of its own.
std::set<std::int32_t> ServerConnectionProcessIDs(const std::vector<AudioClientIdentity>& clients);

// Sets the consumer's process ID and application from the client: the socket's PID, verified,
// unless it is a server connection's (see above); else the claimed PID, unverified; else -1. The
// application's name and ID are the client's, else `fallback`'s (a stream's own properties).
void ApplyAudioClientIdentity(MediaDeviceConsumer& consumer, const AudioClientIdentity& client,
                              const std::set<std::int32_t>& serverConnectionProcessIDs,
                              const AudioClientIdentity& fallback = {});

}  // namespace harkwell
