// The controller on the simulated services with a real serial queue: the switch and its
// transitions, the initial discovery, property observation around each event, the forwarders'
// ownership, the list queries, one whole user flow and the thread safety of the client's side.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SimulatedServicesFixture.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using testing::DrainQueue;
using testing::Recorder;

constexpr PropertyAddress kRunningAddress =
    testing::GlobalAddress(kAudioDevicePropertyDeviceIsRunningSomewhere);
constexpr PropertyAddress kDataSourceAddress =
    testing::InputAddress(kAudioDevicePropertyDataSource);

// What the client saw, in order; for events, also how many listener registrations each service
// had received by the time the event was delivered.
struct Seen {
  bool isBracket = false;
  bool finished = false;
  MediaDeviceEvent event{};
  MediaDevice device;
  bool onQueue = false;
  std::size_t audioListenersAdded = 0;
  std::size_t videoListenersAdded = 0;
};

std::size_t ListenerAdds(const SimulatedObjectGraph& service, ObjectID object) {
  const auto calls = service.calls();
  return static_cast<std::size_t>(std::count_if(calls.begin(), calls.end(), [&](const auto& c) {
    return c.kind == SimulatedCallKind::AddPropertyListener && c.object == object && c.status == 0;
  }));
}

SimulatedAudioDevice Microphone(ObjectID id, const std::string& name, bool running = false) {
  return SimulatedAudioDevice{.deviceID = id,
                              .name = name,
                              .deviceUID = name + "-uid",
                              .modelUID = name + "-model",
                              .transportType = kAudioDeviceTransportTypeUSB,
                              .inputStreamCount = 1,
                              .outputStreamCount = 0,
                              .isRunning = running,
                              .selectedDataSource = 1,
                              .dataSourceNames = {{1, "Internal"}, {2, "Line In"}}};
}

SimulatedVideoDevice Camera(ObjectID id, const std::string& name) {
  return SimulatedVideoDevice{.deviceID = id,
                              .name = name,
                              .deviceUID = name + "-uid",
                              .modelUID = name + "-model",
                              .transportType = kVideoTransportTypeBuiltIn};
}

class ControllerTest : public testing::SimulatedServicesTest {
 protected:
  void TearDown() override {
    if (controller_) controller_->setObserveDevices(false);
    controller_.reset();
    DrainQueue(queue_);
    SimulatedServicesTest::TearDown();
  }

  std::shared_ptr<MediaDeviceController> makeController() {
    auto controller = MediaDeviceController::create(queue_);
    record(*controller);
    return controller;
  }

  void record(MediaDeviceController& controller) {
    controller.setUpdatingDevicesHandler([this](bool finished) {
      seen_.append(Seen{.isBracket = true, .finished = finished, .onQueue = queue_->isCurrent()});
    });
    controller.setDeviceEventHandler([this](MediaDeviceEvent event, const MediaDevice& device) {
      seen_.append(Seen{.event = event,
                        .device = device,
                        .onQueue = queue_->isCurrent(),
                        .audioListenersAdded = ListenerAdds(*audio, device.deviceID),
                        .videoListenersAdded = ListenerAdds(*video, device.deviceID)});
    });
  }

  // The client's view as text: "[" and "]" for brackets, "<event> <name>" for events.
  std::vector<std::string> timeline() const {
    std::vector<std::string> lines;
    for (const auto& entry : seen_.entries()) {
      if (entry.isBracket) {
        lines.push_back(entry.finished ? "]" : "[");
      } else {
        lines.push_back(std::string(caseName(entry.event)) + " " + entry.device.name);
      }
    }
    return lines;
  }

  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("controller-test");
  std::shared_ptr<MediaDeviceController> controller_;
  Recorder<Seen> seen_;
  testing::LogCapture log_;
};

TEST_F(ControllerTest, NeverObservingHasEmptyListsAndCallsNothing) {
  audio->addDevice(Microphone(10, "mic"));
  controller_ = makeController();
  DrainQueue(queue_);
  EXPECT_FALSE(controller_->observeDevices());
  EXPECT_TRUE(controller_->connectedDevices().empty());
  EXPECT_TRUE(controller_->connectedInputDevices().empty());
  EXPECT_TRUE(controller_->connectedSupportedDevices().empty());
  EXPECT_EQ(seen_.size(), 0u);
  EXPECT_TRUE(audio->calls().empty());
}

