#include "HarkwellFoundation/Host/internal/ModelIdentifierSources.h"
#include "HarkwellFoundation/Platform/internal/UTF8.h"

namespace harkwell {

std::optional<std::string> ModelIdentifierText(std::string_view bytes) {
  const std::string_view text = bytes.substr(0, bytes.find('\0'));
  if (!IsWellFormedUTF8(text)) return std::nullopt;
  return std::string(text);
}

}  // namespace harkwell
