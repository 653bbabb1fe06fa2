// A media server's own view of the cameras it serves: which of them it streams to a client right
// now. The V4L2 service asks it about a camera whose node a media server holds or maps
// (MediaServerProcesses.h), since the server's descriptors and mappings say little about its
// clients; PipeWireCameraGraph answers from PipeWire's live graph.
//
// Owned jointly by whoever made it and the V4L2 service that was given it; it lives until both
// let go.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2SysfsReader.h"

namespace harkwell::v4l2 {

class MediaServerGraph {
 public:
  virtual ~MediaServerGraph() = default;

  // Does the server stream `camera` for a client right now? Absent: the server does not know the
  // camera, and its mappings decide. Answers from memory without waiting; any thread may ask.
  virtual std::optional<bool> streamsCamera(const CameraDescription& camera) = 0;

  // The clients the server streams `camera` to right now, as the consumers at the end of its
  // chains (process IDs as the server knows them). Absent: the server does not know the camera,
  // or this graph cannot tell who its clients are (the default). Answers from memory without
  // waiting; any thread may ask. A change of the answer is reported like any other.
  virtual std::optional<std::vector<MediaDeviceConsumer>> clientsOfCamera(
      const CameraDescription& camera) {
    static_cast<void>(camera);
    return std::nullopt;
  }

  // Calls `handler` whenever an answer may have changed, on a thread of the graph's own; the
  // handler must return at once and must not call back into the graph. Replaces the handler set
  // before; once this returns, that one is not running and never runs again. An empty handler
  // stops the calls.
  virtual void setChangeHandler(std::function<void()> handler) = 0;
};

}  // namespace harkwell::v4l2
