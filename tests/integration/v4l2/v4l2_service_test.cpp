// The V4L2 service at the seam, on fake trees with real files and real processes: what it
// answers, when its listeners fire, and what it says about broken trees.
#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2HardwareService.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <mutex>
#include <set>

#include "HarkwellFoundation/Platform/PlatformString.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FakeV4L2Tree.h"
#include "tests/support/LogCapture.h"
#include "tests/support/V4L2NodeUser.h"
#include "tests/support/Waiting.h"

namespace harkwell::testing {
namespace {

constexpr PropertyAddress Global(std::uint32_t selector) {
  return {selector, kCMIOObjectPropertyScopeGlobal, kCMIOObjectPropertyElementMaster};
}
constexpr PropertyAddress Streams(std::uint32_t scope) {
  return {kCMIODevicePropertyStreams, scope, kCMIOObjectPropertyElementMaster};
}
const PropertyAddress kDeviceList = Global(kCMIOHardwarePropertyDevices);
const PropertyAddress kRunning = Global(kCMIODevicePropertyDeviceIsRunningSomewhere);

// The ID the stable rule gives a camera with this UID (while no other camera shares its slot).
ObjectID CameraID(const std::string& uid) {
  return StableDeviceIDHome(StableIDSpace::Video, uid);
}
// The cameras addUsbCamera() makes on ports 1-2 and 1-3.
const ObjectID kWebcam = CameraID("usb:046d:0825:A1B2C3@1-2:1.0");
const ObjectID kSecondWebcam = CameraID("usb:046d:0825:A1B2C3@1-3:1.0");

// A listener whose block records, on each call, the address count and the value it reads back
// from the service. The block keeps the records alive, so it may run after the test body ends.
struct RecordingListener {
  struct Records {
    Recorder<std::uint32_t> counts;
    Recorder<std::uint32_t> values;
  };

  explicit RecordingListener(std::function<std::uint32_t()> readBack)
      : closure(std::make_shared<const PropertyListener>(
            [records = records, readBack = std::move(readBack)](std::uint32_t count,
                                                                const PropertyAddress*) {
              records->counts.append(count);
              records->values.append(readBack());
            })) {}

  std::shared_ptr<Records> records = std::make_shared<Records>();
  Recorder<std::uint32_t>& counts = records->counts;
  Recorder<std::uint32_t>& values = records->values;
  SharedPropertyListener closure;
};

class V4L2ServiceTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (service) service->waitForPendingChanges();
    DrainQueue(queue);
  }

  void start(v4l2::NodeProbe probe = {}) {
    service = V4L2HardwareService::create({.sysfsRoot = tree.sysfsRoot(),
                                           .devRoot = tree.devRoot(),
                                           .procRoot = "/proc",
                                           .udevDataRoot = tree.udevDataRoot(),
                                           .probe = std::move(probe)});
  }

  // Adds a USB camera with a capture node and a metadata node, both in /dev.
  void addUsbCamera(const std::string& port = "1-2", unsigned firstMinor = 0) {
    const std::string usb = tree.addUsbInterface({.port = port});
    tree.addNode({.entry = "video" + std::to_string(firstMinor),
                  .index = 0,
                  .minor = firstMinor,
                  .parent = usb});
    tree.addNode({.entry = "video" + std::to_string(firstMinor + 1),
                  .index = 1,
                  .minor = firstMinor + 1,
                  .parent = usb});
  }

  std::vector<ObjectID> deviceIDs() {
    std::uint32_t size = 0;
    if (service->getPropertyDataSize(kCMIOObjectSystemObject, kDeviceList, 0, nullptr, &size) !=
        kNoErr) {
      return {};
    }
    std::vector<ObjectID> ids(size / 4);
    if (service->getPropertyData(kCMIOObjectSystemObject, kDeviceList, 0, nullptr, &size,
                                 ids.data()) != kNoErr) {
      return {};
    }
    ids.resize(size / 4);
    return ids;
  }

  // The string, a null reference (nullopt inside), or the failing status.
  std::variant<OSStatus, std::optional<std::string>> string(ObjectID id, std::uint32_t selector) {
    OwnedPlatformString text;
    std::uint32_t size = sizeof(PlatformStringRef);
    const OSStatus status =
        service->getPropertyData(id, Global(selector), 0, nullptr, &size, text.slot());
    if (status != kNoErr) return status;
    if (!text.get()) return std::optional<std::string>();
    return std::optional<std::string>(PlatformStringText(text.get()));
  }

  std::optional<std::uint32_t> uint32(ObjectID id, const PropertyAddress& address) {
    std::uint32_t value = 0;
    std::uint32_t size = sizeof value;
    if (service->getPropertyData(id, address, 0, nullptr, &size, &value) != kNoErr) {
      return std::nullopt;
    }
    return value;
  }

  std::optional<std::uint32_t> streamCount(ObjectID id, std::uint32_t scope) {
    std::uint32_t size = 0;
    if (service->getPropertyDataSize(id, Streams(scope), 0, nullptr, &size) != kNoErr) {
      return std::nullopt;
    }
    return size / 4;
  }

  // Every device's stream IDs: the input streams, then the output streams, as the global scope
  // lists them. Each is checked to be no device's ID, not the system object's and listed once.
  void expectStreamIDsApartFromDeviceIDs() {
    const auto ids = deviceIDs();
    const std::set<ObjectID> devices(ids.begin(), ids.end());
    std::set<std::uint32_t> streams;
    for (ObjectID id : ids) {
      std::vector<std::uint32_t> listed;
      for (std::uint32_t scope : {kCMIODevicePropertyScopeInput, kCMIODevicePropertyScopeOutput}) {
        const auto some = streamIDs(id, scope);
        listed.insert(listed.end(), some.begin(), some.end());
      }
      EXPECT_EQ(streamIDs(id, kCMIOObjectPropertyScopeGlobal), listed) << "device " << id;
      for (std::uint32_t stream : listed) {
        EXPECT_EQ(devices.count(stream), 0u) << "device " << id << " lists stream " << stream;
        EXPECT_NE(stream, kCMIOObjectSystemObject);
        EXPECT_TRUE(streams.insert(stream).second) << "stream " << stream << " listed twice";
      }
    }
    // Stream IDs are no objects of the service.
    if (streams.empty()) return;
    EXPECT_EQ(uint32(*streams.begin(), kRunning), std::nullopt);
  }

  std::vector<std::uint32_t> streamIDs(ObjectID id, std::uint32_t scope) {
    std::uint32_t size = 0;
    if (service->getPropertyDataSize(id, Streams(scope), 0, nullptr, &size) != kNoErr) return {};
    std::vector<std::uint32_t> ids(size / 4);
    if (service->getPropertyData(id, Streams(scope), 0, nullptr, &size, ids.data()) != kNoErr) {
      return {};
    }
    ids.resize(size / 4);
    return ids;
  }

