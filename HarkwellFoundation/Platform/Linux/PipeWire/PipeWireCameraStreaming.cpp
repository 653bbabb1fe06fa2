#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireCameraStreaming.h"

#include <algorithm>
#include <array>

namespace harkwell {
namespace {

constexpr const char* kCameraClass = "Video/Source";
// What the answers depend on; other properties change without concerning any camera.
constexpr std::array<const char*, 3> kCameraNodeKeys = {"media.class", "api.v4l2.path",
                                                        "object.path"};

bool ServesOneOf(const PipeWireNode& node, const std::vector<std::string>& nodePaths) {
  if (PipeWirePropertyOf(node.properties, "media.class") != kCameraClass) return false;
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

PipeWireGraph PipeWireCameraPart(const PipeWireGraph& graph) {
  PipeWireGraph cameras;
  for (const auto& [id, node] : graph.nodes) {
    if (PipeWirePropertyOf(node.properties, "media.class") != kCameraClass) continue;
    PipeWireNode kept{id, node.state, {}};
    for (const char* key : kCameraNodeKeys) {
      if (auto value = PipeWirePropertyOf(node.properties, key)) kept.properties[key] = *value;
    }
    cameras.nodes.emplace(id, std::move(kept));
  }
  for (const auto& [id, link] : graph.links) {
    if (cameras.nodes.count(link.outputNodeID) != 0) cameras.links.emplace(id, link);
  }
  return cameras;
}

}  // namespace harkwell