TEST_F(ControllerTest, WritingTrueTwiceMakesOnePairOfObserversAndOneDiscovery) {
  audio->addDevice(Microphone(10, "mic"));
  controller_ = makeController();
  controller_->setObserveDevices(true);
  auto audioObserver = controller_->audioDeviceObserverForTesting();
  auto videoObserver = controller_->videoDeviceObserverForTesting();
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  EXPECT_EQ(controller_->audioDeviceObserverForTesting(), audioObserver);
  EXPECT_EQ(controller_->videoDeviceObserverForTesting(), videoObserver);
  EXPECT_EQ(timeline(), (std::vector<std::string>{"[", "InitialDiscovery mic", "]"}));
}

TEST_F(ControllerTest, WritingFalseWhileIdleTouchesNoObserver) {
  controller_ = makeController();
  controller_->setObserveDevices(false);
  DrainQueue(queue_);
  EXPECT_FALSE(controller_->audioDeviceObserverForTesting());
  EXPECT_TRUE(audio->calls().empty());
  EXPECT_TRUE(video->calls().empty());
  EXPECT_EQ(seen_.size(), 0u);
}

TEST_F(ControllerTest, TrueFalseTrueMakesNewObserversAndRepeatsTheDiscovery) {
  audio->addDevice(Microphone(10, "mic"));
  video->addDevice(Camera(20, "cam"));
  controller_ = makeController();
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  std::weak_ptr<AudioDeviceObserver> firstAudio = controller_->audioDeviceObserverForTesting();
  controller_->setObserveDevices(false);
  EXPECT_FALSE(controller_->audioDeviceObserverForTesting());
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  EXPECT_NE(controller_->audioDeviceObserverForTesting(), firstAudio.lock());
  EXPECT_EQ(timeline(),
            (std::vector<std::string>{"[", "InitialDiscovery mic", "InitialDiscovery cam", "]", "[",
                                      "InitialDiscovery mic", "InitialDiscovery cam", "]"}));
}

TEST_F(ControllerTest, NoDeviceGivesOneBracketPairAndNoEvent) {
  controller_ = makeController();
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  EXPECT_EQ(timeline(), (std::vector<std::string>{"[", "]"}));
}

TEST_F(ControllerTest, DiscoveryReportsAudioThenVideoInsideOneBracketPair) {
  audio->addDevice(Microphone(10, "mic-a"));
  audio->addDevice(Microphone(11, "mic-b"));
  video->addDevice(Camera(20, "cam-a"));
  video->addDevice(Camera(21, "cam-b"));
  controller_ = makeController();
  controller_->setObserveDevices(true);
  DrainQueue(queue_);

  const auto lines = timeline();
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines.front(), "[");
  EXPECT_EQ(lines.back(), "]");
  std::vector<std::string> audioEvents(lines.begin() + 1, lines.begin() + 3);
  std::vector<std::string> videoEvents(lines.begin() + 3, lines.begin() + 5);
  std::sort(audioEvents.begin(), audioEvents.end());
  std::sort(videoEvents.begin(), videoEvents.end());
  EXPECT_EQ(audioEvents,
            (std::vector<std::string>{"InitialDiscovery mic-a", "InitialDiscovery mic-b"}));
  EXPECT_EQ(videoEvents,
            (std::vector<std::string>{"InitialDiscovery cam-a", "InitialDiscovery cam-b"}));
}

TEST_F(ControllerTest, PropertyObservationStartsBeforeEachDiscoveredDeviceIsReported) {
  audio->addDevice(Microphone(10, "mic"));
  video->addDevice(Camera(20, "cam"));
  controller_ = makeController();
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  const auto entries = seen_.entries();
  ASSERT_EQ(
      std::count_if(entries.begin(), entries.end(), [](const auto& e) { return !e.isBracket; }), 2);
  for (const auto& entry : entries) {
    if (entry.isBracket) continue;
    if (entry.device.mediaType == MediaType::Audio) {
      // Running state and selected input source.
      EXPECT_EQ(entry.audioListenersAdded, 2u) << entry.device.name;
    } else {
      EXPECT_EQ(entry.videoListenersAdded, 1u) << entry.device.name;
    }
  }
}

