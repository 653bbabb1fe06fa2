// Who uses a camera, as the V4L2 service answers it at the seam: fake trees with real files and
// real processes holding the nodes open.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "HarkwellFoundation/Consumers/MediaDeviceConsumers.h"
#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/CameraConsumers.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2HardwareService.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FakeV4L2Tree.h"
#include "tests/support/V4L2NodeUser.h"
#include "tests/support/Waiting.h"

namespace harkwell::testing {
namespace {

namespace fs = std::filesystem;

const ObjectID kWebcam = StableDeviceIDHome(StableIDSpace::Video, "usb:046d:0825:A1B2C3@1-2:1.0");
const PropertyAddress kConsumers{kCMIODevicePropertyConsumers, kCMIOObjectPropertyScopeGlobal,
                                 kCMIOObjectPropertyElementMaster};

// What the kernel keeps of a program's name: its first 15 bytes.
std::string CommandNameOf(const std::string& executable) {
  return fs::path(executable).filename().string().substr(0, 15);
}

// The consumer entry the service should give a process holding a node, details read as the test
// knows them.
MediaDeviceConsumer Holder(const ChildProcess& process, const std::string& executable,
                           MediaDeviceConsumerKind kind = MediaDeviceConsumerKind::Application) {
  return MediaDeviceConsumer{.processID = process.pid(),
                             .isProcessIDVerified = true,
                             .executablePath = fs::canonical(executable).string(),
                             .processName = CommandNameOf(executable),
                             .kind = kind};
}

// A media server's graph set by the test: it knows one camera's clients (streaming is left to the
// server's mappings) and tells the service when they change.
class FakeServerGraph final : public v4l2::MediaServerGraph {
 public:
  std::optional<bool> streamsCamera(const v4l2::CameraDescription&) override {
    return std::nullopt;
  }
  std::optional<std::vector<MediaDeviceConsumer>> clientsOfCamera(
      const v4l2::CameraDescription& camera) override {
    std::lock_guard lock(mutex_);
    if (camera.uid != "usb:046d:0825:A1B2C3@1-2:1.0") return std::nullopt;
    return clients_;
  }
  void setChangeHandler(std::function<void()> handler) override {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
  }
  void set(std::optional<std::vector<MediaDeviceConsumer>> clients) {
    std::lock_guard lock(mutex_);
    clients_ = std::move(clients);
    if (handler_) handler_();
  }

 private:
  std::mutex mutex_;
  std::optional<std::vector<MediaDeviceConsumer>> clients_;
  std::function<void()> handler_;
};

class V4L2ConsumersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string usb = tree.addUsbInterface({.port = "1-2"});
    tree.addNode({.entry = "video0", .index = 0, .minor = 0, .parent = usb});
    tree.addNode({.entry = "video1", .index = 1, .minor = 1, .parent = usb});
  }
  void TearDown() override {
    if (service) service->waitForPendingChanges();
    DrainQueue(queue);
  }

  void start(std::shared_ptr<v4l2::MediaServerGraph> graph = nullptr) {
    service = V4L2HardwareService::create({.sysfsRoot = tree.sysfsRoot(),
                                           .devRoot = tree.devRoot(),
                                           .procRoot = "/proc",
                                           .udevDataRoot = tree.udevDataRoot(),
                                           .mediaServerGraph = std::move(graph)});
  }
  void settle() {
    service->waitForPendingChanges();
    DrainQueue(queue);
  }
  std::vector<MediaDeviceConsumer> consumers() {
    return ReadDeviceConsumers(*service, kWebcam).value_or(std::vector<MediaDeviceConsumer>{});
  }
  // A copy of the helper program under a media server's name.
  std::string mediaServerStandIn() const {
    const std::string path = tree.root() + "/pipewire";
    fs::copy_file(HARKWELL_V4L2_TEST_HELPER, path, fs::copy_options::overwrite_existing);
    fs::permissions(path, fs::perms::owner_all);
    return path;
  }
  // Records the consumers read back each time the consumers listener runs.
  Recorder<std::vector<MediaDeviceConsumer>>& listenToConsumers() {
    auto closure = std::make_shared<const PropertyListener>(
        [this, records = consumerRecords_](std::uint32_t, const PropertyAddress*) {
          records->append(consumers());
        });
    EXPECT_EQ(service->addPropertyListenerBlock(kWebcam, kConsumers, queue,
                                                PlatformListenerBlock::copy(closure)),
              kNoErr);
    return *consumerRecords_;
  }

  FakeV4L2Tree tree;
  std::shared_ptr<DispatchQueue> queue =
      DispatchQueue::createSerial("com.harkwell.test.v4l2-consumers");
  std::shared_ptr<V4L2HardwareService> service;

 private:
  std::shared_ptr<Recorder<std::vector<MediaDeviceConsumer>>> consumerRecords_ =
      std::make_shared<Recorder<std::vector<MediaDeviceConsumer>>>();
};

