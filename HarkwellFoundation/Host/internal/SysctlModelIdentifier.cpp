#include <memory>

#include "HarkwellFoundation/Host/internal/ModelIdentifierSources.h"

namespace harkwell {

std::optional<std::string> ComputerModelIdentifierFromSysctl(const SysctlFunction& sysctl) {
  // CTL_HW and HW_MODEL.
  int name[2] = {6, 2};
  std::size_t size = 0;
  if (sysctl(name, 2, nullptr, &size, nullptr, 0) != 0) return std::nullopt;
  auto buffer = std::make_unique<char[]>(size);
  if (sysctl(name, 2, buffer.get(), &size, nullptr, 0) != 0) return std::nullopt;
  // The value is read up to its first zero byte, never past the buffer.
  return ModelIdentifierText(std::string_view(buffer.get(), size));
}

}  // namespace harkwell
