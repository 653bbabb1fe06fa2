// The V4L2 service as the library and the harkwell program start it on a real machine: with
// PipeWire's live graph as its media-server view (PipeWireCameraGraph.h) when the library is built
// with PipeWire and a PipeWire daemon answers at start-up, so that PipeWire's clients, not its
// idle descriptors, decide whether a camera it serves is running. Without a daemon the service
// has no graph, and a media server makes a camera running only while it maps the camera's
// buffers. A daemon that starts later is not followed: waiting for one that may never come would
// mean retrying for ever, which a service that does nothing while idle must not.
//
// Blocks the calling thread: the daemon gets at most a second to answer and another to hand over
// its graph.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2HardwareService.h"

namespace harkwell {

// `pipewireRemote`: the daemon's socket, a name in the runtime folder or a path; absent:
// libpipewire's usual choice (PIPEWIRE_REMOTE, else "pipewire-0"). A graph already set in
// `options` is kept.
std::shared_ptr<V4L2HardwareService> MakeV4L2ServiceWithMediaServers(
    V4L2HardwareService::Options options,
    const std::optional<std::string>& pipewireRemote = std::nullopt);

}  // namespace harkwell
