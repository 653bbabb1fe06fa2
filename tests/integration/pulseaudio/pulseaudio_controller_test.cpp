// MediaDeviceController on the PulseAudio service, against a pulseaudio daemon that each test
// starts on a private socket: what a client sees when devices come and go, when a program records,
// and when the server dies and comes back.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "HarkwellFoundation/Audio/AudioDeviceProperties.h"
#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/PrivatePulseServer.h"
#include "tests/support/PulseTestClient.h"
#include "tests/support/ScopedHardwareServices.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;
using testing::PrivatePulseServer;
using testing::PulseTestClient;
using testing::Recorder;

const PropertyAddress kDevices{kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal,
                               kAudioObjectPropertyElementMaster};

struct Event {
  MediaDeviceEvent event;
  MediaDevice device;
};

// Whether `events` holds `event` for the device with this UID (and running state, if given).
bool Has(const std::vector<Event>& events, MediaDeviceEvent event, const std::string& uid,
         std::optional<bool> running = std::nullopt) {
  return std::any_of(events.begin(), events.end(), [&](const Event& entry) {
    return entry.event == event && entry.device.deviceUID == uid &&
           (!running || entry.device.isRunning == *running);
  });
}

std::size_t Count(const std::vector<Event>& events, MediaDeviceEvent event) {
  return static_cast<std::size_t>(std::count_if(
      events.begin(), events.end(), [&](const Event& entry) { return entry.event == event; }));
}

class PulseAudioControllerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(server_.start(), "");
    service_ = server_.connectService();
    ASSERT_TRUE(service_);
    // No cameras: the client hears of audio devices only.
    services_.install(service_, SimulatedVideoHardwareService::create());
    client_ = std::make_unique<PulseTestClient>(server_.address());
    ASSERT_TRUE(client_->isConnected());

    controller_ = MediaDeviceController::create(queue_);
    controller_->setDeviceEventHandler([this](MediaDeviceEvent event, const MediaDevice& device) {
      events_.append(Event{event, device});
    });
    controller_->setUpdatingDevicesHandler([this](bool finished) { brackets_.append(finished); });
  }

  void TearDown() override {
    if (controller_) {
      // Work already on the queue may still call the handlers: they must not outlive the test.
      controller_->setDeviceEventHandler(nullptr);
      controller_->setUpdatingDevicesHandler(nullptr);
      controller_->setObserveDevices(false);
      testing::DrainQueue(queue_);
    }
    controller_.reset();
    services_.restore();
  }

  // Starts observing and waits for the initial discovery to end (its closing bracket is the
  // first `finished` true: the observers fill their caches silently).
  void observe() {
    controller_->setObserveDevices(true);
    ASSERT_TRUE(brackets_.waitUntil([](const std::vector<bool>& finished) {
      return std::find(finished.begin(), finished.end(), true) != finished.end();
    }));
  }

  // Waits until the service lists a device with this UID.
  bool waitUntilListed(const std::string& uid) {
    auto listed = [&] {
      const auto ids = AudioDeviceConnectedDeviceIDs();
      return std::any_of(ids.begin(), ids.end(),
                         [&](std::uint32_t id) { return AudioDeviceUIDForDeviceID(id) == uid; });
    };
    Recorder<int> changes;
    auto closure = std::make_shared<const PropertyListener>(
        [&changes](std::uint32_t, const PropertyAddress*) { changes.append(1); });
    service_->addPropertyListenerBlock(kAudioObjectSystemObject, kDevices, queue_,
                                       PlatformListenerBlock::copy(closure));
    const bool found = changes.waitUntil([&](const auto&) { return listed(); });
    service_->removePropertyListenerBlock(kAudioObjectSystemObject, kDevices, queue_,
                                          PlatformListenerBlock::copy(closure));
    testing::DrainQueue(queue_);
    return found;
  }

  bool waitFor(MediaDeviceEvent event, const std::string& uid,
               std::optional<bool> running = std::nullopt) {
    return events_.waitUntil([&](const auto& events) { return Has(events, event, uid, running); });
  }

  PrivatePulseServer server_;
  std::shared_ptr<PulseAudioHardwareService> service_;
  std::unique_ptr<PulseTestClient> client_;
  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("test.pulseaudio.controller");
  std::shared_ptr<MediaDeviceController> controller_;
  Recorder<Event> events_;
  Recorder<bool> brackets_;

 private:
  testing::ScopedHardwareServices services_;
};