  OSStatus listen(ObjectID id, const PropertyAddress& address, RecordingListener& listener) {
    return service->addPropertyListenerBlock(id, address, queue,
                                             PlatformListenerBlock::copy(listener.closure));
  }

  // Lets the service handle what happened so far and the queue run what it was given.
  void settle() {
    service->waitForPendingChanges();
    DrainQueue(queue);
  }

  // Each barrier runs the check that is due at once; this runs past every check an open is owed.
  void settleThroughTheChecksAfterAnOpen() {
    for (std::size_t check = 0; check < service->streamChecksAfterAnOpen() + 2; ++check) settle();
  }

  FakeV4L2Tree tree;
  std::shared_ptr<DispatchQueue> queue = DispatchQueue::createSerial("com.harkwell.test.v4l2");
  std::shared_ptr<V4L2HardwareService> service;
};

TEST_F(V4L2ServiceTest, DevicesAnswerWithTheMappedProperties) {
  addUsbCamera();
  tree.addNode({.entry = "video5", .nameFile = "Loopback\n", .minor = 5});
  start();

  const auto ids = deviceIDs();
  ASSERT_EQ(ids, (std::vector<ObjectID>{CameraID("virtual:video5"), kWebcam}));
  const ObjectID camera = kWebcam;
  const ObjectID loopback = ids[0];
  EXPECT_EQ(std::get<1>(string(camera, kCMIOObjectPropertyName)), "Webcam C270: Webcam C270");
  EXPECT_EQ(std::get<1>(string(camera, kCMIODevicePropertyDeviceUID)),
            "usb:046d:0825:A1B2C3@1-2:1.0");
  EXPECT_EQ(std::get<1>(string(camera, kCMIODevicePropertyModelUID)), "usb:046d:0825");
  EXPECT_EQ(uint32(camera, Global(kCMIODevicePropertyTransportType)), kVideoTransportTypeUSB);
  EXPECT_EQ(streamCount(camera, kCMIODevicePropertyScopeInput), 1u);
  EXPECT_EQ(streamCount(camera, kCMIODevicePropertyScopeOutput), 0u);
  EXPECT_EQ(streamCount(camera, kCMIOObjectPropertyScopeGlobal), 1u);
  EXPECT_EQ(uint32(camera, kRunning), 0u);

  EXPECT_EQ(std::get<1>(string(loopback, kCMIOObjectPropertyName)), "Loopback");
  EXPECT_EQ(std::get<1>(string(loopback, kCMIODevicePropertyModelUID)), std::nullopt);
  EXPECT_EQ(uint32(loopback, Global(kCMIODevicePropertyTransportType)), kVideoTransportTypeVirtual);
  EXPECT_EQ(streamCount(loopback, kCMIODevicePropertyScopeInput), 1u);
  EXPECT_EQ(streamCount(loopback, kCMIODevicePropertyScopeOutput), 1u);
  EXPECT_EQ(streamCount(loopback, kCMIOObjectPropertyScopeGlobal), 2u);
}

TEST_F(V4L2ServiceTest, HogModeAnswersUnknownProperty) {
  addUsbCamera();
  start();
  const PropertyAddress hogMode = Global(kCMIODevicePropertyHogMode);
  std::int32_t pid = 0;
  std::uint32_t size = sizeof pid;

  EXPECT_EQ(service->getPropertyDataSize(kWebcam, hogMode, 0, nullptr, &size),
            kCMIOHardwareUnknownPropertyError);
  EXPECT_EQ(service->getPropertyData(kWebcam, hogMode, 0, nullptr, &size, &pid),
            kCMIOHardwareUnknownPropertyError);
  EXPECT_EQ(service->setPropertyData(kWebcam, hogMode, 0, nullptr, sizeof pid, &pid),
            kCMIOHardwareUnknownPropertyError);
  EXPECT_EQ(pid, 0);
  RecordingListener listener([] { return 0u; });
  EXPECT_EQ(listen(kWebcam, hogMode, listener), kCMIOHardwareUnknownPropertyError);
}

TEST_F(V4L2ServiceTest, UnknownObjectsAndSelectorsAnswerLikeThePlatform) {
  addUsbCamera();
  start();
  std::uint32_t value = 0;
  std::uint32_t size = sizeof value;
  RecordingListener listener([] { return 0u; });

  EXPECT_EQ(service->getPropertyDataSize(99, kRunning, 0, nullptr, &size),
            kCMIOHardwareBadObjectError);
  EXPECT_EQ(service->getPropertyData(99, kRunning, 0, nullptr, &size, &value),
            kCMIOHardwareBadObjectError);
  EXPECT_EQ(service->setPropertyData(99, kRunning, 0, nullptr, size, &value),
            kCMIOHardwareBadObjectError);
  EXPECT_EQ(listen(99, kRunning, listener), kCMIOHardwareBadObjectError);
  EXPECT_EQ(
      service->getPropertyData(kWebcam, Global(FourCharCode("abcd")), 0, nullptr, &size, &value),
      kCMIOHardwareUnknownPropertyError);
  EXPECT_EQ(service->getPropertyData(1, Global(kCMIOObjectPropertyName), 0, nullptr, &size, &value),
            kCMIOHardwareUnknownPropertyError);
}

TEST_F(V4L2ServiceTest, ScreenCaptureSwitchIsAcceptedAndRemembered) {
  start();
  const PropertyAddress allow = Global(kCMIOHardwarePropertyAllowScreenCaptureDevices);
  RecordingListener listener([this, allow] { return uint32(1, allow).value_or(99); });
  ASSERT_EQ(listen(1, allow, listener), kNoErr);
  EXPECT_EQ(uint32(1, allow), 1u);

  std::uint32_t off = 0;
  EXPECT_EQ(service->setPropertyData(1, allow, 0, nullptr, sizeof off, &off), kNoErr);
  EXPECT_EQ(uint32(1, allow), 0u);
  EXPECT_EQ(service->setPropertyData(1, allow, 0, nullptr, sizeof off, &off), kNoErr);
  EXPECT_EQ(service->setPropertyData(1, allow, 0, nullptr, 2, &off),
            kCMIOHardwareBadPropertySizeError);
  DrainQueue(queue);

  EXPECT_EQ(listener.values.entries(), std::vector<std::uint32_t>{0});
  EXPECT_TRUE(deviceIDs().empty());
}

