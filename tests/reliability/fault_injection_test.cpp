// Seeded fault schedules through MediaDeviceController on misbehaving simulated services (see
// SimulatedFaultWorld.h for what can go wrong). After every operation, with the queue quiet, the
// cache must hold only whole records, the client's view must equal it, every Disconnected must
// follow a Connected or InitialDiscovery of its device, every callback must have run on the
// event-handler queue, and nothing may crash.
//
// A failure names its seed and operation; HARKWELL_FAULT_SEED=<seed> with
// HARKWELL_FAULT_OPERATIONS=<operation> replays it. HARKWELL_FAULT_OPERATIONS=1000000 is the full
// run; the default suits CI in every build.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/DeviceConsumerCoding.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "HarkwellFoundation/Platform/SystemLog.h"
#include "tests/reliability/ChoiceSource.h"
#include "tests/reliability/QueueDrain.h"
#include "tests/reliability/RunLength.h"
#include "tests/reliability/SimulatedFaultWorld.h"
#include "tests/support/ScopedHardwareServices.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using testing::SeededChoices;
using testing::SimulatedFaultWorld;

constexpr std::uint64_t kDefaultOperations = 10000;
// A listener whose removal was made to fail stays registered with the simulated platform for good,
// as it would on a real one, and every later notification of its property still queues its block.
// Starting a fresh world this often keeps that pile, and so the cost per operation, bounded.
constexpr std::uint64_t kOperationsPerWorld = 5000;
constexpr std::uint64_t kFixedSeed = 20240601;

struct ScheduleOutcome {
  std::vector<std::string> steps;
  std::array<std::uint64_t, 5> events{};
  std::uint64_t logLines = 0;
  std::uint64_t consumerReports = 0;

  void add(const SimulatedFaultWorld& world) {
    const auto counts = world.client().eventCounts();
    for (std::size_t i = 0; i < counts.size(); ++i) events[i] += counts[i];
    logLines += world.logLineCount();
    consumerReports += world.client().consumerReportCount();
  }
};

// Runs `operations` steps of the schedule of `seed`, failing the test at the first broken rule.
// With `keepSteps` the description of every step is kept.
ScheduleOutcome RunSchedule(std::uint64_t seed, std::uint64_t operations, bool keepSteps) {
  std::fprintf(stderr, "fault schedule: seed %llu, %llu operations\n",
               static_cast<unsigned long long>(seed), static_cast<unsigned long long>(operations));
  ScheduleOutcome outcome;
  SeededChoices choices(seed);
  auto world = std::make_unique<SimulatedFaultWorld>();
  for (std::uint64_t operation = 1; operation <= operations; ++operation) {
    if (operation % kOperationsPerWorld == 0) {
      outcome.add(*world);
      world.reset();
      world = std::make_unique<SimulatedFaultWorld>();
    }
    if (auto problem = world->check()) {
      ADD_FAILURE() << "seed " << seed << ", before operation " << operation << ": " << *problem;
      return outcome;
    }
    std::string step = world->step(choices);
    if (auto problem = world->check()) {
      ADD_FAILURE() << "seed " << seed << ", operation " << operation << " (" << step
                    << "): " << *problem << "\nreplay with HARKWELL_FAULT_SEED=" << seed
                    << " HARKWELL_FAULT_OPERATIONS=" << operation;
      return outcome;
    }
    if (keepSteps) outcome.steps.push_back(std::move(step));
  }
  outcome.add(*world);
  return outcome;
}

std::uint64_t Operations() {
  return testing::RunLengthFromEnvironment("HARKWELL_FAULT_OPERATIONS", kDefaultOperations);
}

// A schedule that never reached some event proves little; the defaults reach all of them.
void ExpectEveryEventKind(const ScheduleOutcome& outcome) {
  for (auto event : {MediaDeviceEvent::InitialDiscovery, MediaDeviceEvent::Connected,
                     MediaDeviceEvent::Disconnected, MediaDeviceEvent::ChangedRunning,
                     MediaDeviceEvent::ChangedInputSource}) {
    EXPECT_GT(outcome.events[hashValue(event)], 0u) << caseName(event) << " never happened";
  }
  EXPECT_GT(outcome.logLines, 0u) << "no failure was ever logged";
  EXPECT_GT(outcome.consumerReports, 0u) << "no device's consumers were ever reported";
}

TEST(FaultInjectionTest, FixedSeedScheduleKeepsEveryInvariant) {
  const auto outcome =
      RunSchedule(testing::UnsignedFromEnvironment("HARKWELL_FAULT_SEED").value_or(kFixedSeed),
                  Operations(), false);
  if (!HasFailure()) ExpectEveryEventKind(outcome);
}

TEST(FaultInjectionTest, FreshSeedScheduleKeepsEveryInvariant) {
  // A new seed on every run widens what CI covers over time; a failure prints it for replay.
  const std::uint64_t seed =
      testing::UnsignedFromEnvironment("HARKWELL_FAULT_SEED")
          .value_or((std::uint64_t{std::random_device{}()} << 32) | std::random_device{}());
  RunSchedule(seed, Operations(), false);
}

TEST(FaultInjectionTest, ReplayingASeedRepeatsTheSchedule) {
  constexpr std::uint64_t kSteps = 400;
  const auto first = RunSchedule(kFixedSeed + 1, kSteps, true);
  const auto second = RunSchedule(kFixedSeed + 1, kSteps, true);
  ASSERT_FALSE(HasFailure());
  EXPECT_EQ(first.steps, second.steps);
  EXPECT_EQ(first.events, second.events);
  EXPECT_EQ(first.logLines, second.logLines);
  EXPECT_EQ(first.consumerReports, second.consumerReports);
}

