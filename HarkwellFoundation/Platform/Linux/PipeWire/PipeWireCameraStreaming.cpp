#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireCameraStreaming.h"

#include <algorithm>

namespace harkwell {
namespace {

bool ServesOneOf(const PipeWireNode& node, const std::vector<std::string>& nodePaths) {
  if (PipeWirePropertyOf(node.properties, "media.class") != "Video/Source") return false;
  const auto path = PipeWirePropertyOf(node.properties, "api.v4l2.path");
  const auto objectPath = PipeWirePropertyOf(node.properties, "object.path");
  return std::any_of(nodePaths.begin(), nodePaths.end(), [&](const std::string& nodePath) {
    return path == nodePath || objectPath == "v4l2:" + nodePath;
  });
}

}  // namespace

std::optional<bool> PipeWireStreamsCamera(const PipeWireGraph& graph,
                                          const std::vector<std::string>& nodePaths) {
  std::optional<bool> streams;
  for (const auto& [id, node] : graph.nodes) {
    if (!ServesOneOf(node, nodePaths)) continue;
    if (!streams) streams = false;
    if (node.state != PipeWireNodeState::Running) continue;
    for (const auto& [linkID, link] : graph.links) {
      if (link.outputNodeID == id && link.inputNodeID != id &&
          link.state == PipeWireLinkState::Active) {
        return true;
      }
    }
  }
  return streams;
}

}  // namespace harkwell
