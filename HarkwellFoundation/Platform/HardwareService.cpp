#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/Mutex.h"

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
    MutexLock lock(mutex_);
    if (!service_) service_ = makeDefault_();
    return service_;
  }

  std::shared_ptr<Service> install(std::shared_ptr<Service> service) {
    MutexLock lock(mutex_);
    service_.swap(service);
    return service;
  }

 private:
  Factory makeDefault_;
  Mutex mutex_;
  std::shared_ptr<Service> service_ HARKWELL_GUARDED_BY(mutex_);
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
