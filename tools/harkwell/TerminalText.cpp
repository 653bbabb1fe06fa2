#include "tools/harkwell/TerminalText.h"

#include <cstdint>
#include <cstdio>

#include "HarkwellFoundation/Platform/internal/UTF8.h"

namespace harkwell::cli {
namespace {

void AppendHex(std::string& out, const char* format, unsigned value) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, format, value);
  out += buffer;
}

}  // namespace

bool IsInvisibleFormatting(char32_t value) {
  return (value >= 0x80 && value <= 0x9F) || (value >= 0x202A && value <= 0x202E) ||
         (value >= 0x2066 && value <= 0x2069);
}

std::string EscapeForTerminal(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    const auto decoded = DecodeUTF8(text.substr(i));
    if (!decoded) {
      AppendHex(out, "\\x%02X", static_cast<std::uint8_t>(text[i]));
      ++i;
      continue;
    }
    const char32_t value = decoded->codePoint;
    if (value == '\\') {
      out += "\\\\";
    } else if (value == '\t') {
      out += "\\t";
    } else if (value == '\n') {
      out += "\\n";
    } else if (value == '\r') {
      out += "\\r";
    } else if (value == 0x1B) {
      out += "\\e";
    } else if (value < 0x20 || value == 0x7F) {
      AppendHex(out, "\\x%02X", static_cast<unsigned>(value));
    } else if (IsInvisibleFormatting(value)) {
      AppendHex(out, "\\u%04X", static_cast<unsigned>(value));
    } else {
      out.append(text.substr(i, decoded->length));
    }
    i += decoded->length;
  }
  return out;
}

std::size_t DisplayWidth(std::string_view text) {
  std::size_t width = 0;
  for (const char c : text) {
    // Count every byte that does not continue a multi-byte sequence.
    if ((static_cast<std::uint8_t>(c) & 0xC0) != 0x80) ++width;
  }
  return width;
}

}  // namespace harkwell::cli
