#include "HarkwellFoundation/Platform/Apple/CoreAudioConsumers.h"

#include <Block.h>
#include <sys/types.h>

#include <algorithm>

#include "HarkwellFoundation/Platform/Apple/AppleDispatchQueue.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/PlatformString.h"

namespace harkwell {
namespace {

// Process objects came with macOS 14; every function that names their properties is marked so
// that the compiler checks each call is guarded by a runtime check.
#define HARKWELL_PROCESS_OBJECTS __attribute__((availability(macos, introduced = 14.0)))

constexpr AudioObjectPropertyAddress Address(AudioObjectPropertySelector selector,
                                             AudioObjectPropertyScope scope) {
  return {selector, scope, kAudioObjectPropertyElementMain};
}

std::optional<std::vector<AudioObjectID>> ReadObjectList(
    AudioObjectID object, const AudioObjectPropertyAddress& address) {
  UInt32 size = 0;
  if (AudioObjectGetPropertyDataSize(object, &address, 0, nullptr, &size) != 0) return std::nullopt;
  std::vector<AudioObjectID> ids(size / sizeof(AudioObjectID));
  if (ids.empty()) return ids;
  size = static_cast<UInt32>(ids.size() * sizeof(AudioObjectID));
  if (AudioObjectGetPropertyData(object, &address, 0, nullptr, &size, ids.data()) != 0) {
    return std::nullopt;
  }
  ids.resize(size / sizeof(AudioObjectID));
  return ids;
}

template <class Value>
std::optional<Value> ReadValue(AudioObjectID object, const AudioObjectPropertyAddress& address) {
  Value value{};
  UInt32 size = sizeof value;
  if (AudioObjectGetPropertyData(object, &address, 0, nullptr, &size, &value) != 0 ||
      size != sizeof value) {
    return std::nullopt;
  }
  return value;
}

std::optional<std::string> ReadString(AudioObjectID object,
                                      const AudioObjectPropertyAddress& address) {
  CFStringRef text = nullptr;
  UInt32 size = sizeof text;
  if (AudioObjectGetPropertyData(object, &address, 0, nullptr, &size, &text) != 0 || !text) {
    return std::nullopt;
  }
  OwnedPlatformString owned(text);
  std::string value = PlatformStringText(owned.get());
  if (value.empty()) return std::nullopt;
  return value;
}

HARKWELL_PROCESS_OBJECTS std::optional<std::vector<AudioObjectID>> ReadProcessObjects() {
  return ReadObjectList(kAudioObjectSystemObject, Address(kAudioHardwarePropertyProcessObjectList,
                                                          kAudioObjectPropertyScopeGlobal));
}

// Whether `process` runs `device` in the direction of `scope`: it runs that direction, and the
// device is among its devices of that scope (or of any, where the system does not tell them
// apart).
HARKWELL_PROCESS_OBJECTS bool RunsDevice(AudioObjectID process, AudioObjectID device,
                                         AudioObjectPropertyScope scope,
                                         AudioObjectPropertySelector running) {
  const auto isRunning =
      ReadValue<UInt32>(process, Address(running, kAudioObjectPropertyScopeGlobal));
  if (!isRunning || *isRunning == 0) return false;
  auto devices = ReadObjectList(process, Address(kAudioProcessPropertyDevices, scope));
  if (!devices) {
    devices = ReadObjectList(
        process, Address(kAudioProcessPropertyDevices, kAudioObjectPropertyScopeGlobal));
  }
  return devices && std::find(devices->begin(), devices->end(), device) != devices->end();
}

HARKWELL_PROCESS_OBJECTS std::optional<std::vector<MediaDeviceConsumer>> ReadConsumers(
    AudioObjectID device) {
  const auto processes = ReadProcessObjects();
  if (!processes) return std::nullopt;
  std::vector<MediaDeviceConsumer> consumers;
  for (const AudioObjectID process : *processes) {
    const bool input = RunsDevice(process, device, kAudioObjectPropertyScopeInput,
                                  kAudioProcessPropertyIsRunningInput);
    const bool output = !input && RunsDevice(process, device, kAudioObjectPropertyScopeOutput,
                                             kAudioProcessPropertyIsRunningOutput);
    if (!input && !output) continue;
    const auto pid = ReadValue<pid_t>(
        process, Address(kAudioProcessPropertyPID, kAudioObjectPropertyScopeGlobal));
    MediaDeviceConsumer consumer;
    if (pid && *pid > 0) {
      consumer.processID = static_cast<std::int32_t>(*pid);
      consumer.isProcessIDVerified = true;
    }
    consumer.applicationID = ReadString(
        process, Address(kAudioProcessPropertyBundleID, kAudioObjectPropertyScopeGlobal));
    consumers.push_back(std::move(consumer));
  }
  std::stable_sort(consumers.begin(), consumers.end(),
                   [](const auto& a, const auto& b) { return a.processID < b.processID; });
  return consumers;
}

}  // namespace

std::optional<std::vector<MediaDeviceConsumer>> ReadCoreAudioDeviceConsumers(AudioObjectID device) {
  if (__builtin_available(macOS 14.0, *)) return ReadConsumers(device);
  return std::nullopt;
}

CoreAudioConsumerWatch::CoreAudioConsumerWatch(AudioObjectID device,
                                               std::shared_ptr<DispatchQueue> queue,
                                               SharedPropertyListener closure)
    : device_(device),
      queue_(std::move(queue)),
      closure_(std::move(closure)),
      nativeQueue_(queue_ ? NativeDispatchQueue(*queue_) : nullptr) {}

CoreAudioConsumerWatch::~CoreAudioConsumerWatch() {
  stop();
}

std::shared_ptr<CoreAudioConsumerWatch> CoreAudioConsumerWatch::start(
    AudioObjectID device, std::shared_ptr<DispatchQueue> queue, SharedPropertyListener closure,
    OSStatus* status) {
  *status = kAudioHardwareUnknownPropertyError;
  if (__builtin_available(macOS 14.0, *)) {
    std::shared_ptr<CoreAudioConsumerWatch> watch(
        new CoreAudioConsumerWatch(device, std::move(queue), std::move(closure)));
    if (!watch->nativeQueue_ || !watch->closure_) {
      *status = harkwell::kAudioHardwareIllegalOperationError;
      return nullptr;
    }
    std::vector<Registration> gone;
    {
      MutexLock lock(watch->mutex_);
      *status = watch->listen(
          kAudioObjectSystemObject,
          Address(kAudioHardwarePropertyProcessObjectList, kAudioObjectPropertyScopeGlobal));
      if (*status != 0) return nullptr;
      gone = watch->followProcesses();
      watch->seen_ = ReadConsumers(device);
    }
    watch->unregisterAll(gone);
    return watch;
  }
  return nullptr;
}

void CoreAudioConsumerWatch::stop() {
  std::vector<Registration> registrations;
  {
    MutexLock lock(mutex_);
    live_ = false;
    registrations.swap(registrations_);
    processes_.clear();
  }
  unregisterAll(registrations);
}

bool CoreAudioConsumerWatch::serves(AudioObjectID device, const SharedPropertyListener& closure,
                                    const DispatchQueue* queue) const {
  return device == device_ && closure == closure_ && queue == queue_.get();
}

OSStatus CoreAudioConsumerWatch::listen(AudioObjectID object,
                                        const AudioObjectPropertyAddress& address) {
  std::weak_ptr<CoreAudioConsumerWatch> weak = weak_from_this();
  AudioObjectPropertyListenerBlock block = ^(UInt32, const AudioObjectPropertyAddress*) {
    if (auto watch = weak.lock()) watch->refresh();
  };
  Registration registration{object, address, Block_copy(block)};
  const OSStatus status = AudioObjectAddPropertyListenerBlock(object, &registration.address,
                                                              nativeQueue_, registration.block);
  if (status != 0) {
    Block_release(registration.block);
    return status;
  }
  registrations_.push_back(registration);
  return status;
}

void CoreAudioConsumerWatch::unregister(const Registration& registration, dispatch_queue_t queue) {
  // A process object that has gone takes its listeners with it; the removal's status says nothing.
  AudioObjectRemovePropertyListenerBlock(registration.object, &registration.address, queue,
                                         registration.block);
  Block_release(registration.block);
}

std::vector<CoreAudioConsumerWatch::Registration> CoreAudioConsumerWatch::followProcesses() {
  std::vector<Registration> gone;
  if (__builtin_available(macOS 14.0, *)) {
    const auto processes = ReadProcessObjects();
    if (!processes) return gone;
    const std::set<AudioObjectID> present(processes->begin(), processes->end());
    std::erase_if(registrations_, [&](const Registration& registration) {
      if (registration.object == kAudioObjectSystemObject || present.count(registration.object)) {
        return false;
      }
      gone.push_back(registration);
      return true;
    });
    std::erase_if(processes_, [&](AudioObjectID process) { return present.count(process) == 0; });
    for (const AudioObjectID process : present) {
      if (!processes_.insert(process).second) continue;
      // Which devices it uses (in any scope), and whether it runs each direction.
      listen(process, Address(kAudioProcessPropertyDevices, kAudioObjectPropertyScopeWildcard));
      listen(process,
             Address(kAudioProcessPropertyIsRunningInput, kAudioObjectPropertyScopeGlobal));
      listen(process,
             Address(kAudioProcessPropertyIsRunningOutput, kAudioObjectPropertyScopeGlobal));
    }
  }
  return gone;
}

void CoreAudioConsumerWatch::unregisterAll(const std::vector<Registration>& registrations) const {
  for (const Registration& registration : registrations) unregister(registration, nativeQueue_);
}

void CoreAudioConsumerWatch::refresh() {
  if (__builtin_available(macOS 14.0, *)) {
    std::vector<Registration> gone;
    bool changed = false;
    {
      MutexLock lock(mutex_);
      if (!live_) return;
      gone = followProcesses();
      auto consumers = ReadConsumers(device_);
      changed = consumers != seen_;
      seen_ = std::move(consumers);
    }
    // Outside the lock: CoreAudio may wait for a listener block to finish before it removes it.
    unregisterAll(gone);
    if (!changed) return;
    // Outside the lock too: the closure may remove its own listener, which stops this watch.
    const PropertyAddress address{kAudioDevicePropertyConsumers, kAudioObjectPropertyScopeGlobal,
                                  kAudioObjectPropertyElementMaster};
    AppleDispatchQueue::WorkScope scope(queue_.get());
    {
      MutexLock lock(mutex_);
      if (!live_) return;
    }
    (*closure_)(1, &address);
  }
}

}  // namespace harkwell