TEST_F(V4L2ConsumersTest, ACameraNobodyHoldsAnswersTheEmptyList) {
  start();
  EXPECT_EQ(ReadDeviceConsumers(*service, kWebcam), std::vector<MediaDeviceConsumer>{});
  std::uint32_t size = 0;
  const PropertyAddress inputScope{kCMIODevicePropertyConsumers, kCMIODevicePropertyScopeInput,
                                   kCMIOObjectPropertyElementMaster};
  EXPECT_EQ(service->getPropertyDataSize(kWebcam, inputScope, 0, nullptr, &size),
            kCMIOHardwareUnknownPropertyError);
}

TEST_F(V4L2ConsumersTest, TwoProcessesHoldingOneCameraAreBothListedWithTheirPIDs) {
  start();
  auto first = StartNodeUser(tree.devNodePath("video0"), true);
  auto second = StartNodeUser(tree.devNodePath("video0"), false);
  ASSERT_TRUE(first && second);
  settle();

  std::vector<MediaDeviceConsumer> expected{Holder(*first, HARKWELL_V4L2_TEST_HELPER),
                                            Holder(*second, HARKWELL_V4L2_TEST_HELPER)};
  std::sort(expected.begin(), expected.end(),
            [](const auto& a, const auto& b) { return a.processID < b.processID; });
  EXPECT_EQ(consumers(), expected);
}

TEST_F(V4L2ConsumersTest, AProcessHoldingTwoNodesOfTheCameraIsListedOnce) {
  start();
  auto user = StartNodeUser(tree.devNodePath("video0"), false);
  ASSERT_TRUE(user);
  ASSERT_TRUE(TellNodeUser(*user, "open " + tree.devNodePath("video1"), "opened"));
  settle();
  EXPECT_EQ(consumers(), (std::vector{Holder(*user, HARKWELL_V4L2_TEST_HELPER)}));
}

TEST_F(V4L2ConsumersTest, AProcessNamedLikeAMediaServerIsListedAsAMediaServer) {
  start();
  const std::string server = mediaServerStandIn();
  auto holder = StartNodeUser(tree.devNodePath("video0"), false, server);
  auto client = StartNodeUser(tree.devNodePath("video1"), false);
  ASSERT_TRUE(holder && client);
  settle();

  const std::vector<MediaDeviceConsumer> listed = consumers();
  ASSERT_EQ(listed.size(), 2u);
  for (const MediaDeviceConsumer& consumer : listed) {
    if (consumer.processID == holder->pid()) {
      EXPECT_EQ(consumer, Holder(*holder, server, MediaDeviceConsumerKind::MediaServer));
    } else {
      EXPECT_EQ(consumer, Holder(*client, HARKWELL_V4L2_TEST_HELPER));
    }
  }
}

TEST_F(V4L2ConsumersTest, AMediaServerFeedsTheClientsItsGraphNamesAndFollowsItsChanges) {
  auto graph = std::make_shared<FakeServerGraph>();
  const MediaDeviceConsumer browser{.processID = 4711,
                                    .isProcessIDVerified = true,
                                    .applicationName = "Browser",
                                    .applicationID = "org.example.Browser"};
  graph->set(std::vector{browser});
  start(graph);
  auto& changes = listenToConsumers();
  const std::string serverPath = mediaServerStandIn();
  auto server = StartNodeUser(tree.devNodePath("video0"), false, serverPath);
  ASSERT_TRUE(server);
  ASSERT_TRUE(changes.waitForCount(1));

  MediaDeviceConsumer expected = Holder(*server, serverPath, MediaDeviceConsumerKind::MediaServer);
  expected.feeds = {browser};
  EXPECT_EQ(consumers(), std::vector{expected});

  // The browser leaves the server's graph: the server's entry stays, without feeds.
  graph->set(std::vector<MediaDeviceConsumer>{});
  ASSERT_TRUE(changes.waitForCount(2));
  expected.feeds.clear();
  EXPECT_EQ(changes.entries().back(), std::vector{expected});

  // A graph that no longer knows the camera says nothing of its clients.
  graph->set(std::nullopt);
  settle();
  EXPECT_EQ(changes.size(), 2u);
  EXPECT_EQ(consumers(), std::vector{expected});
}

TEST_F(V4L2ConsumersTest, TheListenerFiresWhenAHolderComesAndGoesAndNotOtherwise) {
  start();
  auto& changes = listenToConsumers();
  auto user = StartNodeUser(tree.devNodePath("video0"), false);
  ASSERT_TRUE(user);
  ASSERT_TRUE(changes.waitForCount(1));
  EXPECT_EQ(changes.entries()[0], (std::vector{Holder(*user, HARKWELL_V4L2_TEST_HELPER)}));

  // Mapping changes the running state, not who holds the camera.
  ASSERT_TRUE(TellNodeUser(*user, "map", "mapped"));
  settle();
  EXPECT_EQ(changes.size(), 1u);

  user->kill();
  ASSERT_TRUE(changes.waitForCount(2));
  EXPECT_EQ(changes.entries()[1], std::vector<MediaDeviceConsumer>{});
  settle();
  EXPECT_EQ(changes.size(), 2u);
}