TEST_F(PulseAudioControllerTest, DevicesPresentAtStartArriveAsInitialDiscovery) {
  observe();
  const auto events = events_.entries();
  EXPECT_EQ(events.size(), 2u);
  EXPECT_TRUE(Has(events, MediaDeviceEvent::InitialDiscovery, PrivatePulseServer::kNullSourceName));
  EXPECT_TRUE(Has(events, MediaDeviceEvent::InitialDiscovery, PrivatePulseServer::kNullSinkName));
  EXPECT_EQ(Count(events, MediaDeviceEvent::Connected), 0u);
}

TEST_F(PulseAudioControllerTest, LoadedNullSourceArrivesAsConnectedWithItsRecord) {
  observe();
  ASSERT_TRUE(
      client_->loadModule("module-null-source", "source_name=extra_source description=Extra"));
  ASSERT_TRUE(waitFor(MediaDeviceEvent::Connected, "extra_source"));

  const auto events = events_.entries();
  const auto connected = std::find_if(events.begin(), events.end(), [](const Event& entry) {
    return entry.event == MediaDeviceEvent::Connected;
  });
  const MediaDevice expected{
      .deviceID = connected->device.deviceID,
      .mediaType = MediaType::Audio,
      .deviceUID = "extra_source",
      .modelUID = std::nullopt,
      .transportType = MediaDeviceTransportType::Virtual,
      .name = "Extra",
      .inputSourceName = std::nullopt,
      .inputChannelCount = 1,
      .outputChannelCount = 0,
      .isConnected = true,
      .isRunning = false,
      .unsupportedReason = std::nullopt,
  };
  EXPECT_EQ(connected->device, expected);
  EXPECT_EQ(connected->device.deviceID, StableDeviceIDHome(StableIDSpace::Audio, "extra_source"))
      << "the ID every process gives this UID";
}

TEST_F(PulseAudioControllerTest, RecordingStreamBringsChangedRunningTrueThenFalse) {
  observe();
  auto recording = client_->record(PrivatePulseServer::kNullSourceName);
  ASSERT_TRUE(recording);
  ASSERT_TRUE(waitFor(MediaDeviceEvent::ChangedRunning, PrivatePulseServer::kNullSourceName, true));

  recording.reset();
  ASSERT_TRUE(
      waitFor(MediaDeviceEvent::ChangedRunning, PrivatePulseServer::kNullSourceName, false));
  EXPECT_EQ(Count(events_.entries(), MediaDeviceEvent::ChangedRunning), 2u);
}

TEST_F(PulseAudioControllerTest, ParecordBringsChangedRunningTrueThenFalse) {
  if (!ChildProcess::findProgram("parecord")) {
    FAIL() << "parecord is not installed (Debian package pulseaudio-utils)";
  }
  observe();
  ChildProcess parecord;
  const std::string error = server_.startRecorder(parecord, PrivatePulseServer::kNullSourceName);
  ASSERT_EQ(error, "");
  ASSERT_TRUE(waitFor(MediaDeviceEvent::ChangedRunning, PrivatePulseServer::kNullSourceName, true));

  parecord.stop(SIGTERM, 5s);
  ASSERT_TRUE(
      waitFor(MediaDeviceEvent::ChangedRunning, PrivatePulseServer::kNullSourceName, false));
}

