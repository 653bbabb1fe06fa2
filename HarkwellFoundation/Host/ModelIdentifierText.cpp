#include <cstdint>

#include "HarkwellFoundation/Host/ModelIdentifierSources.h"

namespace harkwell {
namespace {

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isWellFormedUTF8(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    std::size_t length;
    std::uint32_t minimum;
    std::uint32_t codePoint;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2, minimum = 0x80, codePoint = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, minimum = 0x800, codePoint = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, minimum = 0x10000, codePoint = lead & 0x07;
    } else {
      return false;
    }
    if (i + length > text.size()) return false;
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      codePoint = (codePoint << 6) | (next & 0x3F);
    }
    if (codePoint < minimum || codePoint > 0x10FFFF ||
        (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
      return false;
    }
    i += length;
  }
  return true;
}

}  // namespace

std::optional<std::string> ModelIdentifierText(std::string_view bytes) {
  const std::string_view text = bytes.substr(0, bytes.find('\0'));
  if (!isWellFormedUTF8(text)) return std::nullopt;
  return std::string(text);
}

}  // namespace harkwell