TEST_F(V4L2ServiceTest, WritingADevicePropertyIsRefused) {
  addUsbCamera();
  start();
  std::uint32_t value = 1;

  EXPECT_EQ(service->setPropertyData(kWebcam, kRunning, 0, nullptr, sizeof value, &value),
            kCMIOHardwareIllegalOperationError);
  EXPECT_EQ(uint32(kWebcam, kRunning), 0u);
}

TEST_F(V4L2ServiceTest, BuffersTooSmallAnswerBadPropertySize) {
  addUsbCamera();
  start();
  std::uint8_t buffer[8] = {};
  std::uint32_t size = 3;

  EXPECT_EQ(service->getPropertyData(kWebcam, Global(kCMIODevicePropertyTransportType), 0, nullptr,
                                     &size, buffer),
            kCMIOHardwareBadPropertySizeError);
  size = 4;
  EXPECT_EQ(
      service->getPropertyData(kWebcam, Global(kCMIOObjectPropertyName), 0, nullptr, &size, buffer),
      kCMIOHardwareBadPropertySizeError);
  EXPECT_EQ(PlatformStringLiveCount(), 0u);
}

TEST_F(V4L2ServiceTest, CameraIDsComeFromTheirUIDsAndEveryServiceGivesTheSame) {
  addUsbCamera("1-3", 2);
  addUsbCamera("1-2", 0);
  start();
  const std::vector<ObjectID> ids = deviceIDs();
  EXPECT_EQ(ids, (std::vector<ObjectID>{kWebcam, kSecondWebcam}));
  for (ObjectID id : ids) {
    EXPECT_TRUE(IsStableDeviceID(StableIDSpace::Video, id)) << id;
    EXPECT_FALSE(IsStableDeviceID(StableIDSpace::Audio, id)) << id << " could name a microphone";
  }
  // Another process reading the same machine, with its own history.
  auto other = V4L2HardwareService::create({.sysfsRoot = tree.sysfsRoot(),
                                            .devRoot = tree.devRoot(),
                                            .procRoot = "/proc",
                                            .udevDataRoot = tree.udevDataRoot()});
  std::uint32_t size = 8;
  ObjectID seen[2] = {0, 0};
  EXPECT_EQ(other->getPropertyData(kCMIOObjectSystemObject, kDeviceList, 0, nullptr, &size, seen),
            kNoErr);
  EXPECT_EQ(std::vector<ObjectID>(seen, seen + 2), ids);
}

TEST_F(V4L2ServiceTest, DeviceListWritesOnlyTheWholeIDsThatFit) {
  addUsbCamera("1-2", 0);
  addUsbCamera("1-3", 2);
  start();
  ObjectID ids[2] = {0, 0};

  std::uint32_t size = 6;
  EXPECT_EQ(service->getPropertyData(1, kDeviceList, 0, nullptr, &size, ids), kNoErr);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(ids[0], kWebcam);
  EXPECT_EQ(ids[1], 0u);

  size = 0;
  EXPECT_EQ(service->getPropertyData(1, kDeviceList, 0, nullptr, &size, ids), kNoErr);
  EXPECT_EQ(size, 0u);
}

TEST_F(V4L2ServiceTest, ListenerRemovalMatchesTheWrappedClosure) {
  addUsbCamera();
  start();
  RecordingListener listener([] { return 0u; });
  ASSERT_EQ(listen(kWebcam, kRunning, listener), kNoErr);
  ASSERT_EQ(service->listenerCount(), 1u);

  // A new block around the same closure finds the registration; another closure does not.
  RecordingListener stranger([] { return 0u; });
  EXPECT_EQ(service->removePropertyListenerBlock(kWebcam, kRunning, queue,
                                                 PlatformListenerBlock::copy(stranger.closure)),
            kCMIOHardwareUnknownPropertyError);
  EXPECT_EQ(
      service->removePropertyListenerBlock(kWebcam, kRunning, DispatchQueue::createSerial("other"),
                                           PlatformListenerBlock::copy(listener.closure)),
      kCMIOHardwareUnknownPropertyError);
  EXPECT_EQ(service->removePropertyListenerBlock(kWebcam, kRunning, queue,
                                                 PlatformListenerBlock::copy(listener.closure)),
            kNoErr);
  EXPECT_EQ(service->listenerCount(), 0u);
  EXPECT_EQ(service->removePropertyListenerBlock(kWebcam, kRunning, queue,
                                                 PlatformListenerBlock::copy(listener.closure)),
            kCMIOHardwareUnknownPropertyError);
}

TEST_F(V4L2ServiceTest, CreatingANodeNotifiesTheDeviceListAfterTheMirrorShowsIt) {
  start();
  RecordingListener listener([this] { return static_cast<std::uint32_t>(deviceIDs().size()); });
  ASSERT_EQ(listen(1, kDeviceList, listener), kNoErr);

  const std::string usb = tree.addUsbInterface({});
  tree.addNode({.entry = "video0", .parent = usb, .withDevNode = false});
  tree.createDevNode("video0");

  ASSERT_TRUE(listener.values.waitForCount(1));
  EXPECT_EQ(listener.values.entries()[0], 1u);
  EXPECT_EQ(listener.counts.entries()[0], 1u);
  EXPECT_EQ(deviceIDs(), std::vector<ObjectID>{kWebcam});
}

TEST_F(V4L2ServiceTest, DeletedNodeRemovesItsDeviceAndAReturningCameraKeepsItsID) {
  addUsbCamera("1-2", 0);
  addUsbCamera("1-3", 2);
  start();
  ASSERT_EQ(deviceIDs(), (std::vector<ObjectID>{kWebcam, kSecondWebcam}));
  RecordingListener listener([this] { return static_cast<std::uint32_t>(deviceIDs().size()); });
  ASSERT_EQ(listen(1, kDeviceList, listener), kNoErr);

  tree.removeDevNode("video0");
  tree.removeDevNode("video1");
  ASSERT_TRUE(listener.values.waitUntil(
      [](const auto& values) { return !values.empty() && values.back() == 1; }));
  EXPECT_EQ(deviceIDs(), std::vector<ObjectID>{kSecondWebcam});

  tree.createDevNode("video0");
  ASSERT_TRUE(listener.values.waitUntil([](const auto& values) { return values.back() == 2; }));
  EXPECT_EQ(deviceIDs(), (std::vector<ObjectID>{kWebcam, kSecondWebcam}));
}

