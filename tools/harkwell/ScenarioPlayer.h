// Plays a Scenario on the simulated services: puts its starting devices in place, then applies
// each step once its time has come. The player does not keep time itself; the program's loop asks
// when the next step is due and calls applyNextIfDue() then, and tests pass whatever times they
// like. Called on one thread (the program's main thread).
#pragma once

#include <chrono>
#include <cstddef>
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
  // Step times count from `origin`.
  void start(Clock::time_point origin) { origin_ = origin; }
  bool started() const { return origin_.has_value(); }
  // When the next step is due; empty once every step has been applied (or before start()).
  std::optional<Clock::time_point> nextDue() const;
  // Whether every step has been applied.
  bool finished() const { return nextStep_ >= scenario_.steps.size(); }
  // Applies the next step if it is due at `now`; returns whether it did. The watch command applies
  // one step at a time and lets the controller handle what it changed (a device plugged in is
  // observed) before a later step changes it again.
  bool applyNextIfDue(Clock::time_point now);
  // Applies, in order, every step due at `now`; returns how many it applied.
  std::size_t applyDue(Clock::time_point now);

 private:
  void apply(const ScenarioStep& step);

  const Scenario scenario_;
  const std::shared_ptr<SimulatedAudioHardwareService> audio_;
  const std::shared_ptr<SimulatedVideoHardwareService> video_;
  std::optional<Clock::time_point> origin_;
  std::size_t nextStep_ = 0;
};

}  // namespace harkwell::cli
