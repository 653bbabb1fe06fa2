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

  ASSERT_EQ(part.nodes.size(), 2u);
  EXPECT_EQ(part.nodes.at(50).properties, PipeWireProperties{});
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

// A camera streamed to a browser (a native client whose socket PID the daemon knows) and to a
// recorder that only claims its PID.
PipeWireGraph CameraWithClients() {
  PipeWireGraph graph = DesktopGraph();
  graph.nodes[50].properties["client.id"] = "70";
  graph.clients[70] = PipeWireClient{70,
                                     {{"pipewire.sec.pid", "4100"},
                                      {"application.process.id", "1"},
                                      {"application.name", "Firefox"},
                                      {"application.id", "org.mozilla.firefox"}}};
  graph.nodes[53] = PipeWireNode{53,
                                 PipeWireNodeState::Running,
                                 {{"media.class", "Stream/Input/Video"},
                                  {"application.name", "Recorder"},
                                  {"application.process.id", "4200"}}};
  graph.links[62] = Link(62, 40, 53, PipeWireLinkState::Paused);
  return graph;
}

TEST(PipeWireCameraClients, EachLinkedNodeIsAClientWithItsProcessAndApplication) {
  const auto clients = PipeWireCameraClients(CameraWithClients(), kCameraNodes);
  ASSERT_TRUE(clients.has_value());
  ASSERT_EQ(clients->size(), 2u);
  EXPECT_EQ(clients->at(0).processID, 4100);
  EXPECT_TRUE(clients->at(0).isProcessIDVerified);
  EXPECT_EQ(clients->at(0).applicationName, "Firefox");
  EXPECT_EQ(clients->at(0).applicationID, "org.mozilla.firefox");
  EXPECT_EQ(clients->at(0).kind, MediaDeviceConsumerKind::Application);
  EXPECT_EQ(clients->at(1).processID, 4200);
  EXPECT_FALSE(clients->at(1).isProcessIDVerified);
  EXPECT_EQ(clients->at(1).applicationName, "Recorder");
}

TEST(PipeWireCameraClients, AnUnknownCameraHasNoAnswerAndAnUnlinkedOneNoClients) {
  EXPECT_EQ(PipeWireCameraClients(CameraWithClients(), {"/dev/video9"}), std::nullopt);
  PipeWireGraph graph = CameraWithClients();
  graph.links.clear();
  EXPECT_EQ(PipeWireCameraClients(graph, kCameraNodes), std::vector<MediaDeviceConsumer>{});
  graph = CameraWithClients();
  graph.links[60].state = PipeWireLinkState::Unlinked;
  graph.links[62].state = PipeWireLinkState::Error;
  EXPECT_EQ(PipeWireCameraClients(graph, kCameraNodes), std::vector<MediaDeviceConsumer>{});
}

TEST(PipeWireCameraClients, TheCameraPartAnswersAsTheWholeGraphAndFollowsWhoTheClientsAre) {
  const PipeWireGraph whole = CameraWithClients();
  EXPECT_EQ(PipeWireCameraClients(PipeWireCameraPart(whole), kCameraNodes),
            PipeWireCameraClients(whole, kCameraNodes));
  PipeWireGraph renamed = whole;
  renamed.clients[70].properties["application.name"] = "Firefox Nightly";
  EXPECT_NE(PipeWireCameraPart(renamed), PipeWireCameraPart(whole));
}

}  // namespace
}  // namespace harkwell