TEST_F(V4L2ServiceTest, AnotherProcessStreamingFromTheNodeMakesTheDeviceRunningUntilItExits) {
  addUsbCamera();
  start();
  RecordingListener listener([this] { return uint32(kWebcam, kRunning).value_or(99); });
  ASSERT_EQ(listen(kWebcam, kRunning, listener), kNoErr);

  auto holder = StartNodeUser(tree.devNodePath("video0"), true);
  ASSERT_TRUE(holder);
  ASSERT_TRUE(listener.values.waitForCount(1));
  EXPECT_EQ(listener.values.entries()[0], 1u);

  holder->kill();
  ASSERT_TRUE(listener.values.waitForCount(2));
  EXPECT_EQ(listener.values.entries(), (std::vector<std::uint32_t>{1, 0}));
  settle();
  EXPECT_EQ(listener.values.size(), 2u);
}

TEST_F(V4L2ServiceTest, MappingTheNodeMakesTheDeviceRunningAndUnmappingOrClosingEndsIt) {
  addUsbCamera();
  start();
  RecordingListener listener([this] { return uint32(kWebcam, kRunning).value_or(99); });
  ASSERT_EQ(listen(kWebcam, kRunning, listener), kNoErr);

  auto user = StartNodeUser(tree.devNodePath("video0"), true);
  ASSERT_TRUE(user);
  ASSERT_TRUE(listener.values.waitForCount(1));
  // Unmapped while the node stays open: the stream is over.
  ASSERT_TRUE(TellNodeUser(*user, "unmap", "unmapped"));
  ASSERT_TRUE(listener.values.waitForCount(2));
  ASSERT_TRUE(TellNodeUser(*user, "map", "mapped"));
  ASSERT_TRUE(listener.values.waitForCount(3));
  ASSERT_TRUE(TellNodeUser(*user, "close", "closed"));
  ASSERT_TRUE(listener.values.waitForCount(4));
  settle();

  EXPECT_EQ(listener.values.entries(), (std::vector<std::uint32_t>{1, 0, 1, 0}));
  EXPECT_EQ(uint32(kWebcam, kRunning), 0u);
}

TEST_F(V4L2ServiceTest, ProcessThatOnlyOpensTheNodeToQueryItIsNotRunning) {
  addUsbCamera();
  start();
  RecordingListener listener([this] { return uint32(kWebcam, kRunning).value_or(99); });
  ASSERT_EQ(listen(kWebcam, kRunning, listener), kNoErr);
  const std::uint64_t checksBefore = service->streamCheckCount();

  // Programs that open the node a moment to list what it can do, and one that keeps it open
  // without ever streaming.
  for (int round = 0; round < 3; ++round) {
    auto prober = ChildProcess::launch(
        {"/bin/sh", "-c", "exec 3<\"$0\" && exec 3<&-", tree.devNodePath("video0")});
    ASSERT_TRUE(prober);
    ASSERT_TRUE(prober->waitForExit().has_value());
    settle();
  }
  auto idle = StartNodeUser(tree.devNodePath("video0"), false);
  ASSERT_TRUE(idle);
  settleThroughTheChecksAfterAnOpen();

  EXPECT_GT(service->streamCheckCount(), checksBefore);
  EXPECT_TRUE(service->streamCheckScheduled());
  EXPECT_EQ(uint32(kWebcam, kRunning), 0u);
  EXPECT_EQ(listener.values.size(), 0u);
}

TEST_F(V4L2ServiceTest, StreamStartedLongAfterTheOpenIsSeenOnTheSchedule) {
  addUsbCamera();
  start();
  RecordingListener listener([this] { return uint32(kWebcam, kRunning).value_or(99); });
  ASSERT_EQ(listen(kWebcam, kRunning, listener), kNoErr);
  auto user = StartNodeUser(tree.devNodePath("video0"), false);
  ASSERT_TRUE(user);
  // Past the quick checks that follow an open: only the longest delay is left.
  settleThroughTheChecksAfterAnOpen();
  ASSERT_EQ(listener.values.size(), 0u);

  // Mapping makes no file event; the next scheduled check sees it.
  ASSERT_TRUE(TellNodeUser(*user, "map", "mapped"));
  ASSERT_TRUE(listener.values.waitForCount(1));
  EXPECT_EQ(listener.values.entries()[0], 1u);
}

TEST_F(V4L2ServiceTest, NothingIsScheduledOnceNoNodeIsOpen) {
  addUsbCamera();
  start();
  settle();
  EXPECT_FALSE(service->streamCheckScheduled());

  auto user = StartNodeUser(tree.devNodePath("video0"), true);
  ASSERT_TRUE(user);
  settle();
  EXPECT_TRUE(service->streamCheckScheduled());
  user.reset();
  // Each barrier runs the check that is due; the quick checks after an open run out.
  settleThroughTheChecksAfterAnOpen();

  EXPECT_FALSE(service->streamCheckScheduled());
  const std::uint64_t checks = service->streamCheckCount();
  settle();
  EXPECT_EQ(service->streamCheckCount(), checks);
  EXPECT_EQ(uint32(kWebcam, kRunning), 0u);
}

TEST_F(V4L2ServiceTest, IsochronousCameraRunsExactlyWhileItsStreamingInterfaceHasBandwidth) {
  const FakeUsbCamera camera;
  addUsbCamera();
  const std::string streaming = tree.addUvcStreamingInterface(camera, "1.1", true);
  start();
  RecordingListener listener([this] { return uint32(kWebcam, kRunning).value_or(99); });
  ASSERT_EQ(listen(kWebcam, kRunning, listener), kNoErr);

  // Buffers mapped but the interface at rest: no frames flow (set up, or paused).
  auto user = StartNodeUser(tree.devNodePath("video0"), true);
  ASSERT_TRUE(user);
  settle();
  EXPECT_EQ(uint32(kWebcam, kRunning), 0u);

  tree.setAlternateSetting(streaming, 1, 1);
  settle();
  EXPECT_EQ(uint32(kWebcam, kRunning), 1u);
  tree.setAlternateSetting(streaming, 0, 0);
  settle();
  EXPECT_EQ(uint32(kWebcam, kRunning), 0u);
  DrainQueue(queue);
  EXPECT_EQ(listener.values.entries(), (std::vector<std::uint32_t>{1, 0}));
}

TEST_F(V4L2ServiceTest, BulkCameraIsJudgedByItsMappings) {
  const FakeUsbCamera camera;
  addUsbCamera();
  tree.addUvcStreamingInterface(camera, "1.1", false);
  start();

  auto user = StartNodeUser(tree.devNodePath("video0"), false);
  ASSERT_TRUE(user);
  settle();
  EXPECT_EQ(uint32(kWebcam, kRunning), 0u);
  ASSERT_TRUE(TellNodeUser(*user, "map", "mapped"));
  settle();
  EXPECT_EQ(uint32(kWebcam, kRunning), 1u);
}

