// Plays a Scenario on the simulated services: puts its starting devices in place, then applies
// each step once its time has come. The player does not keep time itself; the program's loop asks
// when the next step is due and calls applyDue() then, and tests pass whatever times they like.
// Called on one thread (the program's main thread).
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>

#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "tools/harkwell/Scenario.h"

namespace harkwell::cli {

class ScenarioPlayer {
 public:
  using Clock = std::chrono::steady_clock;

  // A service may be null when the scenario has no devices of its media type.
  ScenarioPlayer(Scenario scenario, std::shared_ptr<SimulatedAudioHardwareService> audio,
                 std::shared_ptr<SimulatedVideoHardwareService> video);

  // Adds the devices that are connected from the start.
  void addStartingDevices();
  // Step times count from `origin`. `afterEachStep`, when given, runs after every step and
  // before the next one; the watch command uses it to let the controller handle what a step
  // changed (a device plugged in is observed) before a later step changes it again.
  void start(Clock::time_point origin, std::function<void()> afterEachStep = {}) {
    origin_ = origin;
    afterEachStep_ = std::move(afterEachStep);
  }
  // When the next step is due; empty once every step has been applied (or before start()).
  std::optional<Clock::time_point> nextDue() const;
  // Applies, in order, every step due at `now`; returns how many it applied.
  std::size_t applyDue(Clock::time_point now);

 private:
  void apply(const ScenarioStep& step);

  const Scenario scenario_;
  const std::shared_ptr<SimulatedAudioHardwareService> audio_;
  const std::shared_ptr<SimulatedVideoHardwareService> video_;
  std::optional<Clock::time_point> origin_;
  std::function<void()> afterEachStep_;
  std::size_t nextStep_ = 0;
};

}  // namespace harkwell::cli
