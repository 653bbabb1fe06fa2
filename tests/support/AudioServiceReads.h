// Reading an audio service through the seam, as the library does, for the suites that run a real
// service against a real server: the device list, one property, a device by UID, the log lines
// written meanwhile (with the thread that wrote each), and a listener that records what it reads
// each time it is called.
//
// Used from the test's thread; the probes' listeners run on the queue the test gives them.
#pragma once

#include <pthread.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/PlatformString.h"
#include "HarkwellFoundation/Platform/SystemLog.h"
#include "tests/support/Waiting.h"

namespace harkwell::testing {

inline PropertyAddress Global(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMaster};
}
inline PropertyAddress Input(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeInput, kAudioObjectPropertyElementMaster};
}
inline PropertyAddress Output(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeOutput, kAudioObjectPropertyElementMaster};
}

inline const PropertyAddress kDevices = Global(kAudioHardwarePropertyDevices);
inline const PropertyAddress kRunning = Global(kAudioDevicePropertyDeviceIsRunningSomewhere);

inline std::vector<ObjectID> DeviceIDs(AudioHardwareService& service) {
  std::uint32_t size = 0;
  if (service.getPropertyDataSize(kAudioObjectSystemObject, kDevices, 0, nullptr, &size) !=
      kNoErr) {
    return {};
  }
  std::vector<ObjectID> ids(size / 4);
  if (service.getPropertyData(kAudioObjectSystemObject, kDevices, 0, nullptr, &size, ids.data()) !=
      kNoErr) {
    return {};
  }
  ids.resize(size / 4);
  return ids;
}

inline std::optional<std::string> StringProperty(AudioHardwareService& service, ObjectID device,
                                                 std::uint32_t selector) {
  OwnedPlatformString string;
  std::uint32_t size = sizeof(PlatformStringRef);
  if (service.getPropertyData(device, Global(selector), 0, nullptr, &size, string.slot()) !=
          kNoErr ||
      !string.get()) {
    return std::nullopt;
  }
  return PlatformStringText(string.get());
}

inline std::optional<std::uint32_t> UInt32Property(AudioHardwareService& service, ObjectID device,
                                                   const PropertyAddress& address) {
  std::uint32_t value = 0;
  std::uint32_t size = sizeof value;
  if (service.getPropertyData(device, address, 0, nullptr, &size, &value) != kNoErr) {
    return std::nullopt;
  }
  return value;
}

inline std::optional<std::uint32_t> SizeOf(AudioHardwareService& service, ObjectID device,
                                           const PropertyAddress& address) {
  std::uint32_t size = 0;
  if (service.getPropertyDataSize(device, address, 0, nullptr, &size) != kNoErr) {
    return std::nullopt;
  }
  return size;
}

inline std::optional<ObjectID> DeviceWithUID(AudioHardwareService& service,
                                             const std::string& uid) {
  for (ObjectID id : DeviceIDs(service)) {
    if (StringProperty(service, id, kAudioDevicePropertyDeviceUID) == uid) return id;
  }
  return std::nullopt;
}

// Keeps every log line written while it exists, with the thread that wrote it. Lines about the
// server going and coming are written on the service's log queue, so a test waits for them with a
// deadline; lines about start-up are written before create() returns.
class LogLines {
 public:
  struct Line {
    std::string text;
    std::string threadName;
    std::thread::id thread;
  };

  LogLines() {
    previous_ = InstallLogSink([this](std::string_view text) {
      char name[16] = {};
      pthread_getname_np(pthread_self(), name, sizeof name);
      lines_.append({std::string(text), name, std::this_thread::get_id()});
    });
  }
  ~LogLines() { InstallLogSink(std::move(previous_)); }
  LogLines(const LogLines&) = delete;
  LogLines& operator=(const LogLines&) = delete;

  // The texts of the lines written so far.
  std::vector<std::string> texts() const {
    std::vector<std::string> texts;
    for (const Line& line : lines_.entries()) texts.push_back(line.text);
    return texts;
  }
  // The texts once at least `count` lines are written, or when the deadline passes.
  std::vector<std::string> waitForTexts(std::size_t count) const {
    lines_.waitForCount(count);
    return texts();
  }
  std::vector<Line> lines() const { return lines_.entries(); }

 private:
  Recorder<Line> lines_;
  LogSink previous_;
};

// A listener on one property of one object: each call records what `read` finds then, so a test
// sees both that it fired and what the service answered by then.
template <class Value>
class ReadingProbe {
 public:
  ReadingProbe(AudioHardwareService& service, ObjectID object, PropertyAddress address,
               std::shared_ptr<DispatchQueue> queue, std::function<Value()> read)
      : service_(service), object_(object), address_(address), queue_(std::move(queue)) {
    closure_ = std::make_shared<const PropertyListener>(
        [this, read = std::move(read)](std::uint32_t, const PropertyAddress*) {
          calls_.append(read());
        });
  }
  ~ReadingProbe() { remove(); }
  ReadingProbe(const ReadingProbe&) = delete;
  ReadingProbe& operator=(const ReadingProbe&) = delete;

  OSStatus add() {
    const OSStatus status = service_.addPropertyListenerBlock(
        object_, address_, queue_, PlatformListenerBlock::copy(closure_));
    added_ = status == kNoErr;
    return status;
  }
  OSStatus remove() {
    if (!added_) return kNoErr;
    added_ = false;
    const OSStatus status = service_.removePropertyListenerBlock(
        object_, address_, queue_, PlatformListenerBlock::copy(closure_));
    DrainQueue(queue_);
    return status;
  }
  // The values read in the calls so far.
  Recorder<Value>& calls() { return calls_; }

 private:
  AudioHardwareService& service_;
  ObjectID object_;
  PropertyAddress address_;
  std::shared_ptr<DispatchQueue> queue_;
  SharedPropertyListener closure_;
  Recorder<Value> calls_;
  bool added_ = false;
};

// A listener on a property whose value is 4-byte words: an ID list, or one running flag.
class PropertyProbe : public ReadingProbe<std::vector<std::uint32_t>> {
 public:
  PropertyProbe(AudioHardwareService& service, ObjectID object, PropertyAddress address,
                std::shared_ptr<DispatchQueue> queue)
      : ReadingProbe(service, object, address, std::move(queue),
                     [&service, object, address] { return Words(service, object, address); }) {}

  bool waitForValue(const std::vector<std::uint32_t>& value) {
    return calls().waitUntil(
        [&](const auto& values) { return !values.empty() && values.back() == value; });
  }

 private:
  static std::vector<std::uint32_t> Words(AudioHardwareService& service, ObjectID object,
                                          const PropertyAddress& address) {
    std::uint32_t size = 0;
    service.getPropertyDataSize(object, address, 0, nullptr, &size);
    std::vector<std::uint32_t> value(size / 4);
    if (service.getPropertyData(object, address, 0, nullptr, &size, value.data()) != kNoErr) {
      value.clear();
    }
    return value;
  }
};

}  // namespace harkwell::testing
