// MediaDeviceObserver: the media-type-independent half of a device observer. It keeps a cache of
// MediaDevice records for one media type, works out which devices appeared and vanished when its
// subclass says the platform's device list changed, patches cached records when a device's running
// state or input source changes, and reports all of it to two callbacks. It also runs per-device
// polling handlers on one shared repeating timer on the main run loop.
//
// Subclasses (AudioDeviceObserver, VideoDeviceObserver) answer the nine device-source queries and
// implement the five observation hooks; every other member is the base's. An observer is made with
// its subclass's create(), which queues a silent fill of the cache on the event-handler queue.
//
// Threads: the notes, the cache changes and both callbacks run on `deviceEventHandlerQueue()`;
// the callbacks are called synchronously inside the note that produced them and must not wait for
// work they submit to that queue. `connectedDevices()` and `cachedDeviceForDeviceID()` may be read
// from any thread. The callbacks may be set from any thread; a new value applies from the next
// call. No lock is held while a callback, a device-source query or a hook runs. Removing the last
// polling handler off the main thread waits for the main thread to invalidate the timer, so the
// main thread must keep serving the main run loop and must never block on the event-handler queue.
//
// Lifetime: when the last reference goes, the observer first runs the subclass's
// stopObservingConnectedDevices() and stopObservingPropertiesForAllDevices(), then is destroyed.
// A scheduled polling timer holds its observer, so an observer with polling handlers stays alive
// until the last handler is removed.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "HarkwellFoundation/Platform/Mutex.h"

