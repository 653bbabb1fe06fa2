#include "tests/reliability/ClientViewChecker.h"

#include <sstream>

namespace harkwell::testing {

ClientViewChecker::ClientViewChecker(std::shared_ptr<DispatchQueue> queue, RecordCheck recordCheck)
    : queue_(std::move(queue)), recordCheck_(std::move(recordCheck)) {}

void ClientViewChecker::attach(MediaDeviceController& controller, bool followConsumers) {
  controller.setUpdatingDevicesHandler([this](bool finished) { onBracket(finished); });
  controller.setDeviceEventHandler(
      [this](MediaDeviceEvent event, const MediaDevice& device) { onEvent(event, device); });
  if (followConsumers) {
    controller.setDeviceConsumersHandler(
        [this](const MediaDevice& device, const std::vector<MediaDeviceConsumer>& consumers) {
          onConsumers(device, consumers);
        });
  }
}

void ClientViewChecker::forgetDevices() {
  std::lock_guard lock(mutex_);
  view_.clear();
  consumers_.clear();
}

void ClientViewChecker::violate(std::string text) {
  if (!violation_) violation_ = std::move(text);
}

void ClientViewChecker::onBracket(bool finished) {
  const bool onQueue = queue_->isCurrent();
  std::lock_guard lock(mutex_);
  if (!onQueue) violate("an updating callback ran off the event-handler queue");
  if (finished != insideBracket_) {
    violate(finished ? "an updating bracket closed without being opened"
                     : "an updating bracket opened inside another");
  }
  insideBracket_ = !finished;
}

void ClientViewChecker::onEvent(MediaDeviceEvent event, const MediaDevice& device) {
  const bool onQueue = queue_->isCurrent();
  const DeviceKey key{device.mediaType, device.deviceID};
  std::lock_guard lock(mutex_);
  ++counts_[hashValue(event)];
  std::ostringstream where;
  where << caseName(event) << " " << device;
  if (!onQueue) violate(where.str() + ": ran off the event-handler queue");
  const bool known = view_.count(key) != 0;
  switch (event) {
    case MediaDeviceEvent::InitialDiscovery:
    case MediaDeviceEvent::Connected:
    case MediaDeviceEvent::ChangedRunning:
    case MediaDeviceEvent::ChangedInputSource:
      if (auto problem = recordCheck_(device)) violate(where.str() + ": " + *problem);
      if (!known && (event == MediaDeviceEvent::ChangedRunning ||
                     event == MediaDeviceEvent::ChangedInputSource)) {
        violate(where.str() + ": a change for a device the client was not told of");
      }
      view_[key] = device;
      break;
    case MediaDeviceEvent::Disconnected:
      if (!known) violate(where.str() + ": the client was never told of this device");
      if (device.isConnected || device.isRunning) {
        violate(where.str() + ": a disconnected record is still connected or running");
      }
      view_.erase(key);
      consumers_.erase(key);
      break;
  }
  // A device the client did not know starts without consumers. A Connected for a device it
  // already knows (a device list naming an ID twice gives one) goes on with the consumers the
  // client was told of, as the controller goes on following them.
  if (!known &&
      (event == MediaDeviceEvent::Connected || event == MediaDeviceEvent::InitialDiscovery)) {
    consumers_.erase(key);
  }
  viewChanged_.notify_all();
}

void ClientViewChecker::onConsumers(const MediaDevice& device,
                                    const std::vector<MediaDeviceConsumer>& consumers) {
  const bool onQueue = queue_->isCurrent();
  const DeviceKey key{device.mediaType, device.deviceID};
  std::lock_guard lock(mutex_);
  ++consumerReports_;
  std::ostringstream where;
  where << "consumers of " << device;
  if (!onQueue) violate(where.str() + ": ran off the event-handler queue");
  const auto known = view_.find(key);
  if (known == view_.end()) {
    violate(where.str() + ": reported for a device the client does not know");
    return;
  }
  // The record is the controller's current one, which within one batch of events may already be
  // a later read of the same device than the event the client has just been handed; it must
  // still be that device.
  if (known->second.deviceUID != device.deviceUID) {
    std::ostringstream last;
    last << known->second;
    violate(where.str() + ": reported with the record of another device than the client's " +
            last.str());
  }
  const auto previous = consumers_.find(key);
  const auto& before =
      previous == consumers_.end() ? std::vector<MediaDeviceConsumer>{} : previous->second;
  if (before == consumers) violate(where.str() + ": the same consumers reported again");
  if (consumers.empty()) {
    consumers_.erase(key);
  } else {
    consumers_[key] = consumers;
  }
}

std::optional<std::string> ClientViewChecker::firstViolation() const {
  std::lock_guard lock(mutex_);
  return violation_;
}

std::array<std::uint64_t, 5> ClientViewChecker::eventCounts() const {
  std::lock_guard lock(mutex_);
  return counts_;
}

std::uint64_t ClientViewChecker::eventCount(MediaDeviceEvent event) const {
  std::lock_guard lock(mutex_);
  return counts_[hashValue(event)];
}

std::uint64_t ClientViewChecker::consumerReportCount() const {
  std::lock_guard lock(mutex_);
  return consumerReports_;
}

std::map<ClientViewChecker::DeviceKey, std::vector<MediaDeviceConsumer>>
ClientViewChecker::consumersView() const {
  std::lock_guard lock(mutex_);
  return consumers_;
}

bool ClientViewChecker::isInsideBracket() const {
  std::lock_guard lock(mutex_);
  return insideBracket_;
}

std::map<ClientViewChecker::DeviceKey, MediaDevice> ClientViewChecker::view() const {
  std::lock_guard lock(mutex_);
  return view_;
}

bool ClientViewChecker::waitUntilView(
    const std::function<bool(const std::map<DeviceKey, MediaDevice>&)>& predicate,
    std::chrono::milliseconds deadline) const {
  std::unique_lock lock(mutex_);
  return viewChanged_.wait_for(lock, deadline, [&] { return predicate(view_); });
}

std::optional<std::string> ClientViewChecker::differenceFromCaches(
    const MediaDeviceController& controller) const {
  std::map<DeviceKey, MediaDevice> cached;
  for (const auto& device : controller.connectedDevices()) {
    if (auto problem = recordCheck_(device)) return "cache holds " + *problem;
    if (!cached.emplace(DeviceKey{device.mediaType, device.deviceID}, device).second) {
      std::ostringstream text;
      text << "cache lists " << device << " twice";
      return text.str();
    }
  }
  const auto seen = view();
  for (const auto& [key, device] : cached) {
    auto found = seen.find(key);
    std::ostringstream text;
    if (found == seen.end()) {
      text << "cache holds " << device << " which the client was not told of";
      return text.str();
    }
    if (!(found->second == device)) {
      text << "cache holds " << device << " but the client last saw " << found->second;
      return text.str();
    }
  }
  for (const auto& [key, device] : seen) {
    if (cached.count(key) == 0) {
      std::ostringstream text;
      text << "the client still holds " << device << " which is no longer cached";
      return text.str();
    }
  }
  return std::nullopt;
}

}  // namespace harkwell::testing