TEST_F(V4L2ServiceTest, SuspendedUsbDeviceIsNotRunningWhateverIsMapped) {
  const FakeUsbCamera camera;
  addUsbCamera();
  tree.setRuntimeStatus(camera, "suspended");
  start();

  auto user = StartNodeUser(tree.devNodePath("video0"), true);
  ASSERT_TRUE(user);
  settle();
  EXPECT_EQ(uint32(kWebcam, kRunning), 0u);
  tree.setRuntimeStatus(camera, "active");
  settle();
  EXPECT_EQ(uint32(kWebcam, kRunning), 1u);
}

// A copy of the suites' helper program under a media server's name.
std::string MediaServerStandIn(const FakeV4L2Tree& tree) {
  const std::string path = tree.root() + "/pipewire";
  std::filesystem::copy_file(HARKWELL_V4L2_TEST_HELPER, path,
                             std::filesystem::copy_options::overwrite_existing);
  std::filesystem::permissions(path, std::filesystem::perms::owner_all);
  return path;
}

TEST_F(V4L2ServiceTest, MediaServerHoldingTheNodeIsNotRunningUntilItMapsIt) {
  addUsbCamera();
  start();
  RecordingListener listener([this] { return uint32(kWebcam, kRunning).value_or(99); });
  ASSERT_EQ(listen(kWebcam, kRunning, listener), kNoErr);

  auto server = StartNodeUser(tree.devNodePath("video0"), false, MediaServerStandIn(tree));
  ASSERT_TRUE(server);
  for (int check = 0; check < 3; ++check) settle();
  EXPECT_EQ(uint32(kWebcam, kRunning), 0u);
  EXPECT_EQ(listener.values.size(), 0u);

  // A client asked for frames: the server streams.
  ASSERT_TRUE(TellNodeUser(*server, "map", "mapped"));
  ASSERT_TRUE(listener.values.waitForCount(1));
  ASSERT_TRUE(TellNodeUser(*server, "unmap", "unmapped"));
  ASSERT_TRUE(listener.values.waitForCount(2));
  EXPECT_EQ(listener.values.entries(), (std::vector<std::uint32_t>{1, 0}));
}

TEST_F(V4L2ServiceTest, OpenNodeCountsWhereFramesCannotShowAsMappingsButNotForAMediaServer) {
  addUsbCamera();
  // The capture node moves frames through read() only.
  start([](const std::string& path) -> v4l2::NodeProbeResult {
    if (path.ends_with("/video0")) {
      return {v4l2::NodeCapabilities{V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_READWRITE, "Webcam"}, 0};
    }
    return {v4l2::NodeCapabilities{V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING, "Webcam"}, 0};
  });

  auto server = StartNodeUser(tree.devNodePath("video0"), false, MediaServerStandIn(tree));
  ASSERT_TRUE(server);
  settle();
  EXPECT_EQ(uint32(kWebcam, kRunning), 0u);

  auto reader = StartNodeUser(tree.devNodePath("video0"), false);
  ASSERT_TRUE(reader);
  settle();
  EXPECT_EQ(uint32(kWebcam, kRunning), 1u);
  // Holding the metadata node, whose buffers would show, is no stream.
  reader.reset();
  auto metadataHolder = StartNodeUser(tree.devNodePath("video1"), false);
  ASSERT_TRUE(metadataHolder);
  settle();
  EXPECT_EQ(uint32(kWebcam, kRunning), 0u);
}

// A media server's graph set from the test: it answers for one camera, and tells the service
// when its answer changes.
class ScriptedMediaServerGraph final : public v4l2::MediaServerGraph {
 public:
  explicit ScriptedMediaServerGraph(std::string cameraUID) : cameraUID_(std::move(cameraUID)) {}

  std::optional<bool> streamsCamera(const v4l2::CameraDescription& camera) override {
    const int answer = answer_.load();
    if (camera.uid != cameraUID_ || answer < 0) return std::nullopt;
    return answer == 1;
  }

  void setChangeHandler(std::function<void()> handler) override {
    std::lock_guard<std::mutex> lock(mutex_);
    handler_ = std::move(handler);
  }

  // -1: no answer; 0, 1: the verdict.
  void answer(int verdict) {
    answer_.store(verdict);
    std::lock_guard<std::mutex> lock(mutex_);
    if (handler_) handler_();
  }

  bool hasHandler() {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<bool>(handler_);
  }

 private:
  const std::string cameraUID_;
  std::atomic<int> answer_{-1};
  std::mutex mutex_;
  std::function<void()> handler_;
};

TEST_F(V4L2ServiceTest, MediaServerGraphDecidesWhereItAnswers) {
  addUsbCamera();
  auto graph = std::make_shared<ScriptedMediaServerGraph>("usb:046d:0825:A1B2C3@1-2:1.0");
  service = V4L2HardwareService::create({.sysfsRoot = tree.sysfsRoot(),
                                         .devRoot = tree.devRoot(),
                                         .procRoot = "/proc",
                                         .udevDataRoot = tree.udevDataRoot(),
                                         .mediaServerGraph = graph});
  RecordingListener listener([this] { return uint32(kWebcam, kRunning).value_or(99); });
  ASSERT_EQ(listen(kWebcam, kRunning, listener), kNoErr);
  auto server = StartNodeUser(tree.devNodePath("video0"), true, MediaServerStandIn(tree));
  ASSERT_TRUE(server);
  ASSERT_TRUE(listener.values.waitForCount(1));  // no answer: its mapping decides

  // The graph's change alone makes the service judge again; no file event comes with it.
  graph->answer(0);  // mapped, but the graph has no consumer running
  ASSERT_TRUE(listener.values.waitForCount(2));
  ASSERT_TRUE(TellNodeUser(*server, "unmap", "unmapped"));
  graph->answer(1);
  ASSERT_TRUE(listener.values.waitForCount(3));
  EXPECT_EQ(listener.values.entries(), (std::vector<std::uint32_t>{1, 0, 1}));

  // The service lets go of the graph's changes when it goes.
  settle();
  service.reset();
  EXPECT_FALSE(graph->hasHandler());
}

