// Installs an audio and a video hardware service process-wide for a test and puts back the ones
// they replaced, at restore() or when it goes away, whichever comes first.
#pragma once

#include <memory>
#include <utility>

#include "HarkwellFoundation/Platform/HardwareService.h"

namespace harkwell::testing {

class ScopedHardwareServices {
 public:
  ScopedHardwareServices() = default;
  ScopedHardwareServices(std::shared_ptr<AudioHardwareService> audio,
                         std::shared_ptr<VideoHardwareService> video) {
    install(std::move(audio), std::move(video));
  }
  ~ScopedHardwareServices() { restore(); }
  ScopedHardwareServices(const ScopedHardwareServices&) = delete;
  ScopedHardwareServices& operator=(const ScopedHardwareServices&) = delete;

  // Installing again keeps the services found by the first install as the ones to put back.
  void install(std::shared_ptr<AudioHardwareService> audio,
               std::shared_ptr<VideoHardwareService> video) {
    auto previousAudio = InstallAudioHardwareService(std::move(audio));
    auto previousVideo = InstallVideoHardwareService(std::move(video));
    if (installed_) return;
    previousAudio_ = std::move(previousAudio);
    previousVideo_ = std::move(previousVideo);
    installed_ = true;
  }

  void restore() {
    if (!installed_) return;
    InstallAudioHardwareService(std::move(previousAudio_));
    InstallVideoHardwareService(std::move(previousVideo_));
    installed_ = false;
  }

 private:
  bool installed_ = false;
  std::shared_ptr<AudioHardwareService> previousAudio_;
  std::shared_ptr<VideoHardwareService> previousVideo_;
};

}  // namespace harkwell::testing
