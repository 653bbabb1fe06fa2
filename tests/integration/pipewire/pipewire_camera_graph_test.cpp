// The V4L2 service following a real PipeWire daemon's graph, as the library starts it where a
// daemon answers: a camera that PipeWire serves runs while a client takes its frames through
// PipeWire, not while PipeWire merely holds its node.
//
// PipeWire cannot open a camera of a fake tree (its V4L2 plugin needs a real video device), so the
// pieces a camera would give are made from PipeWire's own programs on a private stack:
//   - the node file is a named pipe, which pipewire-pulse (whose executable is pipewire) holds open
//     through its pipe-source module, as the daemon holds a camera's node while nobody watches;
//   - the camera's PipeWire node is the output half of a pw-loopback, carrying the properties
//     PipeWire's camera monitor gives a camera's node (media.class Video/Source, device.api v4l2,
//     api.v4l2.path and object.path naming the node file), its ports set up with a PortConfig;
//   - the client is pw-record, linked to that node with pw-link.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/MediaServerProcesses.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/ProcessNodeScanner.h"
#include "HarkwellFoundation/Platform/Linux/V4L2ServiceWithMediaServers.h"
#include "tests/support/CameraControllerWatch.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FakeV4L2Tree.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PipeWireGraphSnapshot.h"
#include "tests/support/PrivatePipeWireStack.h"
#include "tests/support/Waiting.h"

namespace harkwell::testing {
namespace {

constexpr const char* kCameraNode = "v4l2_input.harkwell_test_camera";
constexpr const char* kHolderSource = "harkwell_camera_holder";
constexpr const char* kConsumer = "harkwell_camera_consumer";
const ObjectID kWebcam = StableDeviceIDHome(StableIDSpace::Video, "usb:046d:0825:A1B2C3@1-2:1.0");

// The ports of the node named `nodeName` in `direction` ("in", "out").
std::vector<std::string> PortNames(const PipeWireGraphSnapshot& graph, const std::string& nodeName,
                                   const std::string& direction) {
  std::vector<std::string> names;
  const PipeWireObject* node = graph.nodeNamed(nodeName);
  if (!node) return names;
  for (const PipeWireObject& object : graph.objects) {
    if (object.type == "Port" && object.property("node.id") == std::to_string(node->id) &&
        object.property("port.direction") == direction) {
      names.push_back(object.property("port.name"));
    }
  }
  return names;
}

class PipeWireCameraGraphTest : public ::testing::Test {
 protected:
  void TearDown() override {
    watch.stopObserving();
    if (service) service->waitForPendingChanges();
    DrainQueue(watch.queue);
    watch.restoreServices();
  }

  // A USB camera whose capture node is a named pipe, and its metadata node.
  void plugCamera() {
    const std::string usb = tree.addUsbInterface({.port = "1-2"});
    tree.addNode({.entry = "video0", .index = 0, .minor = 0, .parent = usb, .withDevNode = false});
    tree.addNode({.entry = "video1", .index = 1, .minor = 1, .parent = usb});
    ASSERT_TRUE(tree.createFifoDevNode("video0"));
  }

  // pipewire-pulse holds the capture node open (its pipe-source module reads from it), and is
  // seen doing so as a process whose executable is a media server's.
  void holdNodeInMediaServer() {
    const std::string node = tree.devNodePath("video0");
    ASSERT_EQ(stack.runToEnd({"pactl", "load-module", "module-pipe-source", "file=" + node,
                              "source_name=" + std::string(kHolderSource)},
                             "pactl"),
              "");
    ASSERT_EQ(stack.waitForNode(kHolderSource), "");
    const auto scan = v4l2::ProcessNodeScanner("/proc", ::getpid()).scan({node});
    ASSERT_EQ(scan.holders.size(), 1u);
    ASSERT_EQ(scan.holders[0].size(), 1u) << "the node should be held by pipewire-pulse alone";
    EXPECT_EQ(v4l2::ProcessExecutableName("/proc", scan.holders[0][0]), "pipewire");
  }

