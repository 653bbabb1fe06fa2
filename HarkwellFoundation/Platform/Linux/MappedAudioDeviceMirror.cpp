#include "HarkwellFoundation/Platform/Linux/MappedAudioDeviceMirror.h"

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/DeviceConsumerCoding.h"
#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"
#include "HarkwellFoundation/Platform/PropertyValue.h"

namespace harkwell {
namespace {

PropertyAddress GlobalAddress(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMaster};
}

PropertyAddress InputAddress(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeInput, kAudioObjectPropertyElementMaster};
}

bool IsKnownScope(std::uint32_t scope) {
  return scope == kAudioObjectPropertyScopeGlobal || scope == kAudioObjectPropertyScopeInput ||
         scope == kAudioObjectPropertyScopeOutput;
}

}  // namespace

// A property's value, or the status that stands in for it.
struct MappedAudioDeviceMirror::Answer {
  OSStatus status = kNoErr;
  PropertyValue value;

  static Answer failure(OSStatus status) { return Answer{status, PropertyValue::UInt32(0)}; }
};

MappedAudioDeviceMirror::Answer MappedAudioDeviceMirror::answer(
    ObjectID object, const PropertyAddress& address) const {
  // Every property here lives on the main element; the global ones answer in any scope, as the
  // platform's do.
  const std::uint32_t selector = address.mSelector;
  const bool known =
      address.mElement == kAudioObjectPropertyElementMaster && IsKnownScope(address.mScope);

  if (object == kAudioObjectSystemObject) {
    if (known && selector == kAudioHardwarePropertyDevices)
      return Answer{kNoErr, PropertyValue::IDList(deviceIDs())};
    return Answer::failure(kAudioHardwareUnknownPropertyError);
  }
  auto found = entries_.find(object);
  if (found == entries_.end()) return Answer::failure(kAudioHardwareBadObjectError);
  if (!known) return Answer::failure(kAudioHardwareUnknownPropertyError);
  const Entry& entry = found->second;
  const MappedAudioDevice& device = entry.device;
  const bool inputScope = address.mScope == kAudioObjectPropertyScopeInput;

  switch (selector) {
    case kAudioObjectPropertyName:
      return Answer{kNoErr, PropertyValue::String(device.name)};
    case kAudioDevicePropertyDeviceUID:
      return Answer{kNoErr, PropertyValue::String(device.uid)};
    case kAudioDevicePropertyModelUID:
      // Unknown model: a null reference, the platform's "no value".
      return Answer{kNoErr, PropertyValue::String(device.modelUID)};
    case kAudioDevicePropertyTransportType:
      return Answer{kNoErr, PropertyValue::UInt32(device.transportType)};
    case kAudioDevicePropertyDeviceIsRunningSomewhere:
      return Answer{kNoErr, PropertyValue::UInt32(device.isRunning ? 1u : 0u)};
    case kAudioDevicePropertyConsumers:
      return Answer{kNoErr, PropertyValue::Bytes(EncodeDeviceConsumers(device.consumers))};
    case kAudioDevicePropertyStreams: {
      std::uint32_t count = device.inputStreamCount + device.outputStreamCount;
      if (address.mScope == kAudioObjectPropertyScopeInput) count = device.inputStreamCount;
      if (address.mScope == kAudioObjectPropertyScopeOutput) count = device.outputStreamCount;
      return Answer{kNoErr, PropertyValue::IDList(std::vector<ObjectID>(count, object + 1))};
    }
    case kAudioDevicePropertyDataSource:
      if (inputScope && entry.selectedInputSource) {
        return Answer{kNoErr, PropertyValue::UInt32(*entry.selectedInputSource)};
      }
      break;
    case kAudioDevicePropertyDataSourceNameForIDCFString:
      if (inputScope && !entry.inputSources.empty()) {
        return Answer{kNoErr, PropertyValue::TranslationTable(
                                  [sources = entry.inputSources](
                                      std::uint32_t sourceID) -> std::optional<std::string> {
                                    for (const auto& [id, name] : sources) {
                                      if (id == sourceID) return name;
                                    }
                                    return std::nullopt;
                                  })};
      }
      break;
    default:
      // Exclusive access ("oink") is the service's own: see hogModeSoundCard().
      break;
  }
  return Answer::failure(kAudioHardwareUnknownPropertyError);
}

OSStatus MappedAudioDeviceMirror::getPropertyDataSize(ObjectID object,
                                                      const PropertyAddress& address,
                                                      std::uint32_t* outDataSize) const {
  const Answer found = answer(object, address);
  if (found.status != kNoErr) return found.status;
  if (!outDataSize) return kAudioHardwareIllegalOperationError;
  *outDataSize = found.value.dataSize();
  return kNoErr;
}

OSStatus MappedAudioDeviceMirror::getPropertyData(ObjectID object, const PropertyAddress& address,
                                                  std::uint32_t* ioDataSize, void* outData) const {
  const Answer found = answer(object, address);
  if (found.status != kNoErr) return found.status;
  if (!ioDataSize || (!outData && *ioDataSize > 0)) return kAudioHardwareIllegalOperationError;
  return found.value.write(ioDataSize, outData);
}