TEST_F(V4L2ServiceTest, MediaServerWhoseGraphAnswersIsFollowedThroughItsGraphNotOnASchedule) {
  addUsbCamera();
  auto graph = std::make_shared<ScriptedMediaServerGraph>("usb:046d:0825:A1B2C3@1-2:1.0");
  graph->answer(0);
  service = V4L2HardwareService::create({.sysfsRoot = tree.sysfsRoot(),
                                         .devRoot = tree.devRoot(),
                                         .procRoot = "/proc",
                                         .udevDataRoot = tree.udevDataRoot(),
                                         .mediaServerGraph = graph});
  auto server = StartNodeUser(tree.devNodePath("video0"), false, MediaServerStandIn(tree));
  ASSERT_TRUE(server);
  settleThroughTheChecksAfterAnOpen();
  EXPECT_FALSE(service->streamCheckScheduled());
  const std::uint64_t checks = service->streamCheckCount();
  settle();
  EXPECT_EQ(service->streamCheckCount(), checks);

  // A graph change is looked at, and at what follows it, a while.
  graph->answer(1);
  settle();
  EXPECT_EQ(uint32(kWebcam, kRunning), 1u);
  EXPECT_TRUE(service->streamCheckScheduled());
  settleThroughTheChecksAfterAnOpen();
  EXPECT_FALSE(service->streamCheckScheduled());

  // A client of its own beside the server is looked at on the schedule again.
  auto client = StartNodeUser(tree.devNodePath("video0"), false);
  ASSERT_TRUE(client);
  settleThroughTheChecksAfterAnOpen();
  EXPECT_TRUE(service->streamCheckScheduled());
}

TEST_F(V4L2ServiceTest, MetadataNodeStreamedAlsoCountsAsRunning) {
  addUsbCamera();
  start();
  RecordingListener listener([this] { return uint32(kWebcam, kRunning).value_or(99); });
  ASSERT_EQ(listen(kWebcam, kRunning, listener), kNoErr);

  auto holder = StartNodeUser(tree.devNodePath("video1"), true);
  ASSERT_TRUE(holder);

  ASSERT_TRUE(listener.values.waitForCount(1));
  EXPECT_EQ(listener.values.entries()[0], 1u);
}

TEST_F(V4L2ServiceTest, ListenersRunOnTheirQueue) {
  addUsbCamera();
  start();
  Recorder<bool> onQueue;
  auto closure = std::make_shared<const PropertyListener>(
      [&](std::uint32_t, const PropertyAddress*) { onQueue.append(queue->isCurrent()); });
  ASSERT_EQ(service->addPropertyListenerBlock(kWebcam, kRunning, queue,
                                              PlatformListenerBlock::copy(closure)),
            kNoErr);

  auto holder = StartNodeUser(tree.devNodePath("video0"), true);
  ASSERT_TRUE(holder);

  ASSERT_TRUE(onQueue.waitForCount(1));
  EXPECT_TRUE(onQueue.entries()[0]);
  service->removePropertyListenerBlock(kWebcam, kRunning, queue,
                                       PlatformListenerBlock::copy(closure));
  settle();
}

TEST_F(V4L2ServiceTest, OwnOpensNeverMakeADeviceRunningNorNotify) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs CAP_MKNOD for a real character device";
  const std::string usb = tree.addUsbInterface({});
  tree.addNode({.entry = "video0", .parent = usb, .withDevNode = false});
  ASSERT_TRUE(tree.createCharDevNode("video0"));
  // The first probe is refused, so the node is probed again (opened for real) once its mode
  // changes, while its opens and closes are already watched.
  std::atomic<int> probes{0};
  start([&probes](const std::string& path) {
    return probes++ == 0 ? v4l2::NodeProbeResult{std::nullopt, EACCES}
                         : v4l2::ProbeNodeCapabilities(path);
  });
  ASSERT_EQ(deviceIDs(), std::vector<ObjectID>{kWebcam});
  RecordingListener listener([this] { return uint32(kWebcam, kRunning).value_or(99); });
  ASSERT_EQ(listen(kWebcam, kRunning, listener), kNoErr);
  const std::uint64_t scansBefore = service->processScanCount();

  ASSERT_EQ(::chmod(tree.devNodePath("video0").c_str(), 0660), 0);
  settle();
  const int fd = ::open(tree.devNodePath("video0").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  settle();
  ::close(fd);
  settle();

  EXPECT_EQ(probes.load(), 2);
  EXPECT_GT(service->processScanCount(), scansBefore);
  EXPECT_EQ(uint32(kWebcam, kRunning), 0u);
  EXPECT_EQ(listener.values.size(), 0u);
}

