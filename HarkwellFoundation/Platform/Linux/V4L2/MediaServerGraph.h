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

#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2SysfsReader.h"

namespace harkwell::v4l2 {

class MediaServerGraph {
 public:
  virtual ~MediaServerGraph() = default;

  // Does the server stream `camera` for a client right now? Absent: the server does not know the
  // camera, and its mappings decide. Answers from memory without waiting; any thread may ask.
  virtual std::optional<bool> streamsCamera(const CameraDescription& camera) = 0;

  // Calls `handler` whenever an answer may have changed, on a thread of the graph's own; the
  // handler must return at once and must not call back into the graph. Replaces the handler set
  // before; once this returns, that one is not running and never runs again. An empty handler
  // stops the calls.
  virtual void setChangeHandler(std::function<void()> handler) = 0;
};

}  // namespace harkwell::v4l2
