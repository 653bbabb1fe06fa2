// Exclusive access ("hog mode"): which process, if any, holds a device exclusively, and the free
// functions that read and toggle it for each media type. No state is kept here; every call goes to
// the installed hardware service, and any thread may call.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>

#include "HarkwellFoundation/HarkwellFoundationExport.h"

namespace harkwell {

class HARKWELL_EXPORT MediaDeviceHogMode {
 public:
  enum class Kind { NoProcess, CurrentProcess, OtherProcess };

  // The owner for a platform pid: -1 is NoProcess, getpid() is CurrentProcess, anything else
  // (0 included) is OtherProcess with that pid.
  explicit MediaDeviceHogMode(std::int32_t pid);

  static MediaDeviceHogMode NoProcess() { return MediaDeviceHogMode(Kind::NoProcess, 0); }
  static MediaDeviceHogMode CurrentProcess() { return MediaDeviceHogMode(Kind::CurrentProcess, 0); }
  static MediaDeviceHogMode OtherProcess(std::int32_t pid) {
    return MediaDeviceHogMode(Kind::OtherProcess, pid);
  }

  Kind kind() const { return kind_; }
  // The other process's pid; empty for NoProcess and CurrentProcess.
  std::optional<std::int32_t> otherProcessPID() const {
    return kind_ == Kind::OtherProcess ? std::optional<std::int32_t>(pid_) : std::nullopt;
  }

  // Same case, and for OtherProcess the same pid.
  friend bool operator==(const MediaDeviceHogMode& a, const MediaDeviceHogMode& b) {
    return a.kind_ == b.kind_ && (a.kind_ != Kind::OtherProcess || a.pid_ == b.pid_);
  }

 private:
  MediaDeviceHogMode(Kind kind, std::int32_t pid) : kind_(kind), pid_(pid) {}
  Kind kind_;
  std::int32_t pid_;
};

HARKWELL_EXPORT std::ostream& operator<<(std::ostream& out, const MediaDeviceHogMode& mode);

// Who holds the device; empty (after one log line) when the state cannot be read.
HARKWELL_EXPORT std::optional<MediaDeviceHogMode> AudioDeviceHogModeForDeviceID(
    std::uint32_t deviceID);
HARKWELL_EXPORT std::optional<MediaDeviceHogMode> VideoDeviceHogModeForDeviceID(
    std::uint32_t deviceID);

// Writes the hog-mode property, which the platform treats as a toggle; true when this process
// holds the device afterwards.
HARKWELL_EXPORT bool AudioDeviceToggleHogModeForDeviceID(std::uint32_t deviceID);
HARKWELL_EXPORT bool VideoDeviceToggleHogModeForDeviceID(std::uint32_t deviceID);

}  // namespace harkwell
