// `harkwell list [--json]`: the connected devices as a table, or as one JSON array.
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
  const auto devices = ConnectedDevicesNow();
  ReleaseServices();

  if (options.json) {
    Json array = Json::array();
    for (const auto& device : devices) array.push_back(DeviceToJson(device));
    context.out.writeLine(DumpLine(array));
  } else {
    context.out.write(RenderDeviceTable(devices, context.painter));
  }
  return 0;
}

}  // namespace harkwell::cli