bool MappedAudioDeviceMirror::hasProperty(ObjectID object, const PropertyAddress& address) const {
  return answer(object, address).status == kNoErr;
}

OSStatus MappedAudioDeviceMirror::setPropertyDataStatus(ObjectID object,
                                                        const PropertyAddress& address) const {
  const Answer found = answer(object, address);
  return found.status != kNoErr ? found.status : kAudioHardwareIllegalOperationError;
}

std::vector<ObjectID> MappedAudioDeviceMirror::deviceIDs() const {
  std::vector<ObjectID> ids;
  ids.reserve(entries_.size());
  for (const auto& [id, entry] : entries_) ids.push_back(id);
  return ids;
}

OSStatus MappedAudioDeviceMirror::hogModeSoundCard(ObjectID object, const PropertyAddress& address,
                                                   std::uint32_t* card) const {
  if (object == kAudioObjectSystemObject) return kAudioHardwareUnknownPropertyError;
  auto found = entries_.find(object);
  if (found == entries_.end()) return kAudioHardwareBadObjectError;
  const auto& soundCard = found->second.device.soundCard;
  if (address.mElement != kAudioObjectPropertyElementMaster || !IsKnownScope(address.mScope) ||
      !soundCard) {
    return kAudioHardwareUnknownPropertyError;
  }
  *card = *soundCard;
  return kNoErr;
}

bool MappedAudioDeviceMirror::hasObject(ObjectID object) const {
  return object == kAudioObjectSystemObject || entries_.count(object) != 0;
}

MappedAudioDeviceMirror::Entry MappedAudioDeviceMirror::entryFor(const MappedAudioDevice& device) {
  std::map<std::string, std::uint32_t>& sourceIDs = inputSourceIDs_[device.uid];
  Entry entry{device, {}, std::nullopt};
  for (const MappedInputSource& source : device.inputSources) {
    // Input source IDs count from 1 per device, in the order the sources were first seen.
    auto [slot, added] =
        sourceIDs.try_emplace(source.name, static_cast<std::uint32_t>(sourceIDs.size() + 1));
    entry.inputSources.emplace_back(slot->second, source.description);
    if (device.selectedInputSource == source.name) entry.selectedInputSource = slot->second;
  }
  return entry;
}

std::vector<MappedAudioDeviceMirror::Change> MappedAudioDeviceMirror::update(
    const std::vector<MappedAudioDevice>& devices) {
  std::vector<std::string> uids;
  uids.reserve(devices.size());
  for (const MappedAudioDevice& device : devices) uids.push_back(device.uid);
  const std::vector<ObjectID> ids = AssignStableDeviceIDs(StableIDSpace::Audio, uids);
  std::map<ObjectID, Entry> next;
  for (std::size_t i = 0; i < devices.size(); ++i) {
    // A device beyond the ID space's size has no ID and is not shown.
    if (ids[i] != 0) next.insert_or_assign(ids[i], entryFor(devices[i]));
  }

  std::vector<Change> changes;
  // An ID that now names another device (two UIDs sharing a home slot) changes the list too.
  const bool listChanged =
      next.size() != entries_.size() ||
      !std::equal(next.begin(), next.end(), entries_.begin(), [](const auto& a, const auto& b) {
        const MappedAudioDevice& now = a.second.device;
        const MappedAudioDevice& was = b.second.device;
        // A source and a sink of one name are two devices: the direction is part of who it is.
        return a.first == b.first && now.uid == was.uid &&
               now.inputStreamCount == was.inputStreamCount &&
               now.outputStreamCount == was.outputStreamCount;
      });
  if (listChanged) {
    changes.push_back({kAudioObjectSystemObject, GlobalAddress(kAudioHardwarePropertyDevices)});
  }
  for (const auto& [id, entry] : next) {
    auto before = entries_.find(id);
    if (before == entries_.end() || before->second == entry) continue;
    const Entry& old = before->second;
    const MappedAudioDevice& was = old.device;
    const MappedAudioDevice& now = entry.device;
    auto note = [&, id = id](const PropertyAddress& address) { changes.push_back({id, address}); };
    if (was.uid != now.uid) note(GlobalAddress(kAudioDevicePropertyDeviceUID));
    if (was.name != now.name) note(GlobalAddress(kAudioObjectPropertyName));
    if (was.modelUID != now.modelUID) note(GlobalAddress(kAudioDevicePropertyModelUID));
    if (was.transportType != now.transportType) {
      note(GlobalAddress(kAudioDevicePropertyTransportType));
    }
    if (was.isRunning != now.isRunning) {
      note(GlobalAddress(kAudioDevicePropertyDeviceIsRunningSomewhere));
    }
    if (was.consumers != now.consumers) note(GlobalAddress(kAudioDevicePropertyConsumers));
    if (old.selectedInputSource != entry.selectedInputSource) {
      note(InputAddress(kAudioDevicePropertyDataSource));
    }
    if (old.inputSources != entry.inputSources) {
      note(InputAddress(kAudioDevicePropertyDataSourceNameForIDCFString));
    }
  }
  entries_ = std::move(next);
  return changes;
}

}  // namespace harkwell