// Two clients watch the same devices side by side, one of them following consumers whose reads
// fail or do not decode. Device events are the system's own record: both clients must be told
// exactly the same ones, in the same order.
TEST(FaultInjectionTest, FailedAndGarbledConsumerReadsLeaveDeviceEventsAlone) {
  auto audio = SimulatedAudioHardwareService::create();
  auto video = SimulatedVideoHardwareService::create();
  testing::ScopedHardwareServices services;
  services.install(audio, video);
  const LogSink previousSink = InstallLogSink([](std::string_view) {});
  constexpr PropertyAddress kConsumers{kAudioDevicePropertyConsumers,
                                       kAudioObjectPropertyScopeGlobal, 0};
  const MediaDeviceConsumer recorder{.processID = 40, .isProcessIDVerified = true};
  audio->addDevice({.deviceID = 10,
                    .name = "mic",
                    .deviceUID = "mic",
                    .modelUID = "1:2",
                    .selectedDataSource = 1,
                    .dataSourceNames = {{1, "A"}, {2, "B"}},
                    .consumers = {recorder}});
  video->addDevice({.deviceID = 20,
                    .name = "cam",
                    .deviceUID = "cam",
                    .modelUID = "3:4",
                    .consumers = {recorder}});

  struct Client {
    std::shared_ptr<DispatchQueue> queue;
    std::shared_ptr<MediaDeviceController> controller;
    testing::Recorder<std::string> events;
    testing::Recorder<std::string> consumers;
  };
  Client plain{DispatchQueue::createSerial("plain-client"), nullptr, {}, {}};
  Client following{DispatchQueue::createSerial("following-client"), nullptr, {}, {}};
  for (Client* client : {&plain, &following}) {
    client->controller = MediaDeviceController::create(client->queue);
    client->controller->setDeviceEventHandler(
        [client](MediaDeviceEvent event, const MediaDevice& device) {
          std::ostringstream line;
          line << event << " " << device;
          client->events.append(line.str());
        });
  }
  following.controller->setDeviceConsumersHandler(
      [&following](const MediaDevice& device, const std::vector<MediaDeviceConsumer>& consumers) {
        following.consumers.append(device.name + " " + std::to_string(consumers.size()));
      });
  const auto settle = [&] {
    ASSERT_TRUE(testing::DrainQueueServingMainThread(plain.queue));
    ASSERT_TRUE(testing::DrainQueueServingMainThread(following.queue));
  };

  // Every consumer read of the camera fails; the microphone's consumers do not decode (too short,
  // then a whole list with a byte too many).
  video->addFailure({.kind = SimulatedCallKind::GetPropertyData,
                     .selector = kAudioDevicePropertyConsumers,
                     .status = kAudioHardwareUnspecifiedError});
  audio->setProperty(10, kConsumers, SimulatedPropertyValue::Bytes({1, 2, 3}), false);
  plain.controller->setObserveDevices(true);
  following.controller->setObserveDevices(true);
  ASSERT_NO_FATAL_FAILURE(settle());

  audio->setDeviceRunning(10, true);
  video->setDeviceConsumers(20, {recorder, recorder});
  auto trailing = EncodeDeviceConsumers({recorder});
  trailing.push_back(0);
  audio->setProperty(10, kConsumers, SimulatedPropertyValue::Bytes(std::move(trailing)));
  audio->setSelectedDataSource(10, 2);
  ASSERT_NO_FATAL_FAILURE(settle());
  // The second microphone's first consumer reads find it gone.
  audio->addFailure({.kind = SimulatedCallKind::GetPropertyDataSize,
                     .object = 11,
                     .selector = kAudioDevicePropertyConsumers,
                     .status = kAudioHardwareBadObjectError,
                     .count = 2});
  audio->addDevice({.deviceID = 11,
                    .name = "mic 2",
                    .deviceUID = "mic2",
                    .modelUID = "5:6",
                    .consumers = {recorder}});
  video->setDeviceRunning(20, true);
  ASSERT_NO_FATAL_FAILURE(settle());
  audio->setDeviceConsumers(11, {});
  ASSERT_NO_FATAL_FAILURE(settle());
  // Reads that work again are reported.
  video->clearFailures();
  video->setDeviceConsumers(20, {recorder});
  audio->setDeviceConsumers(11, {recorder});
  ASSERT_NO_FATAL_FAILURE(settle());
  audio->removeDevice(10);
  audio->setDeviceRunning(11, true);
  ASSERT_NO_FATAL_FAILURE(settle());

  plain.controller->setObserveDevices(false);
  following.controller->setObserveDevices(false);
  ASSERT_NO_FATAL_FAILURE(settle());
  InstallLogSink(previousSink);

  EXPECT_EQ(following.events.entries(), plain.events.entries());
  EXPECT_EQ(plain.events.size(), 8u) << "2 discovered, 1 plugged in, 4 changes, 1 unplugged";
  EXPECT_EQ(following.consumers.entries(), (std::vector<std::string>{"cam 1", "mic 2 1"}))
      << "only the consumers that could be read are reported";
  EXPECT_EQ(plain.consumers.size(), 0u);
}

}  // namespace
}  // namespace harkwell
