// A scenario file played on the simulated services from a Python program: its starting devices are
// added when it loads; start(queue) starts its clock once everything queued on the controller's
// queue before the call has run (the initial discovery), and each step is applied when due, the
// next one only after the controller's queue has handled the previous one, as `harkwell watch`
// plays it. The main thread plays the steps while it serves the main run loop (MainLoopServing.h).
#pragma once

#include <atomic>
#include <memory>
#include <optional>

#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "tools/harkwell/ScenarioPlayer.h"

namespace harkwell::python {

class ScenarioDriver : public std::enable_shared_from_this<ScenarioDriver> {
 public:
  using Clock = cli::ScenarioPlayer::Clock;

  ScenarioDriver(cli::Scenario scenario, std::shared_ptr<SimulatedAudioHardwareService> audio,
                 std::shared_ptr<SimulatedVideoHardwareService> video);

  const std::shared_ptr<SimulatedAudioHardwareService>& audio() const { return audio_; }
  const std::shared_ptr<SimulatedVideoHardwareService>& video() const { return video_; }

  // Starts the clock once `queue` has run what it holds now; a second start is refused (false).
  // Any thread.
  bool start(std::shared_ptr<DispatchQueue> queue);
  bool started() const { return started_.load(); }
  // Every step applied and handled by the controller's queue. Any thread.
  bool finished() const { return finished_.load(); }

  // Main thread: applies what is due. Every started, unfinished scenario.
  static void PlayDueSteps(Clock::time_point now);
  // When a scenario next needs the main thread; empty when none waits on time.
  static std::optional<Clock::time_point> NextWakeUp();

 private:
  void playDue(Clock::time_point now);
  void postBarrier();

  std::shared_ptr<SimulatedAudioHardwareService> audio_;
  std::shared_ptr<SimulatedVideoHardwareService> video_;
  cli::ScenarioPlayer player_;  // main thread only once started
  std::shared_ptr<DispatchQueue> queue_;
  std::shared_ptr<std::atomic<bool>> barrierPassed_;
  bool barrierPending_ = false;
  std::atomic<bool> started_{false};
  std::atomic<bool> finished_{false};
};

}  // namespace harkwell::python
