#include "HarkwellFoundation/Controller/MediaDeviceController.h"

#include "HarkwellFoundation/Consumers/MediaDeviceConsumers.h"
#include "HarkwellFoundation/Consumers/internal/DeviceConsumerWatch.h"

namespace harkwell {

std::shared_ptr<DispatchQueue> MediaDeviceController::defaultDeviceEventHandlerQueue() {
  static const std::shared_ptr<DispatchQueue> queue =
      DispatchQueue::createSerial("com.harkwell.HarkwellFoundation.DefaultDeviceEventHandlerQueue");
  return queue;
}

std::shared_ptr<MediaDeviceController> MediaDeviceController::create(
    std::shared_ptr<DispatchQueue> deviceEventHandlerQueue) {
  if (!deviceEventHandlerQueue) deviceEventHandlerQueue = defaultDeviceEventHandlerQueue();
  // Without a queue there is nowhere to deliver anything.
  if (!deviceEventHandlerQueue) __builtin_trap();
  return std::shared_ptr<MediaDeviceController>(
      new MediaDeviceController(std::move(deviceEventHandlerQueue)));
}

MediaDeviceController::MediaDeviceController(std::shared_ptr<DispatchQueue> deviceEventHandlerQueue)
    : deviceEventHandlerQueue_(std::move(deviceEventHandlerQueue)) {}

MediaDeviceController::~MediaDeviceController() {
  _stopObservingDevices();
}

// --- The switch ----------------------------------------------------------------------------------

bool MediaDeviceController::observeDevices() const {
  return observeDevices_.load();
}

void MediaDeviceController::setObserveDevices(bool observeDevices) {
  // Stopping may release the observers, whose forwarders own this controller.
  const auto keepAlive = shared_from_this();
  const bool wasObserving = observeDevices_.load();
  if (wasObserving && !observeDevices) _stopObservingDevices();
  observeDevices_.store(observeDevices);
  if (!wasObserving && observeDevices) _startObservingDevices();
}

// --- Callbacks -----------------------------------------------------------------------------------

MediaDeviceController::UpdatingDevicesHandler MediaDeviceController::updatingDevicesHandler()
    const {
  MutexLock lock(handlersMutex_);
  return updatingDevicesHandler_;
}

void MediaDeviceController::setUpdatingDevicesHandler(UpdatingDevicesHandler handler) {
  MutexLock lock(handlersMutex_);
  std::swap(updatingDevicesHandler_, handler);
}

MediaDeviceController::DeviceEventHandler MediaDeviceController::deviceEventHandler() const {
  MutexLock lock(handlersMutex_);
  return deviceEventHandler_;
}

void MediaDeviceController::setDeviceEventHandler(DeviceEventHandler handler) {
  MutexLock lock(handlersMutex_);
  std::swap(deviceEventHandler_, handler);
}

// --- Consumers -----------------------------------------------------------------------------------

MediaDeviceController::DeviceConsumersHandler MediaDeviceController::deviceConsumersHandler()
    const {
  MutexLock lock(handlersMutex_);
  return deviceConsumersHandler_;
}

void MediaDeviceController::setDeviceConsumersHandler(DeviceConsumersHandler handler) {
  const bool following = static_cast<bool>(handler);
  {
    MutexLock lock(handlersMutex_);
    std::swap(deviceConsumersHandler_, handler);
    if (following && !consumerWatch_) {
      consumerWatch_ = DeviceConsumerWatch::create(
          deviceEventHandlerQueue_,
          [weakSelf = weak_from_this()](MediaType mediaType, ObjectID deviceID,
                                        const std::vector<MediaDeviceConsumer>& consumers) {
            if (const auto self = weakSelf.lock()) {
              self->_reportConsumers(mediaType, deviceID, consumers);
            }
          });
    }
  }
  if (!observeDevices()) return;
  // Devices already announced start (or stop) being followed on the queue, after the events
  // already queued for them.
  deviceEventHandlerQueue_->async(
      [self = shared_from_this()] { self->_followConsumersOfConnectedDevices(); });
}

std::shared_ptr<DeviceConsumerWatch> MediaDeviceController::_consumerWatch() const {
  MutexLock lock(handlersMutex_);
  return consumerWatch_;
}

void MediaDeviceController::_followConsumersOfConnectedDevices() {
  const auto watch = _consumerWatch();
  if (!watch) return;
  if (!deviceConsumersHandler() || !observeDevices()) {
    watch->unwatchAll();
    return;
  }
  for (const MediaDevice& device : connectedDevices()) {
    watch->watch(device.mediaType, device.deviceID);
  }
}

void MediaDeviceController::_reportConsumers(MediaType mediaType, ObjectID deviceID,
                                             const std::vector<MediaDeviceConsumer>& consumers) {
  const auto handler = deviceConsumersHandler();
  if (!handler) return;
  for (const MediaDevice& device : connectedDevices()) {
    if (device.mediaType == mediaType && device.deviceID == deviceID) {
      handler(device, consumers);
      return;
    }
  }
}

std::optional<std::vector<MediaDeviceConsumer>> MediaDeviceController::consumersOfDevice(
    const MediaDevice& device) const {
  return MediaDeviceConsumersForDevice(device);
}

// --- Starting and stopping ----------------------------------------------------------------------

template <class Observer>
std::shared_ptr<Observer> MediaDeviceController::_makeObserver() {
  auto observer = Observer::create(deviceEventHandlerQueue_);
  // The updating forwarder owns the controller: an observing controller keeps itself alive.
  observer->setUpdatingDevicesHandler(
      [self = shared_from_this()](MediaDeviceObserver&, bool finished) {
        if (auto handler = self->updatingDevicesHandler()) handler(finished);
      });
  // The event forwarder does not. The stop sequence clears it before the observers are released,
  // so reaching it after the controller is gone is a broken invariant, not a late event.
  observer->setDeviceEventHandler([weakSelf = weak_from_this()](MediaDeviceObserver& source,
                                                                MediaDeviceEvent event,
                                                                const MediaDevice& device) {
    const auto self = weakSelf.lock();
    if (!self) __builtin_trap();
    self->_handleDeviceEvent(source, event, device);
  });
  observer->startObservingConnectedDevices();
  return observer;
}

void MediaDeviceController::_startObservingDevices() {
  auto audio = _makeObserver<AudioDeviceObserver>();
  {
    MutexLock lock(observersMutex_);
    _audioDeviceObserver = audio;
  }
  auto video = _makeObserver<VideoDeviceObserver>();
  {
    MutexLock lock(observersMutex_);
    _videoDeviceObserver = video;
  }
  // Both observers queued their cache fill first, so on a serial queue this runs after both.
  deviceEventHandlerQueue_->async([self = shared_from_this(), audio, video] {
    if (auto handler = self->updatingDevicesHandler()) handler(false);
    for (const auto& device : audio->connectedDevices()) {
      self->_handleDeviceEvent(*audio, MediaDeviceEvent::InitialDiscovery, device);
    }
    for (const auto& device : video->connectedDevices()) {
      self->_handleDeviceEvent(*video, MediaDeviceEvent::InitialDiscovery, device);
    }
    if (auto handler = self->updatingDevicesHandler()) handler(true);
  });
}

void MediaDeviceController::_stopObservingDevices() {
  auto stop = [](MediaDeviceObserver& observer) {
    // Only the event callback is cleared; the updating forwarder stays installed.
    observer.setDeviceEventHandler(nullptr);
    observer.stopObservingConnectedDevices();
    observer.stopObservingPropertiesForAllDevices();
  };
  if (const auto watch = _consumerWatch()) watch->unwatchAll();
  // Each local keeps its observer until the end, so a last reference goes here, unlocked.
  if (const auto audio = _currentObservers().first) {
    stop(*audio);
    MutexLock lock(observersMutex_);
    _audioDeviceObserver = nullptr;
  }
  if (const auto video = _currentObservers().second) {
    stop(*video);
    MutexLock lock(observersMutex_);
    _videoDeviceObserver = nullptr;
  }
}

void MediaDeviceController::_handleDeviceEvent(MediaDeviceObserver& observer,
                                               MediaDeviceEvent event, const MediaDevice& device) {
  const auto watch = deviceConsumersHandler() ? _consumerWatch() : nullptr;
  switch (event) {
    case MediaDeviceEvent::InitialDiscovery:
    case MediaDeviceEvent::Connected:
      observer.startObservingPropertiesForDeviceID(device.deviceID);
      break;
    case MediaDeviceEvent::Disconnected:
      observer.stopObservingPropertiesForDeviceID(device.deviceID);
      if (const auto anyWatch = _consumerWatch()) {
        anyWatch->unwatch(device.mediaType, device.deviceID);
      }
      break;
    case MediaDeviceEvent::ChangedRunning:
    case MediaDeviceEvent::ChangedInputSource:
      break;
  }
  if (auto handler = deviceEventHandler()) handler(event, device);
  // Consumers are followed only after the client has heard of the device.
  if (watch &&
      (event == MediaDeviceEvent::InitialDiscovery || event == MediaDeviceEvent::Connected)) {
    watch->watch(device.mediaType, device.deviceID);
  }
}

// --- Lists ---------------------------------------------------------------------------------------

std::pair<std::shared_ptr<AudioDeviceObserver>, std::shared_ptr<VideoDeviceObserver>>
MediaDeviceController::_currentObservers() const {
  MutexLock lock(observersMutex_);
  return {_audioDeviceObserver, _videoDeviceObserver};
}

std::shared_ptr<AudioDeviceObserver> MediaDeviceController::audioDeviceObserverForTesting() const {
  return _currentObservers().first;
}

std::shared_ptr<VideoDeviceObserver> MediaDeviceController::videoDeviceObserverForTesting() const {
  return _currentObservers().second;
}

std::vector<MediaDevice> MediaDeviceController::connectedDevices() const {
  std::vector<MediaDevice> devices;
  const auto [audio, video] = _currentObservers();
  if (audio) devices = audio->connectedDevices();
  if (video) {
    auto videoDevices = video->connectedDevices();
    devices.insert(devices.end(), videoDevices.begin(), videoDevices.end());
  }
  return devices;
}

std::vector<MediaDevice> MediaDeviceController::connectedInputDevices() const {
  auto devices = connectedDevices();
  std::erase_if(devices, [](const MediaDevice& device) { return !device.hasInputChannels(); });
  return devices;
}

std::vector<MediaDevice> MediaDeviceController::connectedSupportedDevices() const {
  auto devices = connectedDevices();
  std::erase_if(devices, [](const MediaDevice& device) { return !device.isSupported(); });
  return devices;
}

}  // namespace harkwell