TEST_F(PulseAudioControllerTest, ParecordReachesTheConsumersHandlerAndLeavesIt) {
  using Report = std::pair<std::string, std::vector<MediaDeviceConsumer>>;
  Recorder<Report> reports;
  controller_->setDeviceConsumersHandler(
      [&](const MediaDevice& device, const std::vector<MediaDeviceConsumer>& consumers) {
        reports.append({device.deviceUID, consumers});
      });
  observe();
  ChildProcess parecord;
  ASSERT_EQ(server_.startRecorder(parecord, PrivatePulseServer::kNullSourceName), "");
  auto lastFor = [](const std::vector<Report>& all) -> const Report* {
    for (auto it = all.rbegin(); it != all.rend(); ++it) {
      if (it->first == PrivatePulseServer::kNullSourceName) return &*it;
    }
    return nullptr;
  };
  EXPECT_TRUE(reports.waitUntil([&](const std::vector<Report>& all) {
    const Report* last = lastFor(all);
    return last && last->second.size() == 1 && last->second.front().processID == parecord.pid() &&
           last->second.front().processName == "parecord";
  }));
  parecord.stop(SIGTERM, 5s);
  EXPECT_TRUE(reports.waitUntil([&](const std::vector<Report>& all) {
    const Report* last = lastFor(all);
    return last && last->second.empty();
  }));
  controller_->setDeviceConsumersHandler(nullptr);
}

TEST_F(PulseAudioControllerTest, UnloadingTheModuleBringsDisconnected) {
  const auto module = client_->loadModule("module-null-source", "source_name=extra_source");
  ASSERT_TRUE(module);
  // A device that appears while observation starts can be missed (the cache fill is queued
  // before the list listener is added), so the service has it before the client observes.
  ASSERT_TRUE(waitUntilListed("extra_source"));
  observe();
  ASSERT_TRUE(Has(events_.entries(), MediaDeviceEvent::InitialDiscovery, "extra_source"));

  ASSERT_TRUE(client_->unloadModule(*module));
  ASSERT_TRUE(waitFor(MediaDeviceEvent::Disconnected, "extra_source"));
  const auto devices = controller_->connectedDevices();
  EXPECT_TRUE(std::none_of(devices.begin(), devices.end(), [](const MediaDevice& device) {
    return device.deviceUID == "extra_source";
  }));
}

TEST_F(PulseAudioControllerTest, KilledDaemonDisconnectsEveryDeviceAndARestartBringsThemBack) {
  observe();
  client_.reset();
  const auto discovered = controller_->connectedDevices();
  ASSERT_EQ(discovered.size(), 2u);

  server_.kill();
  ASSERT_TRUE(events_.waitUntil(
      [](const auto& events) { return Count(events, MediaDeviceEvent::Disconnected) == 2; }));
  EXPECT_TRUE(
      Has(events_.entries(), MediaDeviceEvent::Disconnected, PrivatePulseServer::kNullSourceName));
  EXPECT_TRUE(
      Has(events_.entries(), MediaDeviceEvent::Disconnected, PrivatePulseServer::kNullSinkName));
  EXPECT_TRUE(controller_->connectedDevices().empty());

  ASSERT_EQ(server_.start(), "");
  ASSERT_TRUE(events_.waitUntil(
      [](const auto& events) { return Count(events, MediaDeviceEvent::Connected) == 2; }));
  EXPECT_TRUE(
      Has(events_.entries(), MediaDeviceEvent::Connected, PrivatePulseServer::kNullSourceName));
  EXPECT_TRUE(
      Has(events_.entries(), MediaDeviceEvent::Connected, PrivatePulseServer::kNullSinkName));
  auto sorted = [](std::vector<MediaDevice> devices) {
    std::sort(devices.begin(), devices.end(),
              [](const auto& a, const auto& b) { return a.deviceID < b.deviceID; });
    return devices;
  };
  EXPECT_EQ(sorted(controller_->connectedDevices()), sorted(discovered));
}

}  // namespace
}  // namespace harkwell
