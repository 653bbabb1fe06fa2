// `harkwell model [--json]`: the computer's model identifier. It reads no devices, so the device
// source options are accepted and have no effect.
#include "HarkwellFoundation/Host/ComputerModelIdentifier.h"
#include "tools/harkwell/Commands.h"
#include "tools/harkwell/DeviceJson.h"
#include "tools/harkwell/TerminalText.h"

namespace harkwell::cli {

int RunModel(const Options& options, CommandContext& context) {
  const auto identifier = ComputerModelIdentifier();
  if (options.json) {
    Json object = Json::object();
    object["modelIdentifier"] = identifier ? Json(*identifier) : Json(nullptr);
    context.out.writeLine(DumpLine(object));
    return identifier ? 0 : 1;
  }
  if (!identifier) {
    context.err.writeLine("harkwell: this computer's model identifier cannot be read");
    return 1;
  }
  context.out.writeLine(EscapeForTerminal(*identifier));
  return 0;
}

}  // namespace harkwell::cli
