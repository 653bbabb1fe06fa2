// Strict UTF-8 decoding, the one place the library and the harkwell program read bytes as UTF-8.
// A sequence is well formed only as Unicode's table of well-formed byte sequences allows: no
// overlong forms, no surrogates (U+D800..U+DFFF), nothing above U+10FFFF and no sequence cut
// short by the end of the bytes or by a byte that does not continue it.
//
// Pure functions; any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace harkwell {

struct UTF8Sequence {
  char32_t codePoint = 0;
  std::size_t length = 0;  // in bytes, 1..4
};

// The well-formed sequence at the start of `bytes`, or nothing when `bytes` is empty or does not
// start with one. Callers that go on past an ill-formed sequence usually skip one byte and try
// again from the next.
std::optional<UTF8Sequence> DecodeUTF8(std::string_view bytes);

// Whether all of `bytes` is well-formed UTF-8 (the empty string is).
bool IsWellFormedUTF8(std::string_view bytes);

}  // namespace harkwell
