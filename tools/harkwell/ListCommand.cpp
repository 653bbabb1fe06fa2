// `harkwell list [--json]`: the connected devices as a table, or as one JSON array, audio before
// video and each by ID.
#include <unistd.h>

#include "tools/harkwell/Commands.h"
#include "tools/harkwell/DeviceJson.h"
#include "tools/harkwell/DeviceTable.h"
#include "tools/harkwell/ServiceSelection.h"

namespace harkwell::cli {

int RunList(const Options& options, CommandContext& context) {
  auto setup = InstallServices(options.services);
  if (!setup.services) {
    context.err.writeLine("harkwell: " + setup.error);
    return 1;
  }
  if (!AllSourcesAnswered(*setup.services, context.err)) {
    ReleaseServices();
    return kUnreachableSourceExitCode;
  }
  auto devices = ConnectedDevicesNow();
  ReleaseServices();
  SortForDisplay(devices);

  if (options.json) {
    Json array = Json::array();
    for (const auto& device : devices) array.push_back(DeviceToJson(device));
    context.out.writeLine(DumpLine(array));
  } else if (devices.empty()) {
    // A script reading the table gets no lines; a person reads why on stderr.
    context.err.writeLine("harkwell: no devices connected");
  } else {
    context.out.write(RenderDeviceTable(devices, context.painter, isatty(context.out.fd()) == 1));
  }
  return 0;
}

}  // namespace harkwell::cli