TEST_F(V4L2ConsumersTest, ConsumersCostNothingWhileNoNodeIsHeld) {
  start();
  auto user = StartNodeUser(tree.devNodePath("video0"), false);
  ASSERT_TRUE(user);
  settle();
  user->kill();
  // Each barrier runs the stream check that is due; the quick checks after an open run out.
  for (std::size_t check = 0; check < service->streamChecksAfterAnOpen() + 2; ++check) settle();
  ASSERT_FALSE(service->streamCheckScheduled());
  const std::uint64_t scans = service->processScanCount();
  for (int read = 0; read < 5; ++read) EXPECT_EQ(consumers(), std::vector<MediaDeviceConsumer>{});
  settle();
  EXPECT_EQ(service->processScanCount(), scans);
  EXPECT_FALSE(service->streamCheckScheduled());
}

// The consumers of one camera from a /proc laid out by the test: who counts as a media server, and
// a holder that is gone by the time its details are read.
class CameraConsumersTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(root_);
    addProcess(300, "/usr/bin/pipewire (deleted)", "pipewire");
    addProcess(200, "/usr/bin/cheese", "cheese");
    addProcess(100, "/usr/bin/wireplumber", "wireplumber");
  }
  void TearDown() override { fs::remove_all(root_); }

  void addProcess(int pid, const std::string& executable, const std::string& comm) {
    const fs::path folder = root_ / std::to_string(pid);
    fs::create_directories(folder);
    std::ofstream(folder / "status") << "Name:\t" << comm << "\nState:\tS (sleeping)\n";
    std::ofstream(folder / "comm") << comm << "\n";
    fs::create_symlink(executable, folder / "exe");
  }

  const fs::path root_ =
      fs::temp_directory_path() / ("harkwell-camera-consumers-" + std::to_string(::getpid()));
  const v4l2::CameraDescription camera_{.identity = "cam", .name = "Camera", .uid = "cam"};
};

TEST_F(CameraConsumersTreeTest, HoldersAreListedOnceInProcessOrderWithMediaServersMarked) {
  const auto consumers = v4l2::CameraConsumers(camera_, {300, 200, 300, 100}, root_.string(), {});
  ASSERT_EQ(consumers.size(), 3u);
  EXPECT_EQ(consumers[0].processID, 100);
  EXPECT_EQ(consumers[0].kind, MediaDeviceConsumerKind::MediaServer);
  EXPECT_EQ(consumers[1].processID, 200);
  EXPECT_EQ(consumers[1].kind, MediaDeviceConsumerKind::Application);
  EXPECT_EQ(consumers[1].executablePath, "/usr/bin/cheese");
  EXPECT_EQ(consumers[2].processID, 300);
  EXPECT_EQ(consumers[2].kind, MediaDeviceConsumerKind::MediaServer);
  EXPECT_EQ(consumers[2].executablePath, "/usr/bin/pipewire");
  for (const auto& consumer : consumers) EXPECT_TRUE(consumer.isProcessIDVerified);
}

TEST_F(CameraConsumersTreeTest, AHolderThatExitedBeforeItsDetailsWereReadKeepsOnlyItsID) {
  const auto consumers = v4l2::CameraConsumers(camera_, {200, 999}, root_.string(), {});
  ASSERT_EQ(consumers.size(), 2u);
  EXPECT_EQ(consumers[1], (MediaDeviceConsumer{.processID = 999, .isProcessIDVerified = true}));
}

TEST_F(CameraConsumersTreeTest, EveryServerFeedsWhatTheGraphNamesAndOnlyServersAskIt) {
  int asked = 0;
  const MediaDeviceConsumer client{.processID = 4242, .isProcessIDVerified = true};
  const v4l2::MediaServerClientsQuery query = [&](const v4l2::CameraDescription&) {
    ++asked;
    return std::optional(std::vector{client});
  };
  EXPECT_TRUE(v4l2::CameraConsumers(camera_, {200}, root_.string(), query).at(0).feeds.empty());
  EXPECT_EQ(asked, 0);
  const auto consumers = v4l2::CameraConsumers(camera_, {100, 200, 300}, root_.string(), query);
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(consumers[0].feeds, std::vector{client});
  EXPECT_TRUE(consumers[1].feeds.empty());
  EXPECT_EQ(consumers[2].feeds, std::vector{client});
}

}  // namespace
}  // namespace harkwell::testing
