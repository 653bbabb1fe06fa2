// The events of one `controller.events()` iteration, waiting to be taken. The controller's queue
// pushes C++ values (no GIL needed); the iterating thread takes them and makes the Python records.
// An eventfd becomes readable whenever something arrives or the stream closes, so the iterating
// thread can wait for it together with the main run loop's descriptor.
#pragma once

#include <deque>
#include <optional>
#include <vector>

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Platform/Mutex.h"

namespace harkwell::python {

struct StreamItem {
  enum class Kind { DeviceEvent, ConsumersChanged };
  Kind kind = Kind::DeviceEvent;
  MediaDeviceEvent event = MediaDeviceEvent::InitialDiscovery;  // DeviceEvent only
  MediaDevice device;
  std::vector<MediaDeviceConsumer> consumers;  // ConsumersChanged only
};

class EventStream {
 public:
  explicit EventStream(bool wantsConsumers);
  ~EventStream();
  EventStream(const EventStream&) = delete;
  EventStream& operator=(const EventStream&) = delete;

  bool wantsConsumers() const { return wantsConsumers_; }

  // Any thread. Items pushed after close() are dropped.
  void push(StreamItem item);
  void close();

  bool isClosed() const;
  bool hasItems() const;
  std::optional<StreamItem> take();
  // Readable while items wait or after close(); take() and close() keep it so.
  int wakeFileDescriptor() const { return wakeFd_; }

 private:
  void updateWake() const HARKWELL_REQUIRES(mutex_);

  const bool wantsConsumers_;
  const int wakeFd_;
  mutable Mutex mutex_;
  std::deque<StreamItem> items_ HARKWELL_GUARDED_BY(mutex_);
  bool closed_ HARKWELL_GUARDED_BY(mutex_) = false;
  mutable bool wakeArmed_ HARKWELL_GUARDED_BY(mutex_) = false;
};

}  // namespace harkwell::python