  // The camera's node in PipeWire's graph, with output ports and nothing linked to it.
  void startCameraNode() {
    const std::string node = tree.devNodePath("video0");
    std::string error;
    ASSERT_TRUE(cameraFeed.start(
        {"pw-loopback", "--capture-props",
         "{ node.name=harkwell_camera_feed node.autoconnect=false }", "--playback-props",
         std::string("{ node.name=") + kCameraNode +
             " node.description=\"Harkwell Test Camera\" media.class=Video/Source device.api=v4l2"
             " api.v4l2.path=\"" +
             node + "\" object.path=\"v4l2:" + node + "\" node.autoconnect=false }"},
        stack.clientEnvironment(), stack.folder() + "/pw-loopback.log", &error))
        << error;
    ASSERT_EQ(stack.waitForNode(kCameraNode), "");
    // The session manager sets up ports for sound nodes only; a camera's node gets them here.
    const auto graph = PipeWireGraphSnapshot::take(stack.remote());
    ASSERT_TRUE(graph && graph->nodeNamed(kCameraNode));
    ASSERT_EQ(stack.runToEnd({"pw-cli", "set-param",
                              std::to_string(graph->nodeNamed(kCameraNode)->id), "PortConfig",
                              "{ direction: Output, mode: dsp, format: { mediaType: audio, "
                              "mediaSubtype: raw, format: F32P, rate: 48000, channels: 2, "
                              "position: [ FL FR ] } }"},
                             "pw-cli"),
              "");
    ASSERT_EQ(WaitForPipeWireGraph(stack.remote(),
                                   [](const PipeWireGraphSnapshot& snapshot) {
                                     return PortNames(snapshot, kCameraNode, "out").size() == 2;
                                   }),
              "");
  }

  // A client that takes the camera's frames through PipeWire.
  void startConsumer() {
    std::string error;
    ASSERT_TRUE(consumer.start(
        {"pw-record", "-P", std::string("{ node.name=") + kConsumer + " node.autoconnect=false }",
         "/dev/null"},
        stack.clientEnvironment(), stack.folder() + "/pw-record.log", &error))
        << error;
    ASSERT_EQ(WaitForPipeWireGraph(stack.remote(),
                                   [](const PipeWireGraphSnapshot& snapshot) {
                                     return PortNames(snapshot, kConsumer, "in").size() == 2;
                                   }),
              "");
    for (const char* channel : {"FL", "FR"}) {
      ASSERT_EQ(stack.runToEnd({"pw-link", std::string(kCameraNode) + ":capture_" + channel,
                                std::string(kConsumer) + ":input_" + channel},
                               "pw-link"),
                "");
    }
  }

  // The service as the library makes it, following the daemon at `remote` if one answers there.
  void startObserving(const std::string& remote) {
    service = MakeV4L2ServiceWithMediaServers({.sysfsRoot = tree.sysfsRoot(),
                                               .devRoot = tree.devRoot(),
                                               .procRoot = "/proc",
                                               .udevDataRoot = tree.udevDataRoot()},
                                              remote);
    ASSERT_TRUE(service);
    watch.observe(service);
  }

  std::vector<bool> runningChanges() const {
    std::vector<bool> changes;
    for (const auto& each : watch.eventsOfKind(MediaDeviceEvent::ChangedRunning)) {
      if (each.device.deviceID == kWebcam) changes.push_back(each.device.isRunning);
    }
    return changes;
  }

  // Lets the service handle what happened so far and the client hear of it.
  void settle() {
    service->waitForPendingChanges();
    DrainQueue(watch.queue);
  }

