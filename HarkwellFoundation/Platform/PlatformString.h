// The string reference a hardware service hands out for a string property: a pointer-wide
// (8-byte) reference that the caller owns and must release. A null reference is a valid answer
// ("the platform has no value") and callers must handle it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#if defined(__APPLE__)
#include <CoreFoundation/CoreFoundation.h>
#endif

#include "HarkwellFoundation/HarkwellFoundationExport.h"

namespace harkwell {

#if defined(__APPLE__)
using PlatformStringRef = CFStringRef;
#else
struct PlatformStringStorage;
using PlatformStringRef = const PlatformStringStorage*;
#endif

static_assert(sizeof(PlatformStringRef) == sizeof(void*));

// A new reference (+1) holding a copy of `text`. The bytes are kept exactly, even when they are
// not valid UTF-8.
HARKWELL_EXPORT PlatformStringRef PlatformStringCreate(std::string_view text);
// Adds an owner; returns `string`. Null is allowed and returned as is.
HARKWELL_EXPORT PlatformStringRef PlatformStringRetain(PlatformStringRef string);
// Drops an owner; the last release frees the string. Null is allowed and ignored.
HARKWELL_EXPORT void PlatformStringRelease(PlatformStringRef string);
// A copy of the text. Must not be called with null.
HARKWELL_EXPORT std::string PlatformStringText(PlatformStringRef string);
// How many strings are alive in this process (for leak checks in tests).
HARKWELL_EXPORT std::size_t PlatformStringLiveCount();

// Owns one reference and releases it when destroyed.
class HARKWELL_EXPORT OwnedPlatformString {
 public:
  OwnedPlatformString() = default;
  explicit OwnedPlatformString(PlatformStringRef adopted) : string_(adopted) {}
  OwnedPlatformString(const OwnedPlatformString&) = delete;
  OwnedPlatformString& operator=(const OwnedPlatformString&) = delete;
  ~OwnedPlatformString() { PlatformStringRelease(string_); }

  PlatformStringRef get() const { return string_; }
  // The slot a service writes a new reference into; releases any reference held before.
  PlatformStringRef* slot() {
    PlatformStringRelease(string_);
    string_ = nullptr;
    return &string_;
  }

 private:
  PlatformStringRef string_ = nullptr;
};

}  // namespace harkwell
