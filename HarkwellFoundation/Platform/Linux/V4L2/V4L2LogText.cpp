#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2LogText.h"

#include <cstdint>

namespace harkwell::v4l2 {
namespace {

// The length of the well-formed UTF-8 sequence at the start of `bytes` and its code point, or 0
// when the first byte does not start one (overlong forms and surrogates are not well formed).
std::size_t DecodeUtf8(std::string_view bytes, char32_t* codePoint) {
  const auto byteAt = [&](std::size_t i) { return static_cast<std::uint8_t>(bytes[i]); };
  const std::uint8_t lead = byteAt(0);
  std::size_t length;
  char32_t value;
  char32_t smallest;
  if (lead < 0x80) {
    *codePoint = lead;
    return 1;
  } else if ((lead & 0xE0) == 0xC0) {
    length = 2, value = lead & 0x1F, smallest = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, value = lead & 0x0F, smallest = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, value = lead & 0x07, smallest = 0x10000;
  } else {
    return 0;
  }
  if (bytes.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byteAt(i) & 0xC0) != 0x80) return 0;
    value = (value << 6) | (byteAt(i) & 0x3F);
  }
  if (value < smallest || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
  *codePoint = value;
  return length;
}

bool IsPrintable(char32_t codePoint) {
  if (codePoint < 0x20 || codePoint == 0x7F) return false;
  if (codePoint >= 0x80 && codePoint <= 0x9F) return false;
  return codePoint != 0x2028 && codePoint != 0x2029;
}

void AppendEscaped(std::string& out, std::uint8_t byte) {
  constexpr char kHex[] = "0123456789abcdef";
  out += "\\x";
  out += kHex[byte >> 4];
  out += kHex[byte & 0x0F];
}

}  // namespace

std::string PrintableForLog(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  while (!bytes.empty()) {
    char32_t codePoint = 0;
    const std::size_t length = DecodeUtf8(bytes, &codePoint);
    if (length == 0) {
      AppendEscaped(out, static_cast<std::uint8_t>(bytes.front()));
      bytes.remove_prefix(1);
      continue;
    }
    if (codePoint == '\\') {
      out += "\\\\";
    } else if (IsPrintable(codePoint)) {
      out.append(bytes.substr(0, length));
    } else {
      for (std::size_t i = 0; i < length; ++i) {
        AppendEscaped(out, static_cast<std::uint8_t>(bytes[i]));
      }
    }
    bytes.remove_prefix(length);
  }
  return out;
}

std::string QuotedForLog(std::string_view bytes) {
  std::string quoted = "\"";
  quoted += PrintableForLog(bytes);
  quoted += '"';
  return quoted;
}

}  // namespace harkwell::v4l2
