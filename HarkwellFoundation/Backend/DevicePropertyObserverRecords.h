// Where an audio or video observer keeps the records of the listeners it registered: one optional
// record (the device list's listener) or one record per device, each behind its own mutex. Records
// taken out are handed back to the caller, so that a listener is removed from the service, or a
// replaced record dropped, with the mutex released: the mutex is never held while a service or a
// client is called.
//
// Threads: any thread may call any member. Records are copied in and out; nothing is referenced
// after a call returns.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "HarkwellFoundation/Platform/Mutex.h"

namespace harkwell {

template <class Record>
class LockedRecord {
 public:
  // Puts `record` in (or empties the slot) and returns what was there.
  std::optional<Record> exchange(std::optional<Record> record) HARKWELL_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return std::exchange(record_, std::move(record));
  }
  bool hasValue() const HARKWELL_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return record_.has_value();
  }

 private:
  mutable Mutex mutex_;
  std::optional<Record> record_ HARKWELL_GUARDED_BY(mutex_);
};

template <class Record>
class LockedRecordMap {
 public:
  // Stores `record` under `deviceID`. An earlier record for the device is replaced without its
  // listener being removed, and destroyed once the mutex is released.
  void store(std::uint32_t deviceID, Record record) HARKWELL_EXCLUDES(mutex_) {
    std::optional<Record> replaced;  // declared first, so destroyed after the lock is released
    MutexLock lock(mutex_);
    // try_emplace leaves `record` untouched when the device already has an entry.
    auto [slot, inserted] = records_.try_emplace(deviceID, std::move(record));
    if (!inserted) replaced = std::exchange(slot->second, std::move(record));
  }
  // A copy of the record under `deviceID`, which stays stored.
  std::optional<Record> copy(std::uint32_t deviceID) const HARKWELL_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    const auto found = records_.find(deviceID);
    if (found == records_.end()) return std::nullopt;
    return found->second;
  }
  // The record under `deviceID`, taken out.
  std::optional<Record> take(std::uint32_t deviceID) HARKWELL_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    const auto found = records_.find(deviceID);
    if (found == records_.end()) return std::nullopt;
    std::optional<Record> record = std::move(found->second);
    records_.erase(found);
    return record;
  }
  // Every record, taken out.
  std::unordered_map<std::uint32_t, Record> takeAll() HARKWELL_EXCLUDES(mutex_) {
    std::unordered_map<std::uint32_t, Record> records;
    MutexLock lock(mutex_);
    records.swap(records_);
    return records;
  }
  // The devices that have a record, in no particular order.
  std::vector<std::uint32_t> deviceIDs() const HARKWELL_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    std::vector<std::uint32_t> ids;
    ids.reserve(records_.size());
    for (const auto& [deviceID, record] : records_) ids.push_back(deviceID);
    return ids;
  }
  std::size_t size() const HARKWELL_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return records_.size();
  }

 private:
  mutable Mutex mutex_;
  std::unordered_map<std::uint32_t, Record> records_ HARKWELL_GUARDED_BY(mutex_);
};

}  // namespace harkwell
