#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2LogText.h"

#include <cstdint>

#include "HarkwellFoundation/Platform/internal/UTF8.h"

namespace harkwell::v4l2 {
namespace {

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
    const auto sequence = DecodeUTF8(bytes);
    if (!sequence) {
      AppendEscaped(out, static_cast<std::uint8_t>(bytes.front()));
      bytes.remove_prefix(1);
      continue;
    }
    const char32_t codePoint = sequence->codePoint;
    const std::size_t length = sequence->length;
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
