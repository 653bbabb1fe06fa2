#include "HarkwellFoundation/Platform/internal/UTF8.h"

namespace harkwell {
namespace {

bool inRange(unsigned char byte, unsigned char low, unsigned char high) {
  return byte >= low && byte <= high;
}

}  // namespace

// By the ranges of Unicode's table of well-formed byte sequences: the lead byte gives the length,
// the second byte's range depends on the lead (which is what rules out overlong forms, surrogates
// and values above U+10FFFF), and every later byte is 80..BF.
std::optional<UTF8Sequence> DecodeUTF8(std::string_view bytes) {
  if (bytes.empty()) return std::nullopt;
  const auto lead = static_cast<unsigned char>(bytes[0]);
  if (lead < 0x80) return UTF8Sequence{lead, 1};
  std::size_t length;
  unsigned char secondLow = 0x80;
  unsigned char secondHigh = 0xBF;
  char32_t codePoint;
  if (inRange(lead, 0xC2, 0xDF)) {
    length = 2, codePoint = lead & 0x1F;
  } else if (inRange(lead, 0xE0, 0xEF)) {
    length = 3, codePoint = lead & 0x0F;
    if (lead == 0xE0) secondLow = 0xA0;
    if (lead == 0xED) secondHigh = 0x9F;
  } else if (inRange(lead, 0xF0, 0xF4)) {
    length = 4, codePoint = lead & 0x07;
    if (lead == 0xF0) secondLow = 0x90;
    if (lead == 0xF4) secondHigh = 0x8F;
  } else {
    return std::nullopt;
  }
  if (bytes.size() < length) return std::nullopt;
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(bytes[i]);
    const bool fits = i == 1 ? inRange(next, secondLow, secondHigh) : inRange(next, 0x80, 0xBF);
    if (!fits) return std::nullopt;
    codePoint = (codePoint << 6) | (next & 0x3F);
  }
  return UTF8Sequence{codePoint, length};
}

bool IsWellFormedUTF8(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto sequence = DecodeUTF8(bytes);
    if (!sequence) return false;
    bytes.remove_prefix(sequence->length);
  }
  return true;
}

}  // namespace harkwell
