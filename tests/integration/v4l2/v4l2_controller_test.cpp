// The V4L2 service under the whole library: a MediaDeviceController observing a fake tree (real
// files) while real processes open and close its nodes. The audio side gets a simulated service
// without devices, so only cameras are reported.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2HardwareService.h"
#include "tests/support/CameraControllerWatch.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FakeV4L2Tree.h"
#include "tests/support/LogCapture.h"
#include "tests/support/V4L2NodeUser.h"
#include "tests/support/Waiting.h"

namespace harkwell::testing {
namespace {

// The ID every process gives the camera that plugUsbCamera() makes on port 1-2.
const ObjectID kWebcam = StableDeviceIDHome(StableIDSpace::Video, "usb:046d:0825:A1B2C3@1-2:1.0");

class V4L2ControllerTest : public ::testing::Test {
 protected:
  void TearDown() override {
    watch.stopObserving();
    if (service) service->waitForPendingChanges();
    DrainQueue(queue);
    watch.restoreServices();
  }

  // Starts the service on the tree and a controller on it; returns once the initial discovery
  // has been delivered.
  void startObserving() {
    service = V4L2HardwareService::create({.sysfsRoot = tree.sysfsRoot(),
                                           .devRoot = tree.devRoot(),
                                           .procRoot = "/proc",
                                           .udevDataRoot = tree.udevDataRoot()});
    watch.observe(service);
  }

  // Adds a USB camera with a capture node and a metadata node; their /dev nodes come last, the
  // way they do on a machine.
  void plugUsbCamera(const std::string& port = "1-2", unsigned firstMinor = 0) {
    const std::string usb = tree.addUsbInterface({.port = port});
    const std::string capture = "video" + std::to_string(firstMinor);
    const std::string metadata = "video" + std::to_string(firstMinor + 1);
    tree.addNode(
        {.entry = capture, .index = 0, .minor = firstMinor, .parent = usb, .withDevNode = false});
    tree.addNode({.entry = metadata,
                  .index = 1,
                  .minor = firstMinor + 1,
                  .parent = usb,
                  .withDevNode = false});
    tree.createDevNode(capture);
    tree.createDevNode(metadata);
  }

  bool waitForEvent(MediaDeviceEvent kind, std::size_t count = 1) {
    return watch.waitForEvent(kind, count);
  }
  std::vector<ControllerEvent> eventsOfKind(MediaDeviceEvent kind) const {
    return watch.eventsOfKind(kind);
  }

  // Lets the service and then the controller's queue finish what has happened so far.
  void settle() {
    service->waitForPendingChanges();
    DrainQueue(queue);
  }

