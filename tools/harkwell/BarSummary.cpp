#include "tools/harkwell/BarSummary.h"

#include <algorithm>

namespace harkwell::cli {
namespace {

void AddOnce(std::vector<std::string>& names, std::string name) {
  if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(std::move(name));
}

// The programs a consumer stands for: itself when it is an application, the applications at the
// end of its chains when it is a filter or a media server, nobody when it only meters or monitors.
void AddUsers(const MediaDeviceConsumer& consumer, std::vector<std::string>& users) {
  switch (consumer.kind) {
    case MediaDeviceConsumerKind::Application:
      AddOnce(users, BarUserName(consumer));
      return;
    case MediaDeviceConsumerKind::Filter:
    case MediaDeviceConsumerKind::MediaServer:
      for (const auto& fed : consumer.feeds) AddUsers(fed, users);
      return;
    case MediaDeviceConsumerKind::LevelMeter:
    case MediaDeviceConsumerKind::Monitor:
      return;
  }
}

}  // namespace

std::string_view BarKindWord(BarKind kind) {
  switch (kind) {
    case BarKind::Microphone:
      return "microphone";
    case BarKind::Camera:
      return "camera";
    case BarKind::Speaker:
      return "speaker";
  }
  return "microphone";
}

BarKind BarKindOfDevice(const MediaDevice& device) {
  if (device.mediaType == MediaType::Video) return BarKind::Camera;
  return device.inputChannelCount > 0 ? BarKind::Microphone : BarKind::Speaker;
}

std::string BarUserName(const MediaDeviceConsumer& consumer) {
  if (consumer.applicationName && !consumer.applicationName->empty()) {
    return *consumer.applicationName;
  }
  if (consumer.processName && !consumer.processName->empty()) return *consumer.processName;
  if (consumer.sandboxApplicationID && !consumer.sandboxApplicationID->empty()) {
    return *consumer.sandboxApplicationID;
  }
  if (consumer.executablePath && !consumer.executablePath->empty()) {
    const auto slash = consumer.executablePath->rfind('/');
    return slash == std::string::npos ? *consumer.executablePath
                                      : consumer.executablePath->substr(slash + 1);
  }
  return "process " + std::to_string(consumer.processID);
}

void BarTracker::noteEvent(MediaDeviceEvent event, const MediaDevice& device,
                           Clock::time_point now) {
  const auto before = inUse();
  if (event == MediaDeviceEvent::Disconnected) {
    devices_.erase(device.deviceID);
  } else {
    devices_[device.deviceID].record = device;
  }
  holdWhatStopped(before, now);
}

void BarTracker::noteConsumers(const MediaDevice& device,
                               std::vector<MediaDeviceConsumer> consumers, Clock::time_point now) {
  const auto before = inUse();
  auto& entry = devices_[device.deviceID];
  entry.record = device;
  entry.consumers = std::move(consumers);
  holdWhatStopped(before, now);
}

void BarTracker::expireHolds(Clock::time_point now) {
  std::erase_if(holds_, [now](const auto& hold) { return hold.second.until <= now; });
}

std::map<BarKind, BarKindInUse> BarTracker::inUse() const {
  std::map<BarKind, BarKindInUse> kinds;
  for (const auto& [id, device] : devices_) {
    if (!device.record.isRunning) continue;
    const BarKind kind = BarKindOfDevice(device.record);
    auto& entry = kinds[kind];
    entry.kind = kind;
    AddOnce(entry.devices, device.record.name);
    for (const auto& consumer : device.consumers) AddUsers(consumer, entry.users);
  }
  return kinds;
}

void BarTracker::holdWhatStopped(const std::map<BarKind, BarKindInUse>& before,
                                 Clock::time_point now) {
  const auto after = inUse();
  for (const auto& [kind, shown] : before) {
    if (after.contains(kind)) continue;
    if (minVisible_ <= Clock::duration::zero()) continue;
    Hold hold{.until = now + minVisible_, .shown = shown};
    hold.shown.held = true;
    holds_[kind] = std::move(hold);
  }
  // A kind in use again is shown as in use, not as held.
  for (const auto& [kind, shown] : after) holds_.erase(kind);
}

BarSummary BarTracker::summary() const {
  const auto current = inUse();
  BarSummary summary;
  for (const BarKind kind : kBarKinds) {
    if (const auto found = current.find(kind); found != current.end()) {
      summary.kinds.push_back(found->second);
    } else if (const auto held = holds_.find(kind); held != holds_.end()) {
      summary.kinds.push_back(held->second.shown);
    }
  }
  return summary;
}

std::optional<BarTracker::Clock::time_point> BarTracker::nextHoldEnd() const {
  std::optional<Clock::time_point> earliest;
  for (const auto& [kind, hold] : holds_) {
    if (!earliest || hold.until < *earliest) earliest = hold.until;
  }
  return earliest;
}

}  // namespace harkwell::cli
