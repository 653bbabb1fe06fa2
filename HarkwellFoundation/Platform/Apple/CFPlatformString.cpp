// Platform strings on Apple are CFStrings, the type CoreAudio and CoreMediaIO hand out.
//
// Bytes survive the trip through a CFString exactly: they are stored as escaped UTF-16
// (EscapedUTF16.h), so text that is not UTF-8 comes back as the same bytes, while a CFString
// from the platform reads as its UTF-8.
//
// Strings made here are allocated through a counting allocator, so PlatformStringLiveCount()
// counts the live allocations of those strings (CFStrings handed out by the platform are not
// counted). An immutable CFString keeps its characters in its own allocation, so this is one per
// live string, and it returns to its earlier value when all of them are released.
#include <CoreFoundation/CoreFoundation.h>

#include <atomic>
#include <cstdlib>
#include <vector>

#include "HarkwellFoundation/Platform/PlatformString.h"
#include "HarkwellFoundation/Platform/internal/EscapedUTF16.h"

namespace harkwell {
namespace {

std::atomic<std::ptrdiff_t> gLiveAllocations{0};

void* countedAllocate(CFIndex size, CFOptionFlags, void*) {
  void* memory = std::malloc(static_cast<std::size_t>(size));
  if (memory) gLiveAllocations.fetch_add(1, std::memory_order_relaxed);
  return memory;
}

void* countedReallocate(void* memory, CFIndex size, CFOptionFlags, void*) {
  return std::realloc(memory, static_cast<std::size_t>(size));
}

void countedDeallocate(void* memory, void*) {
  std::free(memory);
  gLiveAllocations.fetch_sub(1, std::memory_order_relaxed);
}

CFAllocatorRef countingAllocator() {
  // Made once and never released: strings may outlive any owner of it.
  static const CFAllocatorRef allocator = [] {
    CFAllocatorContext context{};
    context.allocate = &countedAllocate;
    context.reallocate = &countedReallocate;
    context.deallocate = &countedDeallocate;
    return CFAllocatorCreate(kCFAllocatorDefault, &context);
  }();
  return allocator;
}

}  // namespace

PlatformStringRef PlatformStringCreate(std::string_view text) {
  const std::vector<UniChar> units = EscapedUTF16FromBytes(text);
  return CFStringCreateWithCharacters(countingAllocator(), units.data(),
                                      static_cast<CFIndex>(units.size()));
}

PlatformStringRef PlatformStringRetain(PlatformStringRef string) {
  if (string) CFRetain(string);
  return string;
}

void PlatformStringRelease(PlatformStringRef string) {
  if (string) CFRelease(string);
}

std::string PlatformStringText(PlatformStringRef string) {
  std::vector<UniChar> units(static_cast<std::size_t>(CFStringGetLength(string)));
  CFStringGetCharacters(string, CFRangeMake(0, static_cast<CFIndex>(units.size())), units.data());
  return BytesFromEscapedUTF16(units);
}

std::size_t PlatformStringLiveCount() {
  const std::ptrdiff_t live = gLiveAllocations.load(std::memory_order_relaxed);
  return live > 0 ? static_cast<std::size_t>(live) : 0;
}

}  // namespace harkwell
