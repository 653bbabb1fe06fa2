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

// A graph with a camera's node, a sound card's microphone, a recorder of that microphone, and a
// client of the camera, each linked.
PipeWireGraph DesktopGraph() {
  PipeWireGraph graph;
  graph.nodes[40] = CameraNode(40, PipeWireNodeState::Running);
  graph.nodes[40].properties["node.description"] = "Webcam";
  graph.nodes[41] = PipeWireNode{41, PipeWireNodeState::Running, {{"media.class", "Audio/Source"}}};
  graph.nodes[50] =
      PipeWireNode{50, PipeWireNodeState::Running, {{"media.class", "Stream/Input/Video"}}};
  graph.nodes[51] =
      PipeWireNode{51, PipeWireNodeState::Running, {{"media.class", "Stream/Input/Audio"}}};
  graph.links[60] = Link(60, 40, 50, PipeWireLinkState::Active);
  graph.links[61] = Link(61, 41, 51, PipeWireLinkState::Active);
  return graph;
}

TEST(PipeWireCameraStreaming, CameraPartKeepsCameraNodesTheirNamingPropertiesAndLinksOut) {
  const PipeWireGraph part = PipeWireCameraPart(DesktopGraph());

  ASSERT_EQ(part.nodes.size(), 1u);
  EXPECT_EQ(part.nodes.at(40).properties, (PipeWireProperties{{"media.class", "Video/Source"},
                                                              {"api.v4l2.path", "/dev/video0"}}));
  EXPECT_EQ(part.nodes.at(40).state, PipeWireNodeState::Running);
  ASSERT_EQ(part.links.size(), 1u);
  EXPECT_EQ(part.links.at(60).inputNodeID, 50u);
  EXPECT_EQ(PipeWireStreamsCamera(part, kCameraNodes),
            PipeWireStreamsCamera(DesktopGraph(), kCameraNodes));
}

TEST(PipeWireCameraStreaming, SoundAndUnrelatedChangesLeaveTheCameraPartAsItWas) {
  const PipeWireGraph before = DesktopGraph();
  PipeWireGraph after = before;
  after.nodes[41].state = PipeWireNodeState::Suspended;
  after.nodes.erase(51);
  after.links.erase(61);
  after.nodes[52] = PipeWireNode{52, PipeWireNodeState::Idle, {{"media.class", "Audio/Sink"}}};
  after.nodes[40].properties["node.description"] = "Renamed Webcam";
  after.nodes[50].state = PipeWireNodeState::Idle;  // the client's own state is not asked

  EXPECT_EQ(PipeWireCameraPart(after), PipeWireCameraPart(before));
}

TEST(PipeWireCameraStreaming, CameraStateAndLinkChangesChangeTheCameraPart) {
  const PipeWireGraph before = DesktopGraph();
  PipeWireGraph stateChanged = before;
  stateChanged.nodes[40].state = PipeWireNodeState::Idle;
  PipeWireGraph linkChanged = before;
  linkChanged.links[60].state = PipeWireLinkState::Paused;
  PipeWireGraph linkGone = before;
  linkGone.links.erase(60);

  EXPECT_NE(PipeWireCameraPart(stateChanged), PipeWireCameraPart(before));
  EXPECT_NE(PipeWireCameraPart(linkChanged), PipeWireCameraPart(before));
  EXPECT_NE(PipeWireCameraPart(linkGone), PipeWireCameraPart(before));
}

}  // namespace
}  // namespace harkwell
