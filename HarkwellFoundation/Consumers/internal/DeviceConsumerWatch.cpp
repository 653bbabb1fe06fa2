#include "HarkwellFoundation/Consumers/internal/DeviceConsumerWatch.h"

#include "HarkwellFoundation/Consumers/MediaDeviceConsumers.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/SharedHardwareCodes.h"

namespace harkwell {

namespace {
constexpr PropertyAddress kConsumersAddress{kAudioDevicePropertyConsumers,
                                            kAudioObjectPropertyScopeGlobal,
                                            kAudioObjectPropertyElementMaster};

std::shared_ptr<HardwareService> InstalledService(MediaType mediaType) {
  if (mediaType == MediaType::Audio) return CurrentAudioHardwareService();
  return CurrentVideoHardwareService();
}
}  // namespace

std::shared_ptr<DeviceConsumerWatch> DeviceConsumerWatch::create(
    std::shared_ptr<DispatchQueue> queue, Report report) {
  return std::shared_ptr<DeviceConsumerWatch>(
      new DeviceConsumerWatch(std::move(queue), std::move(report)));
}

DeviceConsumerWatch::~DeviceConsumerWatch() {
  unwatchAll();
}

void DeviceConsumerWatch::watch(MediaType mediaType, ObjectID deviceID) {
  const Key key{mediaType, deviceID};
  Entry entry;
  entry.service = InstalledService(mediaType);
  // The listener holds the watch weakly: a listener block the service still runs after the
  // watch is gone does nothing.
  auto closure = std::make_shared<const PropertyListener>(
      [weakSelf = weak_from_this(), key](std::uint32_t, const PropertyAddress*) {
        if (const auto self = weakSelf.lock()) self->_refresh(key);
      });
  entry.block = PlatformListenerBlock::copy(std::move(closure));
  bool alreadyWatched = false;
  {
    MutexLock lock(mutex_);
    alreadyWatched = !entries_.emplace(key, entry).second;
  }
  // A device announced again (its ID listed anew) is read again; it reports only a change.
  if (alreadyWatched) {
    _refresh(key);
    return;
  }
  // The same block is handed back at removal, so services that match removals by block identity
  // (Apple's) remove it too. A device whose listener cannot be added is not followed, and the
  // next announcement of it tries again.
  if (entry.service->addPropertyListenerBlock(deviceID, kConsumersAddress, queue_, entry.block) !=
      kNoErr) {
    MutexLock lock(mutex_);
    entries_.erase(key);
    return;
  }
  _refresh(key);
}

void DeviceConsumerWatch::unwatch(MediaType mediaType, ObjectID deviceID) {
  Entry entry;
  {
    MutexLock lock(mutex_);
    const auto found = entries_.find({mediaType, deviceID});
    if (found == entries_.end()) return;
    entry = std::move(found->second);
    entries_.erase(found);
  }
  _removeListener(deviceID, entry, queue_);
}

void DeviceConsumerWatch::unwatchAll() {
  std::map<Key, Entry> entries;
  {
    MutexLock lock(mutex_);
    entries.swap(entries_);
  }
  for (const auto& [key, entry] : entries) _removeListener(key.second, entry, queue_);
}

bool DeviceConsumerWatch::isWatching(MediaType mediaType, ObjectID deviceID) const {
  MutexLock lock(mutex_);
  return entries_.contains({mediaType, deviceID});
}

void DeviceConsumerWatch::_removeListener(ObjectID deviceID, const Entry& entry,
                                          const std::shared_ptr<DispatchQueue>& queue) {
  entry.service->removePropertyListenerBlock(deviceID, kConsumersAddress, queue, entry.block);
}

void DeviceConsumerWatch::_refresh(const Key& key) {
  std::shared_ptr<HardwareService> service;
  {
    MutexLock lock(mutex_);
    const auto found = entries_.find(key);
    if (found == entries_.end()) return;
    service = found->second.service;
  }
  // A service that cannot say counts as no consumers: the report stays truthful about what is
  // known and never repeats a list.
  auto consumers =
      ReadDeviceConsumers(*service, key.second).value_or(std::vector<MediaDeviceConsumer>{});
  {
    MutexLock lock(mutex_);
    const auto found = entries_.find(key);
    if (found == entries_.end() || found->second.lastReported == consumers) return;
    found->second.lastReported = consumers;
  }
  report_(key.first, key.second, consumers);
}

}  // namespace harkwell
