// Platform strings on Linux: an immutable byte string with an atomic reference count.
#include "HarkwellFoundation/Platform/PlatformString.h"

#include <atomic>

namespace harkwell {

struct PlatformStringStorage {
  mutable std::atomic<std::size_t> references{1};
  std::string text;
};

namespace {
std::atomic<std::size_t> gLiveStrings{0};
}  // namespace

PlatformStringRef PlatformStringCreate(std::string_view text) {
  auto* storage = new PlatformStringStorage;
  storage->text.assign(text.data(), text.size());
  gLiveStrings.fetch_add(1, std::memory_order_relaxed);
  return storage;
}

PlatformStringRef PlatformStringRetain(PlatformStringRef string) {
  if (string) string->references.fetch_add(1, std::memory_order_relaxed);
  return string;
}

void PlatformStringRelease(PlatformStringRef string) {
  if (!string) return;
  if (string->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    delete string;
    gLiveStrings.fetch_sub(1, std::memory_order_relaxed);
  }
}

std::string PlatformStringText(PlatformStringRef string) {
  return string->text;
}

std::size_t PlatformStringLiveCount() {
  return gLiveStrings.load(std::memory_order_relaxed);
}

}  // namespace harkwell
