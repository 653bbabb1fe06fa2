// Whether PipeWire streams a camera, read from graph values without a daemon: the answer the V4L2
// service takes from a media server's own graph.
#include <gtest/gtest.h>

#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireCameraStreaming.h"

namespace harkwell {
namespace {

const std::vector<std::string> kCameraNodes = {"/dev/video0", "/dev/video1"};

PipeWireNode CameraNode(std::uint32_t id, PipeWireNodeState state,
                        const std::string& path = "/dev/video0") {
  return PipeWireNode{id, state, {{"media.class", "Video/Source"}, {"api.v4l2.path", path}}};
}

PipeWireLink Link(std::uint32_t id, std::uint32_t from, std::uint32_t to, PipeWireLinkState state) {
  return PipeWireLink{.id = id, .outputNodeID = from, .inputNodeID = to, .state = state};
}

TEST(PipeWireCameraStreaming, CameraUnknownToTheGraphHasNoAnswer) {
  PipeWireGraph graph;
  graph.nodes[40] = CameraNode(40, PipeWireNodeState::Running, "/dev/video4");
  graph.nodes[41] = PipeWireNode{41, PipeWireNodeState::Running, {{"media.class", "Audio/Source"}}};

  EXPECT_EQ(PipeWireStreamsCamera(graph, kCameraNodes), std::nullopt);
}

TEST(PipeWireCameraStreaming, RunningNodeWithAnActiveLinkToAConsumerStreams) {
  PipeWireGraph graph;
  graph.nodes[40] = CameraNode(40, PipeWireNodeState::Running);
  graph.nodes[50] =
      PipeWireNode{50, PipeWireNodeState::Running, {{"media.class", "Stream/Input/Video"}}};
  graph.links[60] = Link(60, 40, 50, PipeWireLinkState::Active);

  EXPECT_EQ(PipeWireStreamsCamera(graph, kCameraNodes), true);
}

TEST(PipeWireCameraStreaming, IdleSuspendedOrUnlinkedNodesDoNotStream) {
  PipeWireGraph graph;
  graph.nodes[40] = CameraNode(40, PipeWireNodeState::Idle);
  graph.nodes[50] = PipeWireNode{50, PipeWireNodeState::Running, {}};
  graph.links[60] = Link(60, 40, 50, PipeWireLinkState::Active);
  EXPECT_EQ(PipeWireStreamsCamera(graph, kCameraNodes), false);

  graph.nodes[40].state = PipeWireNodeState::Running;
  graph.links[60].state = PipeWireLinkState::Paused;
  EXPECT_EQ(PipeWireStreamsCamera(graph, kCameraNodes), false);

  graph.links.clear();
  EXPECT_EQ(PipeWireStreamsCamera(graph, kCameraNodes), false);
}

TEST(PipeWireCameraStreaming, NodeNamedByItsObjectPathCountsToo) {
  PipeWireGraph graph;
  graph.nodes[40] =
      PipeWireNode{40,
                   PipeWireNodeState::Running,
                   {{"media.class", "Video/Source"}, {"object.path", "v4l2:/dev/video1"}}};
  graph.nodes[50] = PipeWireNode{50, PipeWireNodeState::Running, {}};
  graph.links[60] = Link(60, 40, 50, PipeWireLinkState::Active);

  EXPECT_EQ(PipeWireStreamsCamera(graph, kCameraNodes), true);
}

}  // namespace
}  // namespace harkwell
