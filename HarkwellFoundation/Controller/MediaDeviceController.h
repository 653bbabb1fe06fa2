// MediaDeviceController: the object a client creates. While `observeDevices` is true it owns one
// audio and one video observer on its event-handler queue, hands their events and updating
// brackets to the client's two callbacks, sends the initial discovery of the devices already
// present, starts a device's property observation before the client hears of it and stops it
// before the client hears it is gone. It also answers three list queries from the observers'
// caches, and, for a client that asks, who uses each device (see Model/MediaDeviceConsumer.h).
//
// Threads: every client callback runs on deviceEventHandlerQueue(), never overlapping when the
// queue is serial (the default queue is). Configure the controller from one thread; the list
// queries may be called from any thread. Switching observation off from a thread other than the
// main thread may wait for the main thread (it can invalidate the polling timer there), and so
// may the queue when a Bluetooth device goes away: the main thread must keep serving the main run
// loop and must never block on the event-handler queue (no queue->sync() there; wait with
// MainRunLoop::runUntil() or from the program's own loop instead).
//
// Lifetime: an observing controller keeps itself alive through its observers (their updating
// forwarder owns it), so it goes on observing and calling its callbacks after the client drops
// its last reference. Writing false to observeDevices breaks that cycle. The event forwarder does
// not own the controller; the stop sequence clears it first, and calling it after the controller is
// gone stops the program.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "HarkwellFoundation/Audio/AudioDeviceObserver.h"
#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/Mutex.h"
#include "HarkwellFoundation/Video/VideoDeviceObserver.h"

namespace harkwell {

class DeviceConsumerWatch;

class HARKWELL_EXPORT MediaDeviceController
    : public std::enable_shared_from_this<MediaDeviceController> {
 public:
  using UpdatingDevicesHandler = std::function<void(bool finished)>;
  using DeviceEventHandler = std::function<void(MediaDeviceEvent, const MediaDevice&)>;
  using DeviceConsumersHandler =
      std::function<void(const MediaDevice&, const std::vector<MediaDeviceConsumer>&)>;

  // The process-wide serial queue used when a controller is made without one; its label ends in
  // ".HarkwellFoundation.DefaultDeviceEventHandlerQueue". Made once, on first use.
  static std::shared_ptr<DispatchQueue> defaultDeviceEventHandlerQueue();

  // A new, idle controller; it starts nothing. Without a queue it uses the default one.
  static std::shared_ptr<MediaDeviceController> create(
      std::shared_ptr<DispatchQueue> deviceEventHandlerQueue = nullptr);

  MediaDeviceController(const MediaDeviceController&) = delete;
  MediaDeviceController& operator=(const MediaDeviceController&) = delete;
  virtual ~MediaDeviceController();

  const std::shared_ptr<DispatchQueue>& deviceEventHandlerQueue() const {
    return deviceEventHandlerQueue_;
  }

  virtual bool observeDevices() const;
  // true starts observation (fresh observers, one initial discovery); false stops it. Writing the
  // stored value again does nothing.
  virtual void setObserveDevices(bool observeDevices);

  // Audio devices, then video devices; empty while not observing.
  virtual std::vector<MediaDevice> connectedDevices() const;
  virtual std::vector<MediaDevice> connectedInputDevices() const;
  virtual std::vector<MediaDevice> connectedSupportedDevices() const;

  virtual UpdatingDevicesHandler updatingDevicesHandler() const;
  virtual void setUpdatingDevicesHandler(UpdatingDevicesHandler handler);
  virtual DeviceEventHandler deviceEventHandler() const;
  virtual void setDeviceEventHandler(DeviceEventHandler handler);

  // Who uses a device. With a handler set, the controller follows the consumers of every connected
  // device and calls the handler on deviceEventHandlerQueue() each time a device's list changes:
  // first right after the device's InitialDiscovery or Connected event when it already has
  // consumers, never after its Disconnected event (which itself means nobody uses it any more).
  // The device record is the controller's current one. Without a handler nothing is read or
  // followed, so the device events are exactly those of a client that never heard of consumers.
  // The handler may be set or cleared while observing; the change takes effect on the queue.
  virtual DeviceConsumersHandler deviceConsumersHandler() const;
  virtual void setDeviceConsumersHandler(DeviceConsumersHandler handler);
  // The consumers of a device read from its service now (any thread); empty when the service
  // cannot tell.
  virtual std::optional<std::vector<MediaDeviceConsumer>> consumersOfDevice(
      const MediaDevice& device) const;

  // For tests only: the current observers (null while not observing).
  std::shared_ptr<AudioDeviceObserver> audioDeviceObserverForTesting() const;
  std::shared_ptr<VideoDeviceObserver> videoDeviceObserverForTesting() const;

 protected:
  explicit MediaDeviceController(std::shared_ptr<DispatchQueue> deviceEventHandlerQueue);

 private:
  void _startObservingDevices();
  void _stopObservingDevices();
  void _handleDeviceEvent(MediaDeviceObserver& observer, MediaDeviceEvent event,
                          const MediaDevice& device);
  template <class Observer>
  std::shared_ptr<Observer> _makeObserver();
  std::pair<std::shared_ptr<AudioDeviceObserver>, std::shared_ptr<VideoDeviceObserver>>
  _currentObservers() const;
  std::shared_ptr<DeviceConsumerWatch> _consumerWatch() const;
  void _followConsumersOfConnectedDevices();
  void _reportConsumers(MediaType mediaType, ObjectID deviceID,
                        const std::vector<MediaDeviceConsumer>& consumers);

  const std::shared_ptr<DispatchQueue> deviceEventHandlerQueue_;
  std::atomic<bool> observeDevices_{false};

  mutable Mutex handlersMutex_;
  UpdatingDevicesHandler updatingDevicesHandler_ HARKWELL_GUARDED_BY(handlersMutex_);
  DeviceEventHandler deviceEventHandler_ HARKWELL_GUARDED_BY(handlersMutex_);
  DeviceConsumersHandler deviceConsumersHandler_ HARKWELL_GUARDED_BY(handlersMutex_);

  // Made when a consumers handler is first set; it holds the controller weakly.
  std::shared_ptr<DeviceConsumerWatch> consumerWatch_ HARKWELL_GUARDED_BY(handlersMutex_);

  mutable Mutex observersMutex_;
  std::shared_ptr<AudioDeviceObserver> _audioDeviceObserver HARKWELL_GUARDED_BY(observersMutex_);
  std::shared_ptr<VideoDeviceObserver> _videoDeviceObserver HARKWELL_GUARDED_BY(observersMutex_);
};

}  // namespace harkwell