TEST_F(V4L2ServiceTest, LateOpenerIsLookedForAgainWhenTheTreeChangedInTheSameBurst) {
  addUsbCamera("1-2", 0);
  const std::string usb = tree.addUsbInterface({.port = "1-3"});
  tree.addNode({.entry = "video2", .minor = 2, .parent = usb, .withDevNode = false});
  // A fake /proc, so the test decides when the opener's descriptor shows; the second look is
  // left to the barrier of waitForPendingChanges(), never to the clock.
  service = V4L2HardwareService::create({.sysfsRoot = tree.sysfsRoot(),
                                         .devRoot = tree.devRoot(),
                                         .procRoot = tree.procRoot(),
                                         .udevDataRoot = tree.udevDataRoot(),
                                         .eventBurstWindow = std::chrono::milliseconds(50),
                                         .openRecheckDelay = std::chrono::hours(1)});
  ASSERT_EQ(deviceIDs(), std::vector<ObjectID>{kWebcam});
  RecordingListener devices([this] { return static_cast<std::uint32_t>(deviceIDs().size()); });
  ASSERT_EQ(listen(1, kDeviceList, devices), kNoErr);
  RecordingListener running([this] { return uint32(kWebcam, kRunning).value_or(99); });
  ASSERT_EQ(listen(kWebcam, kRunning, running), kNoErr);

  // One burst: an open of the camera's node and another camera's node appearing.
  const int fd = ::open(tree.devNodePath("video0").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  tree.createDevNode("video2");
  ASSERT_TRUE(devices.values.waitUntil([](const auto& v) { return !v.empty() && v.back() == 2; }));
  EXPECT_EQ(uint32(kWebcam, kRunning), 0u);

  // Only now does the opener's descriptor show in /proc, with the node's buffers mapped.
  const pid_t opener = ::getpid() + 1;
  tree.makeSymlink(tree.devNodePath("video0"), "proc/" + std::to_string(opener) + "/fd/3");
  tree.writeFile("proc/" + std::to_string(opener) + "/maps",
                 "7f0000000000-7f0000001000 r--s 00000000 00:00 0                          " +
                     tree.devNodePath("video0") + "\n");
  service->waitForPendingChanges();

  EXPECT_EQ(uint32(kWebcam, kRunning), 1u);
  EXPECT_TRUE(running.values.waitForCount(1));
  ::close(fd);
}

TEST_F(V4L2ServiceTest, QuickOpenAndCloseYieldsAtMostOnePairOfEvents) {
  addUsbCamera();
  start();
  RecordingListener listener([this] { return uint32(kWebcam, kRunning).value_or(99); });
  ASSERT_EQ(listen(kWebcam, kRunning, listener), kNoErr);

  for (int round = 0; round < 20; ++round) {
    const std::size_t before = listener.values.size();
    auto prober = ChildProcess::launch(
        {"/bin/sh", "-c", "exec 3<\"$0\" && exec 3<&-", tree.devNodePath("video0")});
    ASSERT_TRUE(prober);
    ASSERT_TRUE(prober->waitForExit().has_value());
    settle();

    const auto values = listener.values.entries();
    const std::size_t fired = values.size() - before;
    EXPECT_TRUE(fired == 0 || fired == 2) << "round " << round << ": " << fired << " events";
    // Each call reads the value when it runs, so a call delayed past the close may already read 0;
    // the last one always reads the settled state.
    if (fired == 2) {
      EXPECT_LE(values[before], 1u);
      EXPECT_EQ(values[before + 1], 0u);
    }
    EXPECT_EQ(uint32(kWebcam, kRunning), 0u);
  }
}

TEST_F(V4L2ServiceTest, ProcIsReadOnlyWhenANodeIsOpenedOrClosed) {
  addUsbCamera();
  start();
  settle();
  const std::uint64_t scans = service->processScanCount();

  // Changes that are neither opens nor closes of a node.
  tree.createDevNode("null");
  tree.writeFile("sys/class/video4linux/video0/name", "Renamed\n");
  const int other = ::open((tree.devRoot() + "/null").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(other, 0);
  ::close(other);
  settle();
  settle();
  EXPECT_EQ(service->processScanCount(), scans);

  const int fd = ::open(tree.devNodePath("video0").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ::close(fd);
  settle();
  EXPECT_GT(service->processScanCount(), scans);
}

TEST_F(V4L2ServiceTest, ListenerFiresOnlyWhenItsValueChanged) {
  addUsbCamera();
  start();
  RecordingListener name([] { return 0u; });
  RecordingListener running([this] { return uint32(kWebcam, kRunning).value_or(99); });
  ASSERT_EQ(listen(kWebcam, Global(kCMIOObjectPropertyName), name), kNoErr);
  ASSERT_EQ(listen(kWebcam, kRunning, running), kNoErr);

  // Another camera coming changes the device list, not this device's running state.
  addUsbCamera("1-3", 2);
  settle();
  EXPECT_EQ(deviceIDs().size(), 2u);
  EXPECT_EQ(running.values.size(), 0u);

  // Running changes fire the running listener only.
  auto holder = StartNodeUser(tree.devNodePath("video0"), true);
  ASSERT_TRUE(holder);
  ASSERT_TRUE(running.values.waitForCount(1));
  auto secondHolder = StartNodeUser(tree.devNodePath("video1"), true);
  ASSERT_TRUE(secondHolder);
  settle();
  EXPECT_EQ(running.values.entries(), std::vector<std::uint32_t>{1});
  EXPECT_EQ(name.values.size(), 0u);
}

TEST_F(V4L2ServiceTest, NodeThatCannotBeOpenedStillAppears) {
  addUsbCamera();
  start([](const std::string&) { return v4l2::NodeProbeResult{std::nullopt, EACCES}; });

  ASSERT_EQ(deviceIDs(), std::vector<ObjectID>{kWebcam});
  EXPECT_EQ(std::get<1>(string(kWebcam, kCMIOObjectPropertyName)), "Webcam C270: Webcam C270");
  EXPECT_EQ(streamCount(kWebcam, kCMIODevicePropertyScopeInput), 1u);
}

TEST_F(V4L2ServiceTest, NodeThatIsNoCameraIsProbedOnceAcrossTreeChanges) {
  addUsbCamera();
  // A memory-to-memory codec: a node of its own device that neither captures nor outputs.
  const std::string codec = tree.addPlatformDevice("fdea0000.codec", "hantro-vpu");
  tree.addNode({.entry = "video4", .nameFile = "hantro-vpu-dec\n", .minor = 4, .parent = codec});
  struct Counts {
    std::atomic<int> codec{0};
    std::atomic<int> refused{0};
  };
  auto counts = std::make_shared<Counts>();
  const std::string codecPath = tree.devNodePath("video4");
  const std::string capturePath = tree.devNodePath("video0");
  // The camera's metadata node refuses to open, so it is asked again at every reading of the tree
  // and its count shows how many readings there were.
  start([counts, codecPath, capturePath](const std::string& path) -> v4l2::NodeProbeResult {
    if (path == codecPath) {
      ++counts->codec;
      return {v4l2::NodeCapabilities{V4L2_CAP_VIDEO_M2M_MPLANE, "hantro-vpu"}, 0};
    }
    if (path == capturePath) return {v4l2::NodeCapabilities{V4L2_CAP_VIDEO_CAPTURE, "Webcam"}, 0};
    ++counts->refused;
    return {std::nullopt, EACCES};
  });
  ASSERT_EQ(deviceIDs(), std::vector<ObjectID>{kWebcam});
  ASSERT_EQ(counts->codec.load(), 1);

  // Changes that have nothing to do with the codec, each followed by a new reading of the tree.
  tree.createDevNode("video20");
  settle();
  tree.removeDevNode("video20");
  settle();
  tree.writeUdevRecord(0, "E:ID_V4L_PRODUCT=Webcam\n");
  settle();
  addUsbCamera("1-3", 2);
  settle();

  EXPECT_EQ(deviceIDs().size(), 2u);
  EXPECT_GE(counts->refused.load(), 5);
  EXPECT_EQ(counts->codec.load(), 1);
}

TEST_F(V4L2ServiceTest, ProblemsAreLoggedOnceWhileTheyLast) {
  LogCapture log;
  addUsbCamera();
  tree.makeSymlink(tree.sysfsRoot() + "/class/video4linux/video7", "sys/class/video4linux/video7");
  start();
  const std::string loopLine = "V4L2: skipping \"video7\": cannot resolve \"" + tree.sysfsRoot() +
                               "/class/video4linux/video7\": Too many levels of symbolic links";
  EXPECT_EQ(log.lines(), std::vector<std::string>{loopLine});

  // Later readings of the tree do not repeat it.
  addUsbCamera("1-3", 2);
  settle();
  EXPECT_EQ(deviceIDs().size(), 2u);
  EXPECT_EQ(log.lines(), std::vector<std::string>{loopLine});
}

TEST_F(V4L2ServiceTest, GarbageInTheTreeStillReportsTheOtherDevices) {
  LogCapture log;
  addUsbCamera();
  tree.addNode({.entry = "video8", .nameFile = std::string("Bad\nname \xff\xfe\n"), .minor = 8});
  tree.addNode({.entry = "video9", .nameFile = std::nullopt, .minor = 9});
  tree.writeFile("sys/class/video4linux/video9/index", "");
  tree.makeSymlink(tree.sysfsRoot() + "/class/video4linux/video7", "sys/class/video4linux/video7");
  tree.makeFolder("sys/class/video4linux/video6");
  start();

  ASSERT_EQ(deviceIDs().size(), 3u);
  EXPECT_EQ(std::get<1>(string(CameraID("virtual:video8"), kCMIOObjectPropertyName)),
            "Bad\nname \xff\xfe");
  EXPECT_EQ(std::get<1>(string(CameraID("virtual:video9"), kCMIOObjectPropertyName)), "video9");
  for (const std::string& line : log.lines()) {
    EXPECT_EQ(line.find('\n'), std::string::npos) << line;
    EXPECT_EQ(line.rfind("V4L2: ", 0), 0u) << line;
  }
  EXPECT_EQ(log.lines().size(), 2u);
}

TEST_F(V4L2ServiceTest, ThousandNodesAreAllReportedAndFollowed) {
  for (unsigned i = 0; i < 1000; ++i) {
    tree.addNode({.entry = "video" + std::to_string(i),
                  .nameFile = "Loop " + std::to_string(i) + "\n",
                  .minor = i});
  }
  start();
  ASSERT_EQ(deviceIDs().size(), 1000u);
  expectStreamIDsApartFromDeviceIDs();
  RecordingListener listener([this] { return static_cast<std::uint32_t>(deviceIDs().size()); });
  ASSERT_EQ(listen(1, kDeviceList, listener), kNoErr);

  tree.removeDevNode("video500");
  ASSERT_TRUE(
      listener.values.waitUntil([](const auto& v) { return !v.empty() && v.back() == 999; }));

  const ObjectID last = CameraID("virtual:video999");
  ASSERT_EQ(std::get<1>(string(last, kCMIODevicePropertyDeviceUID)), "virtual:video999")
      << "no other loopback shares its slot";
  RecordingListener running([this, last] { return uint32(last, kRunning).value_or(99); });
  ASSERT_EQ(listen(last, kRunning, running), kNoErr);
  auto holder = StartNodeUser(tree.devNodePath("video999"), true);
  ASSERT_TRUE(holder);
  ASSERT_TRUE(running.values.waitForCount(1));
  EXPECT_EQ(running.values.entries()[0], 1u);
}

TEST_F(V4L2ServiceTest, MissingDevFolderLogsOneLineAndHasNoDevices) {
  LogCapture log;
  std::filesystem::remove_all(tree.devRoot());
  start();

  EXPECT_TRUE(deviceIDs().empty());
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{"V4L2: cannot watch \"" + tree.devRoot() +
                                     "\" (No such file or directory); cameras plugged in later "
                                     "are not seen"});
}

TEST_F(V4L2ServiceTest, UnreadableProcLogsOneLineAndReportsNotRunning) {
  LogCapture log;
  addUsbCamera();
  const std::string proc = tree.root() + "/no-proc";
  service = V4L2HardwareService::create({.sysfsRoot = tree.sysfsRoot(),
                                         .devRoot = tree.devRoot(),
                                         .procRoot = proc,
                                         .udevDataRoot = ""});
  auto holder = StartNodeHolder(tree.devNodePath("video0"));
  ASSERT_TRUE(holder);
  settle();

  EXPECT_EQ(uint32(kWebcam, kRunning), 0u);
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{"V4L2: cannot read \"" + proc +
                                     "\" (No such file or directory); cameras are reported as "
                                     "not running"});
}

TEST_F(V4L2ServiceTest, ProcProblemIsLoggedAgainWhenItComesBackAfterClearing) {
  LogCapture log;
  addUsbCamera();
  const std::string proc = tree.root() + "/no-proc";
  service = V4L2HardwareService::create({.sysfsRoot = tree.sysfsRoot(),
                                         .devRoot = tree.devRoot(),
                                         .procRoot = proc,
                                         .udevDataRoot = ""});
  const std::string line = "V4L2: cannot read \"" + proc +
                           "\" (No such file or directory); cameras are reported as not running";
  ASSERT_EQ(log.lines(), std::vector<std::string>{line});
  // Opening and closing a node makes the service read /proc again.
  auto touchNode = [this] {
    const int fd = ::open(tree.devNodePath("video0").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ::close(fd);
    settle();
  };

  touchNode();
  EXPECT_EQ(log.lines(), std::vector<std::string>{line});

  std::filesystem::create_directory(proc);
  touchNode();
  EXPECT_EQ(log.lines(), std::vector<std::string>{line});

  std::filesystem::remove(proc);
  touchNode();
  EXPECT_EQ(log.lines(), (std::vector<std::string>{line, line}));
}

TEST_F(V4L2ServiceTest, UdevFinishingANodeUpdatesItsStreams) {
  const std::string pci = tree.addPciDevice("0000:03:00.0", "0x1131", "0x7160");
  tree.addNode({.entry = "video0", .index = 1, .minor = 0, .parent = pci});
  start([](const std::string&) { return v4l2::NodeProbeResult{std::nullopt, EACCES}; });
  // A node at index 1 with nothing else known carries metadata: no camera yet.
  ASSERT_TRUE(deviceIDs().empty());
  RecordingListener listener([this] { return static_cast<std::uint32_t>(deviceIDs().size()); });
  ASSERT_EQ(listen(1, kDeviceList, listener), kNoErr);

  tree.writeUdevRecord(0, "E:ID_V4L_CAPABILITIES=:capture:\n");

  ASSERT_TRUE(listener.values.waitForCount(1));
  EXPECT_EQ(listener.values.entries()[0], 1u);
}

TEST(V4L2PropertyMirror, StreamIDsNeverEqualADeviceIDForAHundredThousandDevices) {
  constexpr ObjectID kLastDevice = 100001;
  v4l2::PropertyMirror mirror;
  std::vector<v4l2::PublishedDevice> devices;
  for (ObjectID id = 2; id <= kLastDevice; ++id) {
    devices.push_back(
        {.deviceID = id, .name = "Loop", .inputStreamCount = 1, .outputStreamCount = 1});
  }
  mirror.publishDevices(std::move(devices));

  std::set<std::uint32_t> streams;
  for (ObjectID id = 2; id <= kLastDevice; ++id) {
    std::uint32_t listed[2] = {};
    std::uint32_t size = sizeof listed;
    ASSERT_EQ(mirror.data(id, Streams(kCMIOObjectPropertyScopeGlobal), &size, listed), kNoErr);
    ASSERT_EQ(size, sizeof listed);
    for (std::uint32_t stream : listed) {
      ASSERT_TRUE(stream < 2 || stream > kLastDevice) << "device " << id << " lists " << stream;
      ASSERT_TRUE(streams.insert(stream).second) << "stream " << stream << " listed twice";
    }
  }
}

}  // namespace
}  // namespace harkwell::testing
