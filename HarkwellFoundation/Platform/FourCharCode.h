// Four-character codes: four ASCII characters packed big-endian into 32 bits, the form in which the
// platforms name their property selectors, scopes and statuses ("dev#" is 0x64657623).
#pragma once

#include <cstdint>
#include <string>

#include "HarkwellFoundation/HarkwellFoundationExport.h"

namespace harkwell {

constexpr std::uint32_t FourCharCode(const char (&code)[5]) {
  return (static_cast<std::uint32_t>(static_cast<unsigned char>(code[0])) << 24) |
         (static_cast<std::uint32_t>(static_cast<unsigned char>(code[1])) << 16) |
         (static_cast<std::uint32_t>(static_cast<unsigned char>(code[2])) << 8) |
         static_cast<std::uint32_t>(static_cast<unsigned char>(code[3]));
}

// The four characters of a code, for diagnostics ("dev#"); bytes outside printable ASCII are
// written as '?'.
HARKWELL_EXPORT std::string FourCharCodeText(std::uint32_t code);

}  // namespace harkwell
