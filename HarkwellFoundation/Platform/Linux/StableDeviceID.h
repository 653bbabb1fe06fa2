// Device IDs that every process on the machine agrees on, and that survive a server restart: each
// Linux service derives a device's object ID from the device's persistent identity (its UID), so
// an ID copied from one run of a program still names the same device in the next.
//
// The rule:
//   home slot   FNV-1a (64-bit) of the UID's bytes, modulo the space's slot count.
//   ID          the space's first ID + slot x the space's stride.
//   spaces      audio: 0x10000 (65536) + 2 x slot, 32768 slots, so audio IDs are even numbers from
//                      65536 to 131070; the odd number after an audio ID is left to that device's
//                      stream, which is not an object.
//               video: 0x20000 (131072) + slot, 65536 slots, so video IDs run from 131072 to
//                      196607.
//               Both spaces stay clear of each other, of the system object (1) and of the low IDs
//               that the simulated services and tests use, and stay below 2^21, so a service may
//               build stream IDs from a device ID shifted left by 10 bits without overlap.
//   collisions  when two present devices share a home slot (about 1 in 700 for ten audio devices),
//               the UIDs are taken in ascending byte order: the first gets its home slot, each
//               later one the next free slot after its home, wrapping round the space. So two
//               processes that see the same devices give the same IDs; which of the colliding
//               devices keeps its home slot depends only on the set present. Equal UIDs (two
//               devices claiming one identity) are taken in the order the caller lists them.
//
// Pure functions of their arguments; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "HarkwellFoundation/Platform/PropertyAddress.h"

namespace harkwell {

enum class StableIDSpace { Audio, Video };

struct StableIDSpaceLayout {
  ObjectID firstID;
  std::uint32_t slotCount;
  std::uint32_t stride;
};

// The layout of each space, as the rule above gives it.
constexpr StableIDSpaceLayout StableIDLayoutOf(StableIDSpace space) {
  return space == StableIDSpace::Audio ? StableIDSpaceLayout{0x10000, 0x8000, 2}
                                       : StableIDSpaceLayout{0x20000, 0x10000, 1};
}

// The ID a device with this UID has when no other present device shares its home slot.
ObjectID StableDeviceIDHome(StableIDSpace space, std::string_view uid);

// Whether `id` is an ID the space can give out.
bool IsStableDeviceID(StableIDSpace space, ObjectID id);

// The IDs of a whole set of present devices, one per UID, in the order given. At most the space's
// slot count of devices get an ID; any beyond (never seen in practice) get 0, no device's ID.
std::vector<ObjectID> AssignStableDeviceIDs(StableIDSpace space,
                                            const std::vector<std::string>& uids);

}  // namespace harkwell