  LogCapture log;
  PrivatePipeWireStack stack;
  FakeV4L2Tree tree;
  ChildProcess cameraFeed;
  ChildProcess consumer;
  CameraControllerWatch watch;
  std::shared_ptr<V4L2HardwareService> service;
};

TEST_F(PipeWireCameraGraphTest,
       CameraRunsWhileAClientStreamsThroughPipeWireNotWhileItHoldsTheNode) {
  ASSERT_EQ(stack.start(), "");
  ASSERT_NO_FATAL_FAILURE(plugCamera());
  ASSERT_NO_FATAL_FAILURE(holdNodeInMediaServer());
  ASSERT_NO_FATAL_FAILURE(startCameraNode());
  ASSERT_NO_FATAL_FAILURE(startObserving(stack.remote()));
  ASSERT_EQ(watch.controller->connectedDevices().size(), 1u);

  // Held by the media server, listed in its graph, streamed to nobody.
  settle();
  EXPECT_TRUE(runningChanges().empty());

  ASSERT_NO_FATAL_FAILURE(startConsumer());
  ASSERT_TRUE(watch.waitForEvent(MediaDeviceEvent::ChangedRunning, 1)) << stack.output();
  EXPECT_EQ(runningChanges(), std::vector<bool>{true});

  // The client goes; the server still holds the node.
  consumer.stop(SIGTERM, std::chrono::seconds(5));
  ASSERT_TRUE(watch.waitForEvent(MediaDeviceEvent::ChangedRunning, 2)) << stack.output();
  EXPECT_EQ(runningChanges(), (std::vector<bool>{true, false}));
  // The audio service's connection reports the daemon; the cameras' one says nothing.
  EXPECT_EQ(log.lines(), std::vector<std::string>{});
}

TEST_F(PipeWireCameraGraphTest, TheMediaServerFeedsTheClientItStreamsTo) {
  ASSERT_EQ(stack.start(), "");
  ASSERT_NO_FATAL_FAILURE(plugCamera());
  ASSERT_NO_FATAL_FAILURE(holdNodeInMediaServer());
  ASSERT_NO_FATAL_FAILURE(startCameraNode());
  ASSERT_NO_FATAL_FAILURE(startObserving(stack.remote()));
  Recorder<std::vector<MediaDeviceConsumer>> lists;
  watch.controller->setDeviceConsumersHandler(
      [&lists](const MediaDevice&, const std::vector<MediaDeviceConsumer>& consumers) {
        lists.append(consumers);
      });
  // The server holds the node and streams it to nobody.
  const auto servesNobody = [](const std::vector<std::vector<MediaDeviceConsumer>>& seen) {
    return !seen.empty() && seen.back().size() == 1 &&
           seen.back()[0].kind == MediaDeviceConsumerKind::MediaServer &&
           seen.back()[0].executablePath == "/usr/bin/pipewire" && seen.back()[0].feeds.empty();
  };
  ASSERT_TRUE(lists.waitUntil(servesNobody)) << ::testing::PrintToString(lists.entries());

  ASSERT_NO_FATAL_FAILURE(startConsumer());
  const pid_t recorder = consumer.pid();
  ASSERT_TRUE(lists.waitUntil([recorder](const auto& seen) {
    if (seen.empty() || seen.back().size() != 1 || seen.back()[0].feeds.size() != 1) return false;
    const MediaDeviceConsumer& fed = seen.back()[0].feeds[0];
    return fed.processID == recorder && fed.isProcessIDVerified && fed.processName == "pw-record" &&
           fed.kind == MediaDeviceConsumerKind::Application;
  })) << ::testing::PrintToString(lists.entries());

  consumer.stop(SIGTERM, std::chrono::seconds(5));
  ASSERT_TRUE(lists.waitUntil(servesNobody)) << ::testing::PrintToString(lists.entries());
  watch.controller->setDeviceConsumersHandler(nullptr);
  settle();
}

TEST_F(PipeWireCameraGraphTest, WithoutADaemonTheServiceStartsWithoutAGraphAndSaysNothing) {
  ASSERT_NO_FATAL_FAILURE(plugCamera());
  // Nothing listens there: the stack was never started.
  ASSERT_NO_FATAL_FAILURE(startObserving(stack.remote()));

  ASSERT_EQ(watch.controller->connectedDevices().size(), 1u);
  EXPECT_FALSE(watch.controller->connectedDevices()[0].isRunning);
  EXPECT_EQ(log.lines(), std::vector<std::string>{});
}

}  // namespace
}  // namespace harkwell::testing
