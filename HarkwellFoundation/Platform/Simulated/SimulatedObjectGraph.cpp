#include "HarkwellFoundation/Platform/Simulated/SimulatedObjectGraph.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

// Audio and video services answer with the same codes, so one graph serves both.
#include "HarkwellFoundation/Platform/SharedHardwareCodes.h"

namespace harkwell {

// --- SimulatedPropertyValue ----------------------------------------------------------------------

namespace {
std::vector<std::uint8_t> bytesOf(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  return std::vector<std::uint8_t>(bytes, bytes + size);
}
}  // namespace

SimulatedPropertyValue SimulatedPropertyValue::UInt32(std::uint32_t value) {
  return SimulatedPropertyValue(PropertyValue::UInt32(value));
}

SimulatedPropertyValue SimulatedPropertyValue::Int32(std::int32_t value) {
  return SimulatedPropertyValue(PropertyValue::Int32(value));
}

SimulatedPropertyValue SimulatedPropertyValue::String(std::optional<std::string> text) {
  return SimulatedPropertyValue(PropertyValue::String(std::move(text)));
}

SimulatedPropertyValue SimulatedPropertyValue::IDList(std::vector<std::uint32_t> ids) {
  return SimulatedPropertyValue(PropertyValue::IDList(std::move(ids)));
}

SimulatedPropertyValue SimulatedPropertyValue::Bytes(std::vector<std::uint8_t> bytes) {
  return SimulatedPropertyValue(PropertyValue::Bytes(std::move(bytes)));
}

SimulatedPropertyValue SimulatedPropertyValue::TranslationTable(Translation table) {
  return SimulatedPropertyValue(PropertyValue::TranslationTable(
      [table = std::move(table)](std::uint32_t input) -> std::optional<std::string> {
        const auto entry = table.find(input);
        return entry == table.end() ? std::nullopt : entry->second;
      }));
}

SimulatedPropertyValue SimulatedPropertyValue::withReportedSize(std::uint32_t size) const {
  SimulatedPropertyValue copy = *this;
  copy.reportedSize_ = size;
  return copy;
}

std::uint32_t SimulatedPropertyValue::reportedSize() const {
  return reportedSize_ ? *reportedSize_ : value_.dataSize();
}

std::optional<std::uint32_t> SimulatedPropertyValue::asUInt32() const {
  return value_.asUInt32();
}

std::optional<std::int32_t> SimulatedPropertyValue::asInt32() const {
  auto value = asUInt32();
  if (!value) return std::nullopt;
  return static_cast<std::int32_t>(*value);
}

std::optional<std::optional<std::string>> SimulatedPropertyValue::asString() const {
  if (const auto* text = value_.string()) return *text;
  return std::nullopt;
}

std::optional<std::vector<std::uint32_t>> SimulatedPropertyValue::asIDList() const {
  if (const auto* ids = value_.idList()) return *ids;
  return std::nullopt;
}

// --- SimulatedObjectGraph ------------------------------------------------------------------------

SimulatedObjectGraph::SimulatedObjectGraph() {
  objects_[kAudioObjectSystemObject];
}

void SimulatedObjectGraph::setProperty(ObjectID object, const PropertyAddress& address,
                                       SimulatedPropertyValue value, bool notify) {
  {
    MutexLock lock(mutex_);
    objects_[object].insert_or_assign(keyFor(object, address), std::move(value));
  }
  if (notify) notifyPropertyChanged(object, address);
}

void SimulatedObjectGraph::removeProperty(ObjectID object, const PropertyAddress& address) {
  MutexLock lock(mutex_);
  auto found = objects_.find(object);
  if (found != objects_.end()) found->second.erase(keyFor(object, address));
}

std::optional<SimulatedPropertyValue> SimulatedObjectGraph::property(
    ObjectID object, const PropertyAddress& address) const {
  MutexLock lock(mutex_);
  auto found = objects_.find(object);
  if (found == objects_.end()) return std::nullopt;
  auto value = found->second.find(keyFor(object, address));
  if (value == found->second.end()) return std::nullopt;
  return value->second;
}

void SimulatedObjectGraph::addObject(ObjectID object) {
  MutexLock lock(mutex_);
  objects_[object];
}

void SimulatedObjectGraph::removeObject(ObjectID object) {
  MutexLock lock(mutex_);
  objects_.erase(object);
}

bool SimulatedObjectGraph::hasObject(ObjectID object) const {
  MutexLock lock(mutex_);
  return objects_.count(object) != 0;
}

void SimulatedObjectGraph::notifyPropertyChanged(ObjectID object, const PropertyAddress& address) {
  std::vector<Listener> listeners;
  {
    MutexLock lock(mutex_);
    listeners = listenersForLocked(keyFor(object, address));
  }
  notifyListeners(listeners, address);
}

std::vector<SimulatedObjectGraph::Listener> SimulatedObjectGraph::listenersForLocked(
    const AddressKey& key) const {
  std::vector<Listener> matching;
  for (const auto& listener : listeners_) {
    if (listener.key == key) matching.push_back(listener);
  }
  return matching;
}

void SimulatedObjectGraph::notifyListeners(const std::vector<Listener>& listeners,
                                           const PropertyAddress& address) {
  for (const auto& listener : listeners) {
    listener.queue->async([block = listener.block, address] { (*block)(1, &address); });
  }
}

void SimulatedObjectGraph::addFailure(SimulatedFailure failure) {
  MutexLock lock(mutex_);
  failures_.push_back(failure);
}

void SimulatedObjectGraph::clearFailures() {
  MutexLock lock(mutex_);
  failures_.clear();
}

void SimulatedObjectGraph::setCallHook(std::function<void(const SimulatedCall&)> hook) {
  MutexLock lock(mutex_);
  hook_ = hook ? std::make_shared<const std::function<void(const SimulatedCall&)>>(std::move(hook))
               : nullptr;
}

void SimulatedObjectGraph::setListenerMatching(ListenerMatching matching) {
  MutexLock lock(mutex_);
  matching_ = matching;
}

std::size_t SimulatedObjectGraph::listenerCount() const {
  MutexLock lock(mutex_);
  return listeners_.size();
}

std::size_t SimulatedObjectGraph::listenerCount(ObjectID object,
                                                const PropertyAddress& address) const {
  MutexLock lock(mutex_);
  return listenersForLocked(keyFor(object, address)).size();
}

std::vector<SimulatedCall> SimulatedObjectGraph::calls() const {
  MutexLock lock(mutex_);
  return calls_;
}

void SimulatedObjectGraph::clearCalls() {
  MutexLock lock(mutex_);
  calls_.clear();
}

void SimulatedObjectGraph::setRecordingCalls(bool recording) {
  MutexLock lock(mutex_);
  recordingCalls_ = recording;
  if (!recording) calls_.clear();
}

std::optional<OSStatus> SimulatedObjectGraph::injectedFailure(const SimulatedCall& call) {
  std::shared_ptr<const std::function<void(const SimulatedCall&)>> hook;
  {
    MutexLock lock(mutex_);
    hook = hook_;
  }
  if (hook) (*hook)(call);

  MutexLock lock(mutex_);
  for (auto rule = failures_.begin(); rule != failures_.end(); ++rule) {
    if (rule->kind && *rule->kind != call.kind) continue;
    if (rule->object && *rule->object != call.object) continue;
    if (rule->selector && *rule->selector != call.address.mSelector) continue;
    if (rule->scope && *rule->scope != call.address.mScope) continue;
    const OSStatus status = rule->status;
    if (rule->count > 0 && --rule->count == 0) failures_.erase(rule);
    return status;
  }
  return std::nullopt;
}

OSStatus SimulatedObjectGraph::record(SimulatedCall call, OSStatus status) {
  call.status = status;
  MutexLock lock(mutex_);
  if (recordingCalls_) calls_.push_back(std::move(call));
  return status;
}

std::optional<OSStatus> SimulatedObjectGraph::checkObjectAndPropertyLocked(
    ObjectID object, const PropertyAddress& address) const {
  auto found = objects_.find(object);
  if (found == objects_.end()) return kAudioHardwareBadObjectError;
  if (found->second.count(keyFor(object, address)) == 0) return kAudioHardwareUnknownPropertyError;
  return std::nullopt;
}

OSStatus SimulatedObjectGraph::handleGetPropertyDataSize(ObjectID object,
                                                         const PropertyAddress& address,
                                                         std::uint32_t qualifierDataSize,
                                                         std::uint32_t* outDataSize) {
  SimulatedCall call{.kind = SimulatedCallKind::GetPropertyDataSize,
                     .object = object,
                     .address = address,
                     .qualifierDataSize = qualifierDataSize};
  if (auto failure = injectedFailure(call)) return record(std::move(call), *failure);
  OSStatus status = kNoErr;
  {
    MutexLock lock(mutex_);
    if (auto problem = checkObjectAndPropertyLocked(object, address)) {
      status = *problem;
    } else {
      *outDataSize = objects_.at(object).at(keyFor(object, address)).reportedSize();
    }
  }
  return record(std::move(call), status);
}

OSStatus SimulatedObjectGraph::handleGetPropertyData(ObjectID object,
                                                     const PropertyAddress& address,
                                                     std::uint32_t qualifierDataSize,
                                                     std::uint32_t* ioDataSize, void* outData) {
  SimulatedCall call{.kind = SimulatedCallKind::GetPropertyData,
                     .object = object,
                     .address = address,
                     .qualifierDataSize = qualifierDataSize,
                     .dataSize = *ioDataSize};
  if (auto failure = injectedFailure(call)) return record(std::move(call), *failure);
  OSStatus status = kNoErr;
  {
    MutexLock lock(mutex_);
    if (auto problem = checkObjectAndPropertyLocked(object, address)) {
      status = *problem;
    } else {
      status = objects_.at(object).at(keyFor(object, address)).value_.write(ioDataSize, outData);
    }
  }
  return record(std::move(call), status);
}

OSStatus SimulatedObjectGraph::handleSetPropertyData(ObjectID object,
                                                     const PropertyAddress& address,
                                                     std::uint32_t qualifierDataSize,
                                                     std::uint32_t dataSize, void* data) {
  SimulatedCall call{.kind = SimulatedCallKind::SetPropertyData,
                     .object = object,
                     .address = address,
                     .qualifierDataSize = qualifierDataSize,
                     .dataSize = dataSize,
                     .data = data ? bytesOf(data, dataSize) : std::vector<std::uint8_t>()};
  if (auto failure = injectedFailure(call)) return record(std::move(call), *failure);
  OSStatus status = kNoErr;
  std::vector<Listener> toNotify;
  {
    MutexLock lock(mutex_);
    if (auto problem = checkObjectAndPropertyLocked(object, address)) {
      status = *problem;
    } else if (!data) {
      status = kAudioHardwareBadPropertySizeError;
    } else {
      auto& value = objects_.at(object).at(keyFor(object, address));
      if (address.mSelector == kAudioDevicePropertyHogMode) {
        // The platform's toggle: take a free device, release one this process holds, leave one
        // another process holds; the owner afterwards is written back to the caller.
        auto owner = value.asInt32();
        if (!owner || dataSize != 4) {
          status = kAudioHardwareBadPropertySizeError;
        } else {
          const std::int32_t self = getpid();
          std::int32_t next = *owner;
          if (*owner == -1) {
            next = self;
          } else if (*owner == self) {
            next = -1;
          }
          value = SimulatedPropertyValue::Int32(next);
          std::memcpy(data, &next, 4);
          if (next != *owner) toNotify = listenersForLocked(keyFor(object, address));
        }
      } else if (value.value_.bytes()) {
        value = SimulatedPropertyValue::Bytes(bytesOf(data, dataSize));
        toNotify = listenersForLocked(keyFor(object, address));
      } else {
        status = kAudioHardwareUnknownPropertyError;
      }
    }
  }
  notifyListeners(toNotify, address);
  return record(std::move(call), status);
}

bool SimulatedObjectGraph::handleHasProperty(ObjectID object, const PropertyAddress& address) {
  SimulatedCall call{.kind = SimulatedCallKind::HasProperty, .object = object, .address = address};
  if (auto failure = injectedFailure(call)) {
    record(std::move(call), *failure);
    return false;
  }
  bool has;
  {
    MutexLock lock(mutex_);
    has = !checkObjectAndPropertyLocked(object, address).has_value();
  }
  record(std::move(call), kNoErr);
  return has;
}

OSStatus SimulatedObjectGraph::handleAddListener(ObjectID object, const PropertyAddress& address,
                                                 std::shared_ptr<DispatchQueue> queue,
                                                 PlatformListenerBlockRef block) {
  SimulatedCall call{.kind = SimulatedCallKind::AddPropertyListener,
                     .object = object,
                     .address = address,
                     .queue = queue,
                     .block = block.get(),
                     .closure = block ? block->closure().get() : nullptr};
  if (auto failure = injectedFailure(call)) return record(std::move(call), *failure);
  OSStatus status = kNoErr;
  {
    MutexLock lock(mutex_);
    if (objects_.count(object) == 0) {
      status = kAudioHardwareBadObjectError;
    } else if (!queue || !block) {
      status = kAudioHardwareUnknownPropertyError;
    } else {
      listeners_.push_back(Listener{keyFor(object, address), std::move(queue), std::move(block)});
    }
  }
  return record(std::move(call), status);
}

OSStatus SimulatedObjectGraph::handleRemoveListener(ObjectID object, const PropertyAddress& address,
                                                    std::shared_ptr<DispatchQueue> queue,
                                                    PlatformListenerBlockRef block) {
  SimulatedCall call{.kind = SimulatedCallKind::RemovePropertyListener,
                     .object = object,
                     .address = address,
                     .queue = queue,
                     .block = block.get(),
                     .closure = block ? block->closure().get() : nullptr};
  if (auto failure = injectedFailure(call)) return record(std::move(call), *failure);
  OSStatus status = kNoErr;
  {
    MutexLock lock(mutex_);
    const auto key = keyFor(object, address);
    const auto matching = matching_;
    auto match = std::find_if(listeners_.begin(), listeners_.end(), [&](const Listener& l) {
      if (!(l.key == key) || l.queue != queue || !block) return false;
      return matching == ListenerMatching::ByBlockIdentity ? l.block == block
                                                           : l.block->closure() == block->closure();
    });
    if (objects_.count(object) == 0) {
      status = kAudioHardwareBadObjectError;
    } else if (match == listeners_.end()) {
      status = kAudioHardwareUnknownPropertyError;
    }
    // A listener of an object that went away is dropped all the same.
    if (match != listeners_.end()) listeners_.erase(match);
  }
  return record(std::move(call), status);
}

}  // namespace harkwell