TEST_F(ControllerTest, PropertyObservationStartsBeforeConnectedAndStopsBeforeDisconnected) {
  controller_ = makeController();
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  seen_.clear();
  controller_->setUpdatingDevicesHandler(nullptr);
  bool listeningWhenDisconnected = true;
  controller_->setDeviceEventHandler([&](MediaDeviceEvent event, const MediaDevice& device) {
    if (event == MediaDeviceEvent::Connected) {
      seen_.append(Seen{.event = event,
                        .device = device,
                        .audioListenersAdded = audio->listenerCount(10, kRunningAddress)});
    } else if (event == MediaDeviceEvent::Disconnected) {
      listeningWhenDisconnected = audio->listenerCount(10, kRunningAddress) != 0;
      seen_.append(Seen{.event = event, .device = device});
    }
  });
  audio->addDevice(Microphone(10, "mic"));
  ASSERT_TRUE(seen_.waitForCount(1));
  EXPECT_EQ(seen_.entries()[0].audioListenersAdded, 1u);
  audio->removeDevice(10);
  ASSERT_TRUE(seen_.waitForCount(2));
  EXPECT_FALSE(listeningWhenDisconnected);
}

TEST_F(ControllerTest, WithBothCallbacksEmptyEventsAreStillHandled) {
  controller_ = MediaDeviceController::create(queue_);
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  audio->addDevice(Microphone(10, "mic"));
  DrainQueue(queue_);
  EXPECT_EQ(audio->listenerCount(10, kRunningAddress), 1u);
  EXPECT_EQ(audio->listenerCount(10, kDataSourceAddress), 1u);
  audio->removeDevice(10);
  DrainQueue(queue_);
  // The device object is gone, so its removals answer "!obj", silently; its listeners are gone.
  EXPECT_EQ(audio->listenerCount(10, kRunningAddress), 0u);
  const auto calls = audio->calls();
  EXPECT_TRUE(std::any_of(calls.begin(), calls.end(), [](const SimulatedCall& c) {
    return c.kind == SimulatedCallKind::RemovePropertyListener && c.object == 10 &&
           c.address == kRunningAddress;
  }));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ControllerTest, RunningAndInputSourceChangesReachTheClientWithoutTouchingObservation) {
  audio->addDevice(Microphone(10, "mic"));
  controller_ = makeController();
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  audio->clearCalls();
  audio->setDeviceRunning(10, true);
  audio->setSelectedDataSource(10, 2);
  ASSERT_TRUE(seen_.waitForCount(5));
  DrainQueue(queue_);
  const auto entries = seen_.entries();
  EXPECT_EQ(entries[3].event, MediaDeviceEvent::ChangedRunning);
  EXPECT_TRUE(entries[3].device.isRunning);
  EXPECT_EQ(entries[4].event, MediaDeviceEvent::ChangedInputSource);
  EXPECT_EQ(entries[4].device.inputSourceName, "Line In");
  for (const auto& call : audio->calls()) {
    EXPECT_NE(call.kind, SimulatedCallKind::AddPropertyListener);
    EXPECT_NE(call.kind, SimulatedCallKind::RemovePropertyListener);
  }
}

TEST_F(ControllerTest, ListsPutAudioFirstAndFilterKeepingOrder) {
  audio->addDevice(Microphone(10, "mic"));
  auto speaker = Microphone(11, "speaker");
  speaker.inputStreamCount = 0;
  speaker.outputStreamCount = 1;
  audio->addDevice(speaker);
  auto headset = Microphone(12, "headset");
  headset.outputStreamCount = 1;
  audio->addDevice(headset);
  video->addDevice(Camera(20, "cam"));
  auto loopback = Camera(21, "loopback");
  loopback.outputStreamCount = 1;
  video->addDevice(loopback);
  controller_ = makeController();
  controller_->setObserveDevices(true);
  DrainQueue(queue_);

  const auto all = controller_->connectedDevices();
  ASSERT_EQ(all.size(), 5u);
  EXPECT_TRUE(std::is_partitioned(all.begin(), all.end(), [](const MediaDevice& d) {
    return d.mediaType == MediaType::Audio;
  }));
  EXPECT_EQ(all[0].mediaType, MediaType::Audio);
  EXPECT_EQ(all[4].mediaType, MediaType::Video);

  auto names = [](const std::vector<MediaDevice>& devices) {
    std::vector<std::string> result;
    for (const auto& d : devices) result.push_back(d.name);
    return result;
  };
  auto withoutSpeaker = names(all);
  std::erase(withoutSpeaker, "speaker");
  EXPECT_EQ(names(controller_->connectedInputDevices()), withoutSpeaker);
  auto supported = names(all);
  std::erase(supported, "speaker");
  std::erase(supported, "headset");
  std::erase(supported, "loopback");
  EXPECT_EQ(names(controller_->connectedSupportedDevices()), supported);
}

