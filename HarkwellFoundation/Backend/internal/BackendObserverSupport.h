// Small pieces that AudioDeviceObserver and VideoDeviceObserver share: listener callbacks that
// hold their observer without keeping it alive, the two stream counts read as one answer, and the
// stored listener records, changed under the observer's mutex but never removed from the service
// while it is held.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "HarkwellFoundation/Observer/MediaDeviceObserver.h"

namespace harkwell {

// A callback for a platform listener or a polling handler: it runs `note` on the observer while
// the observer is alive, and does nothing once it is gone (a notification may already be queued
// when the observer goes away). `observer` must come from weak_from_this() while it is owned.
std::function<void()> CallbackWhileObserverAlive(std::weak_ptr<MediaDeviceObserver> observer,
                                                 std::function<void(MediaDeviceObserver&)> note);

// Both counts, or empty when either cannot be read. The output count is only asked for once the
// input count is known.
using StreamCountRead = std::optional<std::uint64_t> (*)(std::uint32_t deviceID);
std::optional<MediaDeviceChannelCounts> ReadChannelCounts(std::uint32_t deviceID,
                                                          StreamCountRead inputCount,
                                                          StreamCountRead outputCount);

// Puts `record` into `slot` while holding `mutex` and returns what was there, so that the caller
// removes or drops the old record with the lock released.
template <class Record>
std::optional<Record> ExchangeLocked(std::mutex& mutex, std::optional<Record>& slot,
                                     std::optional<Record> record) {
  std::lock_guard lock(mutex);
  return std::exchange(slot, std::move(record));
}

// Stores `record` under `deviceID` while holding `mutex`. An earlier record for the device is
// replaced without removing its listener, and destroyed once the lock is released.
template <class Map>
void StoreLocked(std::mutex& mutex, Map& map, std::uint32_t deviceID,
                 typename Map::mapped_type record) {
  std::optional<typename Map::mapped_type> replaced;
  std::lock_guard lock(mutex);
  // try_emplace leaves `record` untouched when the device already has an entry.
  auto [slot, inserted] = map.try_emplace(deviceID, std::move(record));
  if (!inserted) replaced = std::exchange(slot->second, std::move(record));
}

// A copy of the record stored under `deviceID`, read while holding `mutex`.
template <class Map>
std::optional<typename Map::mapped_type> CopyLocked(std::mutex& mutex, Map& map,
                                                    std::uint32_t deviceID) {
  std::lock_guard lock(mutex);
  auto found = map.find(deviceID);
  if (found == map.end()) return std::nullopt;
  return found->second;
}

// The record stored under `deviceID`, taken out of the map while holding `mutex`.
template <class Map>
std::optional<typename Map::mapped_type> TakeLocked(std::mutex& mutex, Map& map,
                                                    std::uint32_t deviceID) {
  std::lock_guard lock(mutex);
  auto found = map.find(deviceID);
  if (found == map.end()) return std::nullopt;
  std::optional<typename Map::mapped_type> record = std::move(found->second);
  map.erase(found);
  return record;
}

}  // namespace harkwell
