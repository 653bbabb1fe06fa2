// Byte strings kept in UTF-16 without loss. Where the platform's strings are UTF-16 (CFString on
// Apple), a platform string made from bytes must give back exactly those bytes, even when they
// are not UTF-8. Well-formed UTF-8 converts to its code points as usual; each byte that is not
// part of a well-formed sequence becomes the lone low surrogate U+DC00 + byte (U+DC80..U+DCFF),
// which no well-formed UTF-8 can produce, and turns back into that byte.
//
// Pure functions; any thread.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace harkwell {

std::vector<std::uint16_t> EscapedUTF16FromBytes(std::string_view bytes);

// UTF-8 for the code units, escapes turned back into their bytes. A surrogate that is neither
// half of a pair nor an escape becomes U+FFFD.
std::string BytesFromEscapedUTF16(std::span<const std::uint16_t> units);

}  // namespace harkwell