TEST_F(ControllerTest, SwitchingOffBeforeTheDiscoveryRanDoesNotCancelIt) {
  audio->addDevice(Microphone(10, "mic"));
  video->addDevice(Camera(20, "cam"));
  controller_ = makeController();
  std::promise<void> gate;
  queue_->async([opened = gate.get_future().share()] { opened.wait(); });
  controller_->setObserveDevices(true);
  controller_->setObserveDevices(false);
  EXPECT_FALSE(controller_->audioDeviceObserverForTesting());
  gate.set_value();
  DrainQueue(queue_);
  EXPECT_EQ(timeline(),
            (std::vector<std::string>{"[", "InitialDiscovery mic", "InitialDiscovery cam", "]"}));
  // Property observation was started on the observers the controller no longer owns (their
  // teardown, once the discovery released them, removed it again).
  EXPECT_EQ(ListenerAdds(*audio, 10), 2u);
  EXPECT_EQ(ListenerAdds(*video, 20), 1u);
  EXPECT_TRUE(controller_->connectedDevices().empty());
}

TEST_F(ControllerTest, StopClearsOnlyTheEventCallbackOfEachObserver) {
  controller_ = makeController();
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  auto audioObserver = controller_->audioDeviceObserverForTesting();
  auto videoObserver = controller_->videoDeviceObserverForTesting();
  controller_->setObserveDevices(false);
  EXPECT_FALSE(audioObserver->deviceEventHandler());
  EXPECT_TRUE(audioObserver->updatingDevicesHandler());
  EXPECT_FALSE(videoObserver->deviceEventHandler());
  EXPECT_TRUE(videoObserver->updatingDevicesHandler());
  EXPECT_FALSE(audioObserver->isObservingConnectedDevicesForTesting());
  // The updating forwarder still owns the controller until these observers go.
  audioObserver->setUpdatingDevicesHandler(nullptr);
  videoObserver->setUpdatingDevicesHandler(nullptr);
}

TEST_F(ControllerTest, DroppedWhileObservingItStaysAliveAndKeepsReporting) {
  auto controller = makeController();
  controller->setObserveDevices(true);
  DrainQueue(queue_);
  std::weak_ptr<MediaDeviceController> weak = controller;
  controller.reset();
  ASSERT_FALSE(weak.expired());

  audio->addDevice(Microphone(10, "mic"));
  ASSERT_TRUE(seen_.waitUntil([](const auto& entries) {
    return std::any_of(entries.begin(), entries.end(),
                       [](const Seen& s) { return s.event == MediaDeviceEvent::Connected; });
  }));
  EXPECT_FALSE(weak.expired());

  weak.lock()->setObserveDevices(false);
  DrainQueue(queue_);
  EXPECT_TRUE(weak.expired()) << "switching off breaks the ownership cycle";
}

TEST_F(ControllerTest, EventForwarderUsedAfterTheControllerIsGoneStopsTheProgram) {
  auto controller = makeController();
  controller->setObserveDevices(true);
  DrainQueue(queue_);
  auto observer = controller->audioDeviceObserverForTesting();
  const auto forwarder = observer->deviceEventHandler();
  ASSERT_TRUE(forwarder);
  controller->setObserveDevices(false);
  // The updating forwarder still owns the controller; dropping it lets the controller go.
  observer->setUpdatingDevicesHandler(nullptr);
  std::weak_ptr<MediaDeviceController> weak = controller;
  controller.reset();
  ASSERT_TRUE(weak.expired());
  EXPECT_DEATH(forwarder(*observer, MediaDeviceEvent::Connected, MediaDevice{}), "");
}

TEST_F(ControllerTest, EveryCallbackRunsOnTheEventHandlerQueue) {
  audio->addDevice(Microphone(10, "mic"));
  controller_ = makeController();
  controller_->setObserveDevices(true);
  DrainQueue(queue_);  // the device's running state is listened to from here on
  audio->setDeviceRunning(10, true);
  audio->removeDevice(10);
  ASSERT_TRUE(seen_.waitForCount(7));
  for (const auto& entry : seen_.entries()) EXPECT_TRUE(entry.onQueue);
}

