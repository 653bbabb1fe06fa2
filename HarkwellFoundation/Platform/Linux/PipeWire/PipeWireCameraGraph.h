// PipeWire's live graph as the V4L2 service's media-server view: whether PipeWire streams a camera
// to a client (PipeWireCameraStreaming.h says when), read from a copy of the cameras' part of the
// graph that a connection of its own keeps current.
//
// A connection of its own, not the audio service's: the two services are made, installed and
// replaced independently (the audio one may be PulseAudio, a simulated service, or gone while the
// cameras are still watched), and a shared connection would tie their lifetimes together. The
// price is a second libpipewire client with its own loop thread; it writes no log lines (the audio
// service's connection reports the daemon's comings and goings).
//
// Only the cameras' part of the graph is kept: Video/Source nodes (their state and the properties
// that name their V4L2 node), the links out of them, and the nodes and clients they stream to. A
// change of the daemon's graph calls the change handler only when that part changed, so sound
// streams starting and stopping never wake the V4L2 service. When the daemon goes away the part is
// empty (no answers: the mappings decide) and the connection tries again with growing delays.
//
// Thread-safety: any thread may ask and set the handler. The handler runs on libpipewire's loop
// thread. Lifetime: destroying the graph disconnects and joins that thread; it must not be the
// last reference released on that thread (it never is: nothing there holds one).
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireGraph.h"
#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireGraphConnection.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/MediaServerGraph.h"
#include "HarkwellFoundation/Platform/Mutex.h"

namespace harkwell {

class PipeWireCameraGraph final : public v4l2::MediaServerGraph {
 public:
  struct Options {
    // The daemon's socket, a name in the runtime folder or a path; absent: libpipewire's usual
    // choice (PIPEWIRE_REMOTE, else "pipewire-0").
    std::optional<std::string> remote;
    // How long start() waits for the daemon's whole graph.
    std::chrono::milliseconds startupTimeout{1000};
  };

  // Connects and waits, at most `startupTimeout`, for the daemon's graph, so the first answers
  // already know the cameras. Null only when libpipewire cannot start its loop thread.
  static std::shared_ptr<PipeWireCameraGraph> start(Options options);

  ~PipeWireCameraGraph() override;
  PipeWireCameraGraph(const PipeWireCameraGraph&) = delete;
  PipeWireCameraGraph& operator=(const PipeWireCameraGraph&) = delete;

  std::optional<bool> streamsCamera(const v4l2::CameraDescription& camera) override;
  // The programs PipeWire streams the camera to, with their /proc details.
  std::optional<std::vector<MediaDeviceConsumer>> clientsOfCamera(
      const v4l2::CameraDescription& camera) override;
  void setChangeHandler(std::function<void()> handler) override;

 private:
  PipeWireCameraGraph() = default;

  // On the loop thread: keeps the cameras' part of `graph`, and tells the handler if it changed.
  void takeGraph(const PipeWireGraph& graph);

  Mutex graphMutex_;
  PipeWireGraph cameras_ HARKWELL_GUARDED_BY(graphMutex_);
  // Held while the handler runs, so that replacing it waits for a call under way.
  Mutex handlerMutex_;
  std::function<void()> handler_ HARKWELL_GUARDED_BY(handlerMutex_);
  // Last, so it is destroyed first: no graph arrives while the rest is torn down.
  std::unique_ptr<PipeWireGraphConnection> connection_;
};

}  // namespace harkwell
