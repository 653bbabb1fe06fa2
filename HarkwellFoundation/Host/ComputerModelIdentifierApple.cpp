#include <sys/sysctl.h>

#include "HarkwellFoundation/Host/ComputerModelIdentifier.h"
#include "HarkwellFoundation/Host/internal/ModelIdentifierSources.h"

namespace harkwell {

std::optional<std::string> ComputerModelIdentifier() {
  return ComputerModelIdentifierFromSysctl(&::sysctl);
}

}  // namespace harkwell
