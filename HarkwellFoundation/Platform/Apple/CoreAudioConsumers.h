// Who uses an audio device on macOS, from CoreAudio's process objects (macOS 14 and later): the
// system object lists one object per process connected to the audio system
// (kAudioHardwarePropertyProcessObjectList), and each tells its PID, its bundle ID, the devices it
// uses in each direction and whether it runs input or output now.
//
// A device's consumers are the processes that run input with the device among their input devices,
// or output with it among their output devices: one Application each, in PID order, with the PID
// (coreaudiod takes it from the client's connection, so it is verified) and the bundle ID as the
// application ID. CoreAudio tells nothing more: no executable, no process name, no sandbox, no
// meters, monitors or filters. Before macOS 14 there are no process objects and nothing is known.
//
// Apple only.
#pragma once

#include <CoreAudio/CoreAudio.h>

#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/ListenerBlock.h"
#include "HarkwellFoundation/Platform/Mutex.h"

namespace harkwell {

// The consumers of `device` now; absent when this system has no process objects or their list
// cannot be read. Any thread.
std::optional<std::vector<MediaDeviceConsumer>> ReadCoreAudioDeviceConsumers(AudioObjectID device);

// Follows the consumers of one device for one listener: CoreAudio calls back on the listener's
// queue when the process list changes or a process's devices or running state change; the watch
// then reads the device's consumers again and calls the listener's closure (on the same queue,
// with the consumers property's address) when they differ from what it last saw. It registers a
// listener with each process object as the object appears.
//
// start() and stop() may be called from any thread; the callbacks run on the listener's queue.
// After stop() returns the closure is never called again (a callback already running finishes).
// CoreAudio's blocks hold the watch weakly; whoever started it keeps it alive. The watch holds its
// queue until it is destroyed.
class CoreAudioConsumerWatch : public std::enable_shared_from_this<CoreAudioConsumerWatch> {
 public:
  // A running watch, or null with `*status` set when CoreAudio refused the system listener (or
  // the system has no process objects: "who?").
  static std::shared_ptr<CoreAudioConsumerWatch> start(AudioObjectID device,
                                                       std::shared_ptr<DispatchQueue> queue,
                                                       SharedPropertyListener closure,
                                                       OSStatus* status);
  ~CoreAudioConsumerWatch();
  CoreAudioConsumerWatch(const CoreAudioConsumerWatch&) = delete;
  CoreAudioConsumerWatch& operator=(const CoreAudioConsumerWatch&) = delete;

  void stop();

  // Whether this watch serves the listener of `device` made from `closure` on `queue`.
  bool serves(AudioObjectID device, const SharedPropertyListener& closure,
              const DispatchQueue* queue) const;

 private:
  struct Registration {
    AudioObjectID object = 0;
    AudioObjectPropertyAddress address{};
    AudioObjectPropertyListenerBlock block = nullptr;  // our own copy, released on removal
  };

  CoreAudioConsumerWatch(AudioObjectID device, std::shared_ptr<DispatchQueue> queue,
                         SharedPropertyListener closure);
  // On the listener's queue: follows new process objects, reads the consumers, tells the closure
  // when they changed.
  void refresh();
  OSStatus listen(AudioObjectID object, const AudioObjectPropertyAddress& address)
      HARKWELL_REQUIRES(mutex_);
  // Listens to each process object that appeared since the last call; returns the registrations
  // of those that have gone, for the caller to remove once it has let go of the lock.
  std::vector<Registration> followProcesses() HARKWELL_REQUIRES(mutex_);
  void unregisterAll(const std::vector<Registration>& registrations) const;
  static void unregister(const Registration& registration, dispatch_queue_t queue);

  const AudioObjectID device_;
  // Held strongly: its libdispatch queue must stay valid until every block registered with it has
  // been removed. Nothing the queue holds refers back to the watch.
  const std::shared_ptr<DispatchQueue> queue_;
  const SharedPropertyListener closure_;
  dispatch_queue_t nativeQueue_ = nullptr;  // borrowed from queue_

  mutable Mutex mutex_;
  bool live_ HARKWELL_GUARDED_BY(mutex_) = true;
  std::optional<std::vector<MediaDeviceConsumer>> seen_ HARKWELL_GUARDED_BY(mutex_);
  std::set<AudioObjectID> processes_ HARKWELL_GUARDED_BY(mutex_);
  std::vector<Registration> registrations_ HARKWELL_GUARDED_BY(mutex_);
};

}  // namespace harkwell
