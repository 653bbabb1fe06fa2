// DeviceConsumerWatch: follows the consumers of the devices it is told to watch, through each
// device's consumers property and its listener, and reports every change to one callback on one
// queue. The controller uses it only while its client has a consumers handler, so a client without
// one causes no consumer reads and no extra listeners.
//
// Threads: watch() and unwatch() run on the report queue (the controller calls them from its
// event handling there), so a device's report never comes before its Connected event or after its
// Disconnected one; unwatchAll() may run on any thread. Reports run on the queue, with no lock
// held. A listener that fires after its device was unwatched reports nothing.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Model/MediaEnumerations.h"
#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/Mutex.h"

namespace harkwell {

class DeviceConsumerWatch : public std::enable_shared_from_this<DeviceConsumerWatch> {
 public:
  using Report = std::function<void(MediaType, ObjectID, const std::vector<MediaDeviceConsumer>&)>;

  static std::shared_ptr<DeviceConsumerWatch> create(std::shared_ptr<DispatchQueue> queue,
                                                     Report report);
  ~DeviceConsumerWatch();

  // Starts following one device through the service installed now for its media type and reports
  // its consumers at once when there are any. Watching a watched device reads it again and reports
  // only a change; a device whose listener the service refuses is not followed.
  void watch(MediaType mediaType, ObjectID deviceID);
  void unwatch(MediaType mediaType, ObjectID deviceID);
  void unwatchAll();

  bool isWatching(MediaType mediaType, ObjectID deviceID) const;

 private:
  using Key = std::pair<MediaType, ObjectID>;
  struct Entry {
    std::shared_ptr<HardwareService> service;
    PlatformListenerBlockRef block;
    std::vector<MediaDeviceConsumer> lastReported;
  };

  DeviceConsumerWatch(std::shared_ptr<DispatchQueue> queue, Report report)
      : queue_(std::move(queue)), report_(std::move(report)) {}
  void _refresh(const Key& key);
  static void _removeListener(ObjectID deviceID, const Entry& entry,
                              const std::shared_ptr<DispatchQueue>& queue);

  const std::shared_ptr<DispatchQueue> queue_;
  const Report report_;
  mutable Mutex mutex_;
  std::map<Key, Entry> entries_ HARKWELL_GUARDED_BY(mutex_);
};

}  // namespace harkwell
