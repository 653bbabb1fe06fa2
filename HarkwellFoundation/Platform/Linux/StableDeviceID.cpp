#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"

#include <algorithm>
#include <numeric>

namespace harkwell {
namespace {

// FNV-1a, 64 bits: the same on every machine and in every process, unlike std::hash.
std::uint64_t Fnv1a(std::string_view text) {
  std::uint64_t hash = 0xcbf29ce484222325ull;
  for (unsigned char byte : text) {
    hash ^= byte;
    hash *= 0x100000001b3ull;
  }
  return hash;
}

std::uint32_t HomeSlot(const StableIDSpaceLayout& layout, std::string_view uid) {
  return static_cast<std::uint32_t>(Fnv1a(uid) % layout.slotCount);
}

ObjectID IDOfSlot(const StableIDSpaceLayout& layout, std::uint32_t slot) {
  return layout.firstID + slot * layout.stride;
}

}  // namespace

ObjectID StableDeviceIDHome(StableIDSpace space, std::string_view uid) {
  const StableIDSpaceLayout layout = StableIDLayoutOf(space);
  return IDOfSlot(layout, HomeSlot(layout, uid));
}

bool IsStableDeviceID(StableIDSpace space, ObjectID id) {
  const StableIDSpaceLayout layout = StableIDLayoutOf(space);
  if (id < layout.firstID) return false;
  const ObjectID offset = id - layout.firstID;
  return offset % layout.stride == 0 && offset / layout.stride < layout.slotCount;
}

std::vector<ObjectID> AssignStableDeviceIDs(StableIDSpace space,
                                            const std::vector<std::string>& uids) {
  const StableIDSpaceLayout layout = StableIDLayoutOf(space);
  // Positions in the order their UIDs sort; equal UIDs keep the caller's order.
  std::vector<std::size_t> order(uids.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return uids[a] < uids[b]; });

  std::vector<ObjectID> ids(uids.size(), 0);
  // A bit per slot (4 KiB for audio): cheaper than any search, even for a handful of devices.
  std::vector<bool> taken(layout.slotCount, false);
  std::size_t given = 0;
  for (std::size_t position : order) {
    if (given == layout.slotCount) break;
    std::uint32_t slot = HomeSlot(layout, uids[position]);
    while (taken[slot]) slot = (slot + 1) % layout.slotCount;
    taken[slot] = true;
    ids[position] = IDOfSlot(layout, slot);
    ++given;
  }
  return ids;
}

}  // namespace harkwell
