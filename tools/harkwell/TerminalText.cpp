#include "tools/harkwell/TerminalText.h"

#include <cstdint>
#include <cstdio>
#include <optional>

namespace harkwell::cli {
namespace {

struct DecodedCodePoint {
  char32_t value;
  std::size_t length;
};

// The code point at the start of `text`, or empty when the bytes there are not well-formed
// UTF-8 (overlong forms, surrogates and values past U+10FFFF included).
std::optional<DecodedCodePoint> DecodeUtf8(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t lead = byte(0);
  if (lead < 0x80) return DecodedCodePoint{lead, 1};
  std::size_t length;
  char32_t value;
  char32_t minimum;
  if ((lead & 0xE0) == 0xC0) {
    length = 2, value = lead & 0x1F, minimum = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, value = lead & 0x0F, minimum = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, value = lead & 0x07, minimum = 0x10000;
  } else {
    return std::nullopt;
  }
  if (text.size() < length) return std::nullopt;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return std::nullopt;
    value = (value << 6) | (byte(i) & 0x3F);
  }
  if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
    return std::nullopt;
  }
  return DecodedCodePoint{value, length};
}

bool IsInvisibleFormatting(char32_t value) {
  return (value >= 0x80 && value <= 0x9F) || (value >= 0x202A && value <= 0x202E) ||
         (value >= 0x2066 && value <= 0x2069);
}

void AppendHex(std::string& out, const char* format, unsigned value) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, format, value);
  out += buffer;
}

}  // namespace

std::string EscapeForTerminal(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    const auto decoded = DecodeUtf8(text.substr(i));
    if (!decoded) {
      AppendHex(out, "\\x%02X", static_cast<std::uint8_t>(text[i]));
      ++i;
      continue;
    }
    const char32_t value = decoded->value;
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