namespace harkwell {

// A device's input and output counts (streams, not channels).
struct HARKWELL_EXPORT MediaDeviceChannelCounts {
  std::uint64_t inputCount = 0;
  std::uint64_t outputCount = 0;
  friend bool operator==(const MediaDeviceChannelCounts&,
                         const MediaDeviceChannelCounts&) = default;
};

class HARKWELL_EXPORT MediaDeviceObserver
    : public std::enable_shared_from_this<MediaDeviceObserver> {
 public:
  // Told with `finished` false before each re-read of the device list and true after it.
  using UpdatingDevicesHandler = std::function<void(MediaDeviceObserver& observer, bool finished)>;
  // Receives every event with a copy of the device record.
  using DeviceEventHandler =
      std::function<void(MediaDeviceObserver& observer, MediaDeviceEvent, const MediaDevice&)>;
  using PollingHandler = std::function<void()>;

  // The polling timer's period, seconds; fixed.
  static constexpr double kDevicePropertiesPollingInterval = 5.0;
  static constexpr double kDevicePropertiesPollingTolerance = 1.0;

  MediaDeviceObserver(const MediaDeviceObserver&) = delete;
  MediaDeviceObserver& operator=(const MediaDeviceObserver&) = delete;
  virtual ~MediaDeviceObserver();

  double devicePropertiesPollingInterval() const { return devicePropertiesPollingInterval_; }
  const std::shared_ptr<DispatchQueue>& deviceEventHandlerQueue() const {
    return deviceEventHandlerQueue_;
  }

  virtual UpdatingDevicesHandler updatingDevicesHandler() const;
  virtual void setUpdatingDevicesHandler(UpdatingDevicesHandler handler);
  virtual DeviceEventHandler deviceEventHandler() const;
  virtual void setDeviceEventHandler(DeviceEventHandler handler);

  // The cached records, in no particular order. Reads the cache only.
  virtual std::vector<MediaDevice> connectedDevices() const;
  virtual std::optional<MediaDevice> cachedDeviceForDeviceID(std::uint32_t deviceID) const;

  // Called by the subclass (on the event-handler queue) when the platform reports a change.
  virtual void noteConnectedDevicesDidChange();
  virtual void noteIsRunningChangedForDeviceID(std::uint32_t deviceID);
  virtual void noteSelectedInputSourceChangedForDeviceID(std::uint32_t deviceID);

  // Registers (or replaces) the polling handler of a device; the first one schedules the shared
  // timer on the main run loop.
  virtual void addPollingHandlerForDeviceID(std::uint32_t deviceID, PollingHandler pollingHandler);
  // Unregisters it; removing the last one invalidates the timer on the main thread, waiting for
  // the main thread when called elsewhere (so never call it from work the main thread waits for).
  virtual void removePollingHandlerForDeviceID(std::uint32_t deviceID);

  // Device-source queries. They use no instance state; the base versions stop the program.
  virtual MediaType mediaType() const;
  virtual std::vector<std::uint32_t> connectedDeviceIDs() const;
  virtual std::optional<std::string> deviceNameForDeviceID(std::uint32_t deviceID) const;
  virtual std::optional<std::string> deviceInputSourceNameForDeviceID(std::uint32_t deviceID) const;
  virtual std::optional<std::string> deviceUIDForDeviceID(std::uint32_t deviceID) const;
  virtual std::optional<MediaDeviceChannelCounts> deviceChannelCountsForDeviceID(
      std::uint32_t deviceID) const;
  virtual std::optional<bool> deviceIsRunningForDeviceID(std::uint32_t deviceID) const;
  virtual std::optional<std::string> deviceModelUIDForDeviceID(std::uint32_t deviceID) const;
  virtual MediaDeviceTransportType deviceTransportTypeForDeviceID(std::uint32_t deviceID) const;

  // Observation hooks, implemented by the subclass; the base versions stop the program.
  virtual void startObservingConnectedDevices();
  virtual void stopObservingConnectedDevices();
  virtual void startObservingPropertiesForDeviceID(std::uint32_t deviceID);
  virtual void stopObservingPropertiesForDeviceID(std::uint32_t deviceID);
  virtual void stopObservingPropertiesForAllDevices();

  // For tests only: the scheduled polling timer (null when no handler is registered) and how many
  // polling handlers are registered.
  std::shared_ptr<RunLoopTimer> devicePropertiesPollingTimerForTesting() const;
  std::size_t pollingHandlerCountForTesting() const;

 protected:
  explicit MediaDeviceObserver(std::shared_ptr<DispatchQueue> deviceEventHandlerQueue);

  // Subclasses' create() hands their newly made object here. The returned pointer runs the
  // subclass's stop hooks before deleting the object, and the initial cache fill is queued.
  template <class Observer>
  static std::shared_ptr<Observer> adopt(Observer* observer) {
    std::shared_ptr<Observer> owned(observer, [](Observer* dying) {
      dying->_tearDown();
      delete dying;
    });
    owned->_queueInitialCacheFill();
    return owned;
  }

 private:
  struct UpdateResult {
    std::vector<MediaDevice> newlyConnectedDevices;
    std::vector<MediaDevice> disconnectedDevices;
  };

  void _queueInitialCacheFill();
  void _tearDown();
  UpdateResult _updateCachedDevices();
  std::vector<MediaDevice> _removeCachedDevicesWithRemainingConnectedDeviceIDs(
      const std::vector<std::uint32_t>& connectedDeviceIDs);
  std::vector<std::uint32_t> _newDeviceIDsForConnectedDeviceIDs(
      const std::vector<std::uint32_t>& connectedDeviceIDs) const;
  bool _isCached(std::uint32_t deviceID) const;
  std::optional<MediaDevice> _buildDeviceForDeviceID(std::uint32_t deviceID) const;
  void _cacheDevice(const MediaDevice& device);
  void _pollDeviceProperties();
  void _runPollingHandlers();

  const double devicePropertiesPollingInterval_ = kDevicePropertiesPollingInterval;
  const std::shared_ptr<DispatchQueue> deviceEventHandlerQueue_;

  // Short critical sections only: copy in or out, never call out while holding one. The one
  // exception: the polling timer is scheduled under pollingMutex_, so that two first adds racing
  // each other cannot both create one; the run loop never calls back under its own lock.
  mutable Mutex handlersMutex_;
  UpdatingDevicesHandler updatingDevicesHandler_ HARKWELL_GUARDED_BY(handlersMutex_);
  DeviceEventHandler deviceEventHandler_ HARKWELL_GUARDED_BY(handlersMutex_);

  mutable Mutex cacheMutex_;
  std::unordered_map<std::uint32_t, MediaDevice> _cachedDevices HARKWELL_GUARDED_BY(cacheMutex_);

  mutable Mutex pollingMutex_;
  std::unordered_map<std::uint32_t, std::shared_ptr<const PollingHandler>>
      _devicePropertiesPollingHandlers HARKWELL_GUARDED_BY(pollingMutex_);
  std::shared_ptr<RunLoopTimer> _devicePropertiesPollingTimer HARKWELL_GUARDED_BY(pollingMutex_);
};

}  // namespace harkwell
