#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireCameraStreaming.h"

#include <algorithm>
#include <array>
#include <set>

#include "HarkwellFoundation/Platform/Linux/AudioDeviceConsumers.h"
#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireDeviceMapping.h"

namespace harkwell {
namespace {

constexpr const char* kCameraClass = "Video/Source";
// What the answers depend on; other properties change without concerning any camera.
constexpr std::array<const char*, 3> kCameraNodeKeys = {"media.class", "api.v4l2.path",
                                                        "object.path"};

// What says who a node the camera streams to belongs to.
constexpr std::array<const char*, 6> kClientNodeKeys = {
    "client.id",       "client.api", "application.name", "application.id", "application.process.id",
    "pipewire.sec.pid"};

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

std::optional<std::vector<MediaDeviceConsumer>> PipeWireCameraClients(
    const PipeWireGraph& graph, const std::vector<std::string>& nodePaths) {
  std::optional<std::vector<MediaDeviceConsumer>> clients;
  std::set<std::uint32_t> clientNodes;
  for (const auto& [id, node] : graph.nodes) {
    if (!ServesOneOf(node, nodePaths)) continue;
    if (!clients) clients.emplace();
    for (const auto& [linkID, link] : graph.links) {
      if (link.outputNodeID == id && link.inputNodeID != id &&
          link.state != PipeWireLinkState::Error && link.state != PipeWireLinkState::Unlinked) {
        clientNodes.insert(link.inputNodeID);
      }
    }
  }
  if (!clients) return std::nullopt;
  for (const std::uint32_t nodeID : clientNodes) {
    const auto node = graph.nodes.find(nodeID);
    if (node == graph.nodes.end()) continue;
    MediaDeviceConsumer consumer;
    const PipeWireClient* client = PipeWireClientOf(node->second, graph);
    // Cameras are not served through pipewire-pulse, so no client's socket PID is a server's own.
    ApplyAudioClientIdentity(
        consumer, client ? AudioClientIdentity::of(client->properties) : AudioClientIdentity(), {},
        AudioClientIdentity::of(node->second.properties));
    clients->push_back(std::move(consumer));
  }
  return clients;
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
  // The nodes the cameras stream to, whole, and their clients: who the camera's consumers are.
  for (const auto& [id, link] : cameras.links) {
    const auto node = graph.nodes.find(link.inputNodeID);
    if (node == graph.nodes.end() || cameras.nodes.count(node->first) != 0) continue;
    // Only who the node is: its state and other properties change while it streams.
    PipeWireNode kept{node->first, PipeWireNodeState::Creating, {}};
    for (const char* key : kClientNodeKeys) {
      if (auto value = PipeWirePropertyOf(node->second.properties, key))
        kept.properties[key] = *value;
    }
    cameras.nodes.emplace(node->first, std::move(kept));
    if (const PipeWireClient* client = PipeWireClientOf(node->second, graph)) {
      cameras.clients.emplace(client->id, *client);
    }
  }
  return cameras;
}

}  // namespace harkwell
