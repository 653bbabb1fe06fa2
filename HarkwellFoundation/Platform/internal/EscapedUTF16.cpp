#include "HarkwellFoundation/Platform/internal/EscapedUTF16.h"

#include "HarkwellFoundation/Platform/internal/UTF8.h"

namespace harkwell {
namespace {

constexpr std::uint16_t kEscapeBase = 0xDC00;
constexpr std::uint16_t kFirstEscape = 0xDC80;
constexpr std::uint16_t kLastEscape = 0xDCFF;
constexpr char32_t kReplacementCharacter = 0xFFFD;

void appendUTF16(std::vector<std::uint16_t>& units, char32_t codePoint) {
  if (codePoint < 0x10000) {
    units.push_back(static_cast<std::uint16_t>(codePoint));
    return;
  }
  const char32_t offset = codePoint - 0x10000;
  units.push_back(static_cast<std::uint16_t>(0xD800 + (offset >> 10)));
  units.push_back(static_cast<std::uint16_t>(0xDC00 + (offset & 0x3FF)));
}

void appendUTF8(std::string& bytes, char32_t codePoint) {
  auto put = [&bytes](char32_t value) { bytes.push_back(static_cast<char>(value)); };
  if (codePoint < 0x80) {
    put(codePoint);
  } else if (codePoint < 0x800) {
    put(0xC0 | (codePoint >> 6));
    put(0x80 | (codePoint & 0x3F));
  } else if (codePoint < 0x10000) {
    put(0xE0 | (codePoint >> 12));
    put(0x80 | ((codePoint >> 6) & 0x3F));
    put(0x80 | (codePoint & 0x3F));
  } else {
    put(0xF0 | (codePoint >> 18));
    put(0x80 | ((codePoint >> 12) & 0x3F));
    put(0x80 | ((codePoint >> 6) & 0x3F));
    put(0x80 | (codePoint & 0x3F));
  }
}

bool isHighSurrogate(std::uint16_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}

bool isLowSurrogate(std::uint16_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}

}  // namespace

std::vector<std::uint16_t> EscapedUTF16FromBytes(std::string_view bytes) {
  std::vector<std::uint16_t> units;
  units.reserve(bytes.size());
  while (!bytes.empty()) {
    const auto decoded = DecodeUTF8(bytes);
    if (!decoded) {
      // Only the lead byte is escaped; the next byte gets its own chance to start a sequence.
      units.push_back(
          static_cast<std::uint16_t>(kEscapeBase + static_cast<unsigned char>(bytes[0])));
      bytes.remove_prefix(1);
      continue;
    }
    appendUTF16(units, decoded->codePoint);
    bytes.remove_prefix(decoded->length);
  }
  return units;
}

std::string BytesFromEscapedUTF16(std::span<const std::uint16_t> units) {
  std::string bytes;
  bytes.reserve(units.size());
  for (std::size_t i = 0; i < units.size(); ++i) {
    const std::uint16_t unit = units[i];
    // A pair comes first: its low half may lie in the escape range and is still a code point.
    if (isHighSurrogate(unit) && i + 1 < units.size() && isLowSurrogate(units[i + 1])) {
      const char32_t high = unit - 0xD800u;
      const char32_t low = units[i + 1] - 0xDC00u;
      appendUTF8(bytes, 0x10000 + (high << 10) + low);
      ++i;
    } else if (unit >= kFirstEscape && unit <= kLastEscape) {
      bytes.push_back(static_cast<char>(unit - kEscapeBase));
    } else if (isHighSurrogate(unit) || isLowSurrogate(unit)) {
      appendUTF8(bytes, kReplacementCharacter);
    } else {
      appendUTF8(bytes, unit);
    }
  }
  return bytes;
}

}  // namespace harkwell