  FakeV4L2Tree tree;
  CameraControllerWatch watch;
  std::shared_ptr<DispatchQueue>& queue = watch.queue;
  std::shared_ptr<Recorder<ControllerEvent>>& events = watch.events;
  std::shared_ptr<MediaDeviceController>& controller = watch.controller;
  std::shared_ptr<V4L2HardwareService> service;
};

TEST_F(V4L2ControllerTest, CreatingANodeYieldsConnectedWithTheMappedRecord) {
  startObserving();
  EXPECT_TRUE(eventsOfKind(MediaDeviceEvent::InitialDiscovery).empty());

  plugUsbCamera();

  ASSERT_TRUE(waitForEvent(MediaDeviceEvent::Connected));
  settle();
  const auto connected = eventsOfKind(MediaDeviceEvent::Connected);
  ASSERT_EQ(connected.size(), 1u);
  const MediaDevice expected{.deviceID = kWebcam,
                             .mediaType = MediaType::Video,
                             .deviceUID = "usb:046d:0825:A1B2C3@1-2:1.0",
                             .modelUID = "usb:046d:0825",
                             .transportType = MediaDeviceTransportType::USB,
                             .name = "Webcam C270: Webcam C270",
                             .inputSourceName = std::nullopt,
                             .inputChannelCount = 1,
                             .outputChannelCount = 0,
                             .isConnected = true,
                             .isRunning = false,
                             .unsupportedReason = std::nullopt};
  EXPECT_EQ(connected[0].device, expected);
  EXPECT_EQ(controller->connectedDevices(), std::vector<MediaDevice>{expected});
}

TEST_F(V4L2ControllerTest, ProcessStreamingFromTheNodeYieldsRunningAndItsExitNotRunning) {
  plugUsbCamera();
  startObserving();
  ASSERT_EQ(eventsOfKind(MediaDeviceEvent::InitialDiscovery).size(), 1u);

  auto holder = StartNodeUser(tree.devNodePath("video0"), true);
  ASSERT_TRUE(holder);
  ASSERT_TRUE(waitForEvent(MediaDeviceEvent::ChangedRunning));
  EXPECT_TRUE(eventsOfKind(MediaDeviceEvent::ChangedRunning)[0].device.isRunning);
  EXPECT_TRUE(controller->connectedDevices()[0].isRunning);

  holder->kill();
  ASSERT_TRUE(waitForEvent(MediaDeviceEvent::ChangedRunning, 2));
  settle();
  const auto changes = eventsOfKind(MediaDeviceEvent::ChangedRunning);
  ASSERT_EQ(changes.size(), 2u);
  EXPECT_FALSE(changes[1].device.isRunning);
  EXPECT_EQ(changes[1].device.deviceID, kWebcam);
  EXPECT_FALSE(controller->connectedDevices()[0].isRunning);
}

TEST_F(V4L2ControllerTest, StreamingInterfaceLeavingSettingZeroYieldsChangedRunningTrueThenFalse) {
  plugUsbCamera();
  const std::string streaming = tree.addUvcStreamingInterface({}, "1.1", true);
  startObserving();
  // The program that will stream has the node open; its stream starts and stops later, which
  // only the streaming interface's setting shows.
  auto user = StartNodeUser(tree.devNodePath("video0"), false);
  ASSERT_TRUE(user);
  settle();
  EXPECT_TRUE(eventsOfKind(MediaDeviceEvent::ChangedRunning).empty());

  tree.setAlternateSetting(streaming, 1, 1);
  ASSERT_TRUE(waitForEvent(MediaDeviceEvent::ChangedRunning));
  tree.setAlternateSetting(streaming, 0, 0);
  ASSERT_TRUE(waitForEvent(MediaDeviceEvent::ChangedRunning, 2));
  settle();

  const auto changes = eventsOfKind(MediaDeviceEvent::ChangedRunning);
  ASSERT_EQ(changes.size(), 2u);
  EXPECT_TRUE(changes[0].device.isRunning);
  EXPECT_FALSE(changes[1].device.isRunning);
  EXPECT_EQ(changes[1].device.deviceID, kWebcam);
}

TEST_F(V4L2ControllerTest, MediaServerHoldingTheNodeYieldsChangedRunningOnlyOnceItStreams) {
  plugUsbCamera();
  startObserving();
  const std::string server = tree.root() + "/wireplumber";
  std::filesystem::copy_file(HARKWELL_V4L2_TEST_HELPER, server);
  std::filesystem::permissions(server, std::filesystem::perms::owner_all);

  auto holder = StartNodeUser(tree.devNodePath("video0"), false, server);
  ASSERT_TRUE(holder);
  settle();
  EXPECT_TRUE(eventsOfKind(MediaDeviceEvent::ChangedRunning).empty());

  ASSERT_TRUE(TellNodeUser(*holder, "map", "mapped"));
  ASSERT_TRUE(waitForEvent(MediaDeviceEvent::ChangedRunning));
  EXPECT_TRUE(eventsOfKind(MediaDeviceEvent::ChangedRunning)[0].device.isRunning);
}

TEST_F(V4L2ControllerTest, DeletingTheNodesYieldsDisconnected) {
  plugUsbCamera();
  startObserving();

  tree.removeDevNode("video1");
  tree.removeDevNode("video0");

  ASSERT_TRUE(waitForEvent(MediaDeviceEvent::Disconnected));
  settle();
  const auto disconnected = eventsOfKind(MediaDeviceEvent::Disconnected);
  ASSERT_EQ(disconnected.size(), 1u);
  EXPECT_EQ(disconnected[0].device.deviceID, kWebcam);
  EXPECT_FALSE(disconnected[0].device.isConnected);
  EXPECT_TRUE(controller->connectedDevices().empty());
}

TEST_F(V4L2ControllerTest, CameraWithCaptureAndMetadataNodesIsOneDevice) {
  plugUsbCamera("1-2", 0);
  plugUsbCamera("1-3", 2);
  startObserving();

  const auto discovered = eventsOfKind(MediaDeviceEvent::InitialDiscovery);
  ASSERT_EQ(discovered.size(), 2u);
  for (const ControllerEvent& each : discovered) {
    EXPECT_EQ(each.device.inputChannelCount, 1u);
    EXPECT_EQ(each.device.outputChannelCount, 0u);
    EXPECT_TRUE(each.device.isSupported());
  }
  EXPECT_NE(discovered[0].device.deviceUID, discovered[1].device.deviceUID);
}

TEST_F(V4L2ControllerTest, GarbageInTheTreeStillReportsTheOtherDevices) {
  LogCapture log;
  plugUsbCamera();
  // Missing and empty files, names with newlines and invalid UTF-8, a symlink loop, a folder
  // where a node belongs, and a thousand loopback nodes.
  tree.addNode({.entry = "video2", .nameFile = std::nullopt, .minor = 2});
  tree.addNode({.entry = "video3", .nameFile = "", .minor = 3});
  tree.writeFile("sys/class/video4linux/video3/uevent", "");
  tree.writeFile("sys/class/video4linux/video3/dev", "");
  tree.addNode({.entry = "video4", .nameFile = "Two\nlines \xff\xc3(\n", .minor = 4});
  tree.makeSymlink(tree.sysfsRoot() + "/class/video4linux/video5", "sys/class/video4linux/video5");
  tree.addNode({.entry = "video6", .minor = 6, .withDevNode = false});
  tree.makeFolder("dev/video6");
  for (unsigned i = 100; i < 1100; ++i) {
    tree.addNode({.entry = "video" + std::to_string(i), .nameFile = "Loop\n", .minor = i});
  }
  startObserving();

  const auto discovered = eventsOfKind(MediaDeviceEvent::InitialDiscovery);
  ASSERT_EQ(discovered.size(), 1004u);
  auto nameOf = [&](const std::string& uid) -> std::string {
    for (const ControllerEvent& each : discovered) {
      if (each.device.deviceUID == uid) return each.device.name;
    }
    return "<none>";
  };
  EXPECT_EQ(nameOf("usb:046d:0825:A1B2C3@1-2:1.0"), "Webcam C270: Webcam C270");
  EXPECT_EQ(nameOf("virtual:video2"), "video2");
  EXPECT_EQ(nameOf("virtual:video3"), "video3");
  EXPECT_EQ(nameOf("virtual:video4"), "Two\nlines \xff\xc3(");
  const std::vector<std::string> lines = log.lines();
  for (const std::string& line : lines) {
    EXPECT_EQ(line.find('\n'), std::string::npos) << line;
  }
  const std::vector<std::string> expectedTreeLines = {
      "V4L2: skipping \"video5\": cannot resolve \"" + tree.sysfsRoot() +
          "/class/video4linux/video5\": Too many levels of symbolic links",
      "V4L2: skipping \"video6\": \"" + tree.devRoot() + "/video6\" is a folder, not a device node",
      "V4L2: \"video2\" has no name in sysfs (No such file or directory); calling it \"video2\"",
      "V4L2: \"video3\" has no name in sysfs (it is empty); calling it \"video3\"",
  };
  std::vector<std::string> treeLines;
  for (const std::string& line : lines) {
    if (line.rfind("V4L2: ", 0) == 0) treeLines.push_back(line);
  }
  EXPECT_EQ(treeLines, expectedTreeLines);

  // And the devices are still followed.
  tree.removeDevNode("video1099");
  ASSERT_TRUE(waitForEvent(MediaDeviceEvent::Disconnected));
  auto holder = StartNodeUser(tree.devNodePath("video0"), true);
  ASSERT_TRUE(holder);
  ASSERT_TRUE(waitForEvent(MediaDeviceEvent::ChangedRunning));
  EXPECT_EQ(eventsOfKind(MediaDeviceEvent::ChangedRunning)[0].device.deviceID, kWebcam);
}

TEST_F(V4L2ControllerTest, ConsumersHandlerHearsOfEachProcessThatHoldsTheCameraAndOfItsExit) {
  plugUsbCamera();
  startObserving();
  auto heard = std::make_shared<Recorder<std::vector<std::int32_t>>>();
  controller->setDeviceConsumersHandler(
      [heard](const MediaDevice& device, const std::vector<MediaDeviceConsumer>& consumers) {
        if (device.deviceID != kWebcam) return;
        std::vector<std::int32_t> pids;
        for (const auto& consumer : consumers) pids.push_back(consumer.processID);
        heard->append(pids);
      });
  settle();

  auto holder = StartNodeUser(tree.devNodePath("video0"), false);
  ASSERT_TRUE(holder);
  ASSERT_TRUE(heard->waitUntil([&](const auto& all) {
    return !all.empty() && all.back() == std::vector<std::int32_t>{holder->pid()};
  }));
  holder->kill();
  ASSERT_TRUE(heard->waitUntil([](const auto& all) { return all.back().empty(); }));
  settle();
  // Reading through the controller gives the service's answer.
  EXPECT_EQ(controller->consumersOfDevice(controller->connectedDevices().at(0)),
            std::vector<MediaDeviceConsumer>{});
}

}  // namespace
}  // namespace harkwell::testing