TEST_F(ControllerTest, DefaultQueueIsSharedAndNamed) {
  auto queue = MediaDeviceController::defaultDeviceEventHandlerQueue();
  ASSERT_TRUE(queue);
  EXPECT_EQ(queue, MediaDeviceController::defaultDeviceEventHandlerQueue());
  const std::string suffix = ".HarkwellFoundation.DefaultDeviceEventHandlerQueue";
  ASSERT_GT(queue->label().size(), suffix.size());
  EXPECT_EQ(queue->label().substr(queue->label().size() - suffix.size()), suffix);
  EXPECT_EQ(MediaDeviceController::create()->deviceEventHandlerQueue(), queue);
}

TEST_F(ControllerTest, WholeFlowOfOneMicrophone) {
  controller_ = makeController();
  controller_->setObserveDevices(true);
  DrainQueue(queue_);
  audio->addDevice(Microphone(10, "mic"));
  DrainQueue(queue_);
  audio->setDeviceRunning(10, true);
  DrainQueue(queue_);
  audio->setSelectedDataSource(10, 2);
  DrainQueue(queue_);
  audio->setDeviceRunning(10, false);
  DrainQueue(queue_);
  audio->removeDevice(10);
  DrainQueue(queue_);

  const auto entries = seen_.entries();
  ASSERT_EQ(entries.size(), 11u) << ::testing::PrintToString(timeline());
  EXPECT_EQ(timeline(),
            (std::vector<std::string>{"[", "]", "[", "Connected mic", "]", "ChangedRunning mic",
                                      "ChangedInputSource mic", "ChangedRunning mic", "[",
                                      "Disconnected mic", "]"}));
  const MediaDevice connected{.deviceID = 10,
                              .mediaType = MediaType::Audio,
                              .deviceUID = "mic-uid",
                              .modelUID = "mic-model",
                              .transportType = MediaDeviceTransportType::USB,
                              .name = "mic",
                              .inputSourceName = "Internal",
                              .inputChannelCount = 1,
                              .outputChannelCount = 0,
                              .isConnected = true,
                              .isRunning = false,
                              .unsupportedReason = std::nullopt};
  EXPECT_EQ(entries[3].device, connected);
  auto running = connected;
  running.isRunning = true;
  EXPECT_EQ(entries[5].device, running);
  auto lineIn = running;
  lineIn.inputSourceName = "Line In";
  EXPECT_EQ(entries[6].device, lineIn);
  auto stopped = lineIn;
  stopped.isRunning = false;
  EXPECT_EQ(entries[7].device, stopped);
  auto gone = stopped;
  gone.isConnected = false;
  EXPECT_EQ(entries[9].device, gone);
  EXPECT_TRUE(log_.lines().empty()) << ::testing::PrintToString(log_.lines());
}

TEST_F(ControllerTest, ClientThreadTogglesAndReadsWhileChangesArriveFromAnother) {
  audio->setRecordingCalls(false);
  video->setRecordingCalls(false);
  controller_ = makeController();
  std::atomic<bool> stop{false};
  std::thread platform([&] {
    for (std::uint32_t i = 0; !stop.load(); ++i) {
      const ObjectID id = 100 + (i % 8);
      if (i % 3 == 0) {
        audio->addDevice(Microphone(id, "mic" + std::to_string(id)));
      } else if (i % 3 == 1) {
        audio->setDeviceRunning(id, i % 2 == 0);
        video->addDevice(Camera(id, "cam"));
      } else {
        audio->removeDevice(id);
        video->removeDevice(id);
      }
    }
  });
  std::size_t listed = 0;
  for (int i = 0; i < 10000; ++i) {
    controller_->setObserveDevices(i % 2 == 0);
    listed += controller_->connectedDevices().size();
    listed += controller_->connectedInputDevices().size();
    listed += controller_->connectedSupportedDevices().size();
    if (i % 100 == 0) controller_->setDeviceEventHandler(controller_->deviceEventHandler());
  }
  stop = true;
  platform.join();
  controller_->setObserveDevices(false);
  DrainQueue(queue_);
  for (const auto& entry : seen_.entries()) EXPECT_TRUE(entry.onQueue);
  ::testing::Test::RecordProperty("devices_listed", static_cast<int>(listed));
}

}  // namespace
}  // namespace harkwell
