#include "bindings/python/src/ScenarioDriver.h"

#include <mutex>
#include <vector>

namespace harkwell::python {
namespace {

// The scenarios that have started and not finished; touched by start() (any thread) and by the
// main thread's serving.
std::mutex gRunningMutex;
std::vector<std::shared_ptr<ScenarioDriver>>& Running() {
  static auto* running = new std::vector<std::shared_ptr<ScenarioDriver>>;
  return *running;
}

std::vector<std::shared_ptr<ScenarioDriver>> RunningNow() {
  std::lock_guard<std::mutex> lock(gRunningMutex);
  return Running();
}

}  // namespace

ScenarioDriver::ScenarioDriver(cli::Scenario scenario,
                               std::shared_ptr<SimulatedAudioHardwareService> audio,
                               std::shared_ptr<SimulatedVideoHardwareService> video)
    : audio_(audio), video_(video), player_(std::move(scenario), audio, video) {
  player_.addStartingDevices();
}

bool ScenarioDriver::start(std::shared_ptr<DispatchQueue> queue) {
  if (started_.exchange(true)) return false;
  queue_ = std::move(queue);
  postBarrier();
  std::lock_guard<std::mutex> lock(gRunningMutex);
  Running().push_back(shared_from_this());
  return true;
}

void ScenarioDriver::postBarrier() {
  auto passed = std::make_shared<std::atomic<bool>>(false);
  barrierPassed_ = passed;
  barrierPending_ = true;
  queue_->async([passed] {
    passed->store(true);
    DispatchQueue::main()->async([] {});  // wakes the main thread's wait
  });
}

void ScenarioDriver::playDue(Clock::time_point now) {
  if (barrierPending_) {
    if (!barrierPassed_->load()) return;
    barrierPending_ = false;
    if (!player_.started()) player_.start(now);
  }
  if (player_.applyNextIfDue(now)) {
    postBarrier();
  } else if (player_.finished()) {
    finished_.store(true);
  }
}

void ScenarioDriver::PlayDueSteps(Clock::time_point now) {
  for (const auto& driver : RunningNow()) driver->playDue(now);
  std::lock_guard<std::mutex> lock(gRunningMutex);
  std::erase_if(Running(), [](const auto& driver) { return driver->finished(); });
}

std::optional<ScenarioDriver::Clock::time_point> ScenarioDriver::NextWakeUp() {
  std::optional<Clock::time_point> earliest;
  for (const auto& driver : RunningNow()) {
    // A pending barrier wakes the main loop itself when it passes.
    if (driver->barrierPending_) continue;
    const auto due = driver->player_.nextDue();
    if (due && (!earliest || *due < *earliest)) earliest = due;
  }
  return earliest;
}

}  // namespace harkwell::python
