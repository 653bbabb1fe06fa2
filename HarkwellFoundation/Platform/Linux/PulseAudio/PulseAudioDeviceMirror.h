// The devices a PulseAudio service shows, as objects of the audio seam: it gives each mapped device
// an object ID, answers property reads about them, and tells which properties a new server state
// changed. A device's ID comes from its UID by the stable rule (StableDeviceID.h, audio space), so
// every process gives it the same ID, and a device that comes back (after its module is reloaded or
// the server restarts) has its old ID again. Only when two present devices' UIDs share a home slot
// can an ID move between them, as the set of present devices changes.
//
// Not thread-safe: the owning service serialises every call with its own lock. Nothing here blocks
// or calls out.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioDeviceMapping.h"
#include "HarkwellFoundation/Platform/PropertyAddress.h"
#include "HarkwellFoundation/Platform/PropertyValue.h"

namespace harkwell {

class PulseAudioDeviceMirror {
 public:
  // A property whose value an update changed.
  using Change = PropertyChange;

  // Replaces the devices with `devices` and returns what changed, device list first.
  std::vector<Change> update(const std::vector<PulseMappedDevice>& devices);

  // The present devices' IDs, ascending. A device's one stream takes the odd ID after the
  // device's (streams are named in "stm#" but are not objects of the service).
  std::vector<ObjectID> deviceIDs() const;
  // The system object, or a present device.
  bool hasObject(ObjectID object) const;

  // The seam's reads, with its statuses and size rules.
  OSStatus getPropertyDataSize(ObjectID object, const PropertyAddress& address,
                               std::uint32_t* outDataSize) const;
  OSStatus getPropertyData(ObjectID object, const PropertyAddress& address,
                           std::uint32_t* ioDataSize, void* outData) const;
  bool hasProperty(ObjectID object, const PropertyAddress& address) const;
  // Nothing is writable: the status a write gets.
  OSStatus setPropertyDataStatus(ObjectID object, const PropertyAddress& address) const;
  // The sound card behind a device's exclusive access ("oink"), which the service answers from
  // the card's reservation: kAudioHardwareBadObjectError for an absent device,
  // kAudioHardwareUnknownPropertyError for the system object, an address off the main element or
  // a device without a card.
  OSStatus hogModeSoundCard(ObjectID object, const PropertyAddress& address,
                            std::uint32_t* card) const;

 private:
  using DeviceKey = std::pair<PulseEndpointKind, std::string>;

  // What the mirror remembers of every device it has ever shown.
  struct Identity {
    std::map<std::string, std::uint32_t> portIDs;  // input source IDs by port name
  };

  struct Entry {
    PulseMappedDevice device;
    std::vector<std::pair<std::uint32_t, std::string>> inputSources;  // (ID, description)
    std::optional<std::uint32_t> selectedInputSource;
    friend bool operator==(const Entry&, const Entry&) = default;
  };

  struct Answer;
  Answer answer(ObjectID object, const PropertyAddress& address) const;
  Entry entryFor(const PulseMappedDevice& device);

  std::map<DeviceKey, Identity> identities_;
  std::map<ObjectID, Entry> entries_;
};

}  // namespace harkwell
