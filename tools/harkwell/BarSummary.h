// What a status-bar indicator shows: which kinds of device are in use (a microphone, a camera, a
// speaker), on which devices and by whom. BarTracker keeps the devices' running state and
// consumers as the controller reports them, and holds a kind on the bar for a while after it
// stops, so an indicator never blinks off for a moment between two uses and a use that lasted one
// frame is still seen.
//
// A BarTracker is a plain value with no clock of its own: every call says what time it is, so
// tests drive time by passing it. Not thread-safe; `harkwell watch` uses one on the controller's
// queue only.
#pragma once

#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Platform/PropertyAddress.h"

namespace harkwell::cli {

// The kinds in the order a bar shows them. An audio device with input channels is a microphone
// (a headset in use counts as its microphone, the part people worry about); one with output
// channels only is a speaker; every camera is a camera.
enum class BarKind { Microphone, Camera, Speaker };
constexpr std::array<BarKind, 3> kBarKinds{BarKind::Microphone, BarKind::Camera, BarKind::Speaker};

// "microphone", "camera", "speaker"
std::string_view BarKindWord(BarKind kind);
BarKind BarKindOfDevice(const MediaDevice& device);

// One kind on the bar.
struct BarKindInUse {
  BarKind kind = BarKind::Microphone;
  std::vector<std::string> devices;  // names of the devices of this kind in use, by ID
  // Names of the programs using them (applications, and the applications behind a filter or a
  // media server), each once, in the order first seen; empty when the service cannot tell.
  std::vector<std::string> users;
  // Not in use any more, shown until its hold ends (devices and users are the last ones seen).
  bool held = false;

  friend bool operator==(const BarKindInUse&, const BarKindInUse&) = default;
};

struct BarSummary {
  std::vector<BarKindInUse> kinds;  // in kBarKinds order; empty when nothing is in use

  bool isEmpty() const { return kinds.empty(); }
  friend bool operator==(const BarSummary&, const BarSummary&) = default;
};

// The name a bar gives a consumer: the application's own name, else the process name, else the
// sandbox's application ID, else the executable's file name, else "process <pid>". Unescaped:
// the bar formats are JSON, which escapes what must be.
std::string BarUserName(const MediaDeviceConsumer& consumer);

class BarTracker {
 public:
  using Clock = std::chrono::steady_clock;

  explicit BarTracker(Clock::duration minVisible) : minVisible_(minVisible) {}

  // A device event: the record as it is now (Disconnected: the device has gone).
  void noteEvent(MediaDeviceEvent event, const MediaDevice& device, Clock::time_point now);
  // The device's consumers as they are now.
  void noteConsumers(const MediaDevice& device, std::vector<MediaDeviceConsumer> consumers,
                     Clock::time_point now);
  // Ends the holds that are over by `now`.
  void expireHolds(Clock::time_point now);

  // What the bar shows now.
  BarSummary summary() const;
  // When the earliest hold ends; empty while nothing is held.
  std::optional<Clock::time_point> nextHoldEnd() const;

 private:
  struct Device {
    MediaDevice record;
    std::vector<MediaDeviceConsumer> consumers;
  };
  struct Hold {
    Clock::time_point until;
    BarKindInUse shown;
  };

  // What is in use right now, without holds.
  std::map<BarKind, BarKindInUse> inUse() const;
  // Starts a hold for every kind that was in use before a change and is not after it.
  void holdWhatStopped(const std::map<BarKind, BarKindInUse>& before, Clock::time_point now);

  const Clock::duration minVisible_;
  std::map<ObjectID, Device> devices_;
  std::map<BarKind, Hold> holds_;
};

}  // namespace harkwell::cli
