// A controller client that checks, as each callback arrives, what any client may rely on:
//   - every callback runs on the controller's event-handler queue;
//   - updating brackets alternate, false then true, and never nest;
//   - a Disconnected device is one the client was told of (Connected or InitialDiscovery) and not
//     told is gone since; ChangedRunning and ChangedInputSource come only for such devices;
//   - every record it is handed passes the record check (by default: complete and whole, see
//     DeviceIncarnation.h), and a Disconnected record is neither connected nor running;
//   - when it follows consumers: a device's consumers are reported only while the client knows
//     the device, with a record of that device (same UID), and never the same list twice in a
//     row while the client knows the device (nor an empty list first).
// It also keeps the client's view, the latest record of every device it was told of, so a test
// can compare that view with the controller's caches once the queue is quiet.
//
// The callbacks run on the controller's queue; everything else is called from the test's thread.
// The checker must outlive the controller's observation.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "tests/reliability/DeviceIncarnation.h"

namespace harkwell::testing {

class ClientViewChecker {
 public:
  using DeviceKey = std::pair<MediaType, std::uint32_t>;

  // Why a record handed to the client is wrong, or nothing when it is right.
  using RecordCheck = std::function<std::optional<std::string>(const MediaDevice&)>;

  explicit ClientViewChecker(std::shared_ptr<DispatchQueue> queue,
                             RecordCheck recordCheck = CachedRecordProblem);
  ClientViewChecker(const ClientViewChecker&) = delete;
  ClientViewChecker& operator=(const ClientViewChecker&) = delete;

  // Installs the checker as the controller's two callbacks, and with `followConsumers` as its
  // consumers handler too.
  void attach(MediaDeviceController& controller, bool followConsumers = false);
  // The callbacks themselves, public so the checker's own tests can feed it directly.
  void onBracket(bool finished);
  void onEvent(MediaDeviceEvent event, const MediaDevice& device);
  void onConsumers(const MediaDevice& device, const std::vector<MediaDeviceConsumer>& consumers);
  // Observation was switched off: the next initial discovery starts the client's view afresh.
  void forgetDevices();

  // The first broken rule, or nothing.
  std::optional<std::string> firstViolation() const;
  // How many events of each kind arrived, by the event's ordinal.
  std::array<std::uint64_t, 5> eventCounts() const;
  std::uint64_t eventCount(MediaDeviceEvent event) const;
  // How many consumer reports arrived.
  std::uint64_t consumerReportCount() const;
  // The consumers last reported for each device the client knows (none: nobody, or not reported).
  std::map<DeviceKey, std::vector<MediaDeviceConsumer>> consumersView() const;
  bool isInsideBracket() const;
  std::map<DeviceKey, MediaDevice> view() const;
  // Waits until `predicate` holds for the client's view; false when the deadline passes first.
  bool waitUntilView(const std::function<bool(const std::map<DeviceKey, MediaDevice>&)>& predicate,
                     std::chrono::milliseconds deadline) const;

  // Where the client's view differs from the controller's caches, or nothing when it does not.
  // Only meaningful while the queue is quiet.
  std::optional<std::string> differenceFromCaches(const MediaDeviceController& controller) const;

 private:
  void violate(std::string text);  // with mutex_ held

  const std::shared_ptr<DispatchQueue> queue_;
  const RecordCheck recordCheck_;
  mutable std::mutex mutex_;
  mutable std::condition_variable viewChanged_;
  std::optional<std::string> violation_;
  std::array<std::uint64_t, 5> counts_{};
  bool insideBracket_ = false;
  std::map<DeviceKey, MediaDevice> view_;
  std::uint64_t consumerReports_ = 0;
  // Only devices someone uses, as last reported; a device's entry ends with its connection.
  std::map<DeviceKey, std::vector<MediaDeviceConsumer>> consumers_;
};

}  // namespace harkwell::testing
