#include "HarkwellFoundation/Host/ComputerModelIdentifier.h"
#include "HarkwellFoundation/Host/ModelIdentifierSources.h"

namespace harkwell {

std::optional<std::string> ComputerModelIdentifier() {
  return ComputerModelIdentifierFromLinuxFirmware("/");
}

}  // namespace harkwell
