#include "tools/harkwell/ScenarioPlayer.h"

#include "tools/harkwell/Seconds.h"

namespace harkwell::cli {

ScenarioPlayer::ScenarioPlayer(Scenario scenario,
                               std::shared_ptr<SimulatedAudioHardwareService> audio,
                               std::shared_ptr<SimulatedVideoHardwareService> video)
    : scenario_(std::move(scenario)), audio_(std::move(audio)), video_(std::move(video)) {}

void ScenarioPlayer::addStartingDevices() {
  if (audio_) {
    for (const auto& device : scenario_.audioDevices) audio_->addDevice(device);
  }
  if (video_) {
    for (const auto& device : scenario_.videoDevices) video_->addDevice(device);
  }
}

std::optional<ScenarioPlayer::Clock::time_point> ScenarioPlayer::nextDue() const {
  if (!origin_ || nextStep_ >= scenario_.steps.size()) return std::nullopt;
  return *origin_ + SecondsToDuration(scenario_.steps[nextStep_].at);
}

bool ScenarioPlayer::applyNextIfDue(Clock::time_point now) {
  const auto due = nextDue();
  if (!due || *due > now) return false;
  apply(scenario_.steps[nextStep_++]);
  return true;
}

std::size_t ScenarioPlayer::applyDue(Clock::time_point now) {
  std::size_t applied = 0;
  while (applyNextIfDue(now)) ++applied;
  return applied;
}

void ScenarioPlayer::apply(const ScenarioStep& step) {
  const bool audio = step.mediaType == MediaType::Audio;
  // Service selection refuses a scenario whose devices have no simulated service to live in.
  if (audio ? !audio_ : !video_) return;
  switch (step.action) {
    case ScenarioAction::Plug:
      if (audio) {
        audio_->addDevice(*step.audioDevice);
      } else {
        video_->addDevice(*step.videoDevice);
      }
      break;
    case ScenarioAction::Unplug:
      if (audio) {
        audio_->removeDevice(step.deviceID);
      } else {
        video_->removeDevice(step.deviceID);
      }
      break;
    case ScenarioAction::Run:
    case ScenarioAction::Stop: {
      const bool running = step.action == ScenarioAction::Run;
      if (audio) {
        audio_->setDeviceRunning(step.deviceID, running);
      } else {
        video_->setDeviceRunning(step.deviceID, running);
      }
      break;
    }
    case ScenarioAction::SelectSource:
      if (audio) audio_->setSelectedDataSource(step.deviceID, step.inputSource);
      break;
    case ScenarioAction::SetConsumers:
      if (audio) {
        audio_->setDeviceConsumers(step.deviceID, step.consumers);
      } else {
        video_->setDeviceConsumers(step.deviceID, step.consumers);
      }
      break;
  }
}

}  // namespace harkwell::cli
