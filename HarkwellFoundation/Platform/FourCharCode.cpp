#include "HarkwellFoundation/Platform/FourCharCode.h"

namespace harkwell {

std::string FourCharCodeText(std::uint32_t code) {
  std::string text(4, '?');
  for (int i = 0; i < 4; ++i) {
    const auto byte = static_cast<unsigned char>(code >> (24 - 8 * i));
    if (byte >= 0x20 && byte < 0x7F) text[i] = static_cast<char>(byte);
  }
  return text;
}

}  // namespace harkwell
