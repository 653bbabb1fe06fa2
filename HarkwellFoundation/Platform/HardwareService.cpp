#include "HarkwellFoundation/Platform/HardwareService.h"

#include <mutex>

namespace harkwell {
namespace {

// One installed service per media type. The first read installs the platform default; the lock is
// held only to copy or swap the pointer (and once, while the default is made).
template <class Service>
class InstalledService {
 public:
  using Factory = std::shared_ptr<Service> (*)();
  explicit InstalledService(Factory makeDefault) : makeDefault_(makeDefault) {}

  std::shared_ptr<Service> current() {
    std::lock_guard lock(mutex_);
    if (!service_) service_ = makeDefault_();
    return service_;
  }

  std::shared_ptr<Service> install(std::shared_ptr<Service> service) {
    std::lock_guard lock(mutex_);
    service_.swap(service);
    return service;
  }

 private:
  Factory makeDefault_;
  std::mutex mutex_;
  std::shared_ptr<Service> service_;
};

InstalledService<AudioHardwareService>& installedAudio() {
  static InstalledService<AudioHardwareService> installed(&MakeDefaultAudioHardwareService);
  return installed;
}

InstalledService<VideoHardwareService>& installedVideo() {
  static InstalledService<VideoHardwareService> installed(&MakeDefaultVideoHardwareService);
  return installed;
}

}  // namespace

std::shared_ptr<AudioHardwareService> CurrentAudioHardwareService() {
  return installedAudio().current();
}

std::shared_ptr<AudioHardwareService> InstallAudioHardwareService(
    std::shared_ptr<AudioHardwareService> service) {
  return installedAudio().install(std::move(service));
}

std::shared_ptr<VideoHardwareService> CurrentVideoHardwareService() {
  return installedVideo().current();
}

std::shared_ptr<VideoHardwareService> InstallVideoHardwareService(
    std::shared_ptr<VideoHardwareService> service) {
  return installedVideo().install(std::move(service));
}

}  // namespace harkwell
