// The devices a Linux audio service shows, as objects of the audio seam: it gives each mapped
// device its stable object ID (StableDeviceID.h: derived from the UID, the same in every process
// and after a server restart), answers property reads about them, and tells which properties a
// new state changed. Input source IDs count from 1 per device UID in the order the sources were
// first seen, and are kept for the life of the mirror.
//
// Not thread-safe: the owning service serialises every call with its own lock. Nothing here blocks
// or calls out.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "HarkwellFoundation/Platform/Linux/MappedAudioDevice.h"
#include "HarkwellFoundation/Platform/PropertyAddress.h"
#include "HarkwellFoundation/Platform/PropertyValue.h"

namespace harkwell {

class MappedAudioDeviceMirror {
 public:
  // A property whose value an update changed.
  using Change = PropertyChange;

  // Replaces the devices with `devices` and returns what changed, device list first.
  std::vector<Change> update(const std::vector<MappedAudioDevice>& devices);

  // The present devices' IDs, ascending.
  std::vector<ObjectID> deviceIDs() const;
  // The system object, or a present device.
  bool hasObject(ObjectID object) const;
  // The sound card behind a device's exclusive access ("oink"), which the service answers from
  // the card's reservation: kAudioHardwareBadObjectError for an absent device,
  // kAudioHardwareUnknownPropertyError for the system object, an address off the main element or
  // a device without a card.
  OSStatus hogModeSoundCard(ObjectID object, const PropertyAddress& address,
                            std::uint32_t* card) const;

  // The seam's reads, with its statuses and size rules. Each device has one stream per direction
  // it serves, named in "stm#" by the device's ID + 1 (not an object).
  OSStatus getPropertyDataSize(ObjectID object, const PropertyAddress& address,
                               std::uint32_t* outDataSize) const;
  OSStatus getPropertyData(ObjectID object, const PropertyAddress& address,
                           std::uint32_t* ioDataSize, void* outData) const;
  bool hasProperty(ObjectID object, const PropertyAddress& address) const;
  // Nothing is writable: the status a write gets.
  OSStatus setPropertyDataStatus(ObjectID object, const PropertyAddress& address) const;

 private:
  struct Entry {
    MappedAudioDevice device;
    std::vector<std::pair<std::uint32_t, std::string>> inputSources;  // (ID, description)
    std::optional<std::uint32_t> selectedInputSource;
    friend bool operator==(const Entry&, const Entry&) = default;
  };

  struct Answer;
  Answer answer(ObjectID object, const PropertyAddress& address) const;
  Entry entryFor(const MappedAudioDevice& device);

  // Input source IDs by device UID and source name, for every device ever shown.
  std::map<std::string, std::map<std::string, std::uint32_t>> inputSourceIDs_;
  std::map<ObjectID, Entry> entries_;
};

}  // namespace harkwell
