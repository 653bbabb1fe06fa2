// `harkwell list [--json]`: the connected devices as a table, or as one JSON array, audio before
// video and each by ID, each with the processes that use it.
#include <unistd.h>

#include "tools/harkwell/Commands.h"
#include "tools/harkwell/ConsumerJson.h"
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
  SortForDisplay(devices);
  const auto consumers = ConsumersOfDevicesNow(devices);
  ReleaseServices();

  if (options.json) {
    Json array = Json::array();
    for (std::size_t i = 0; i < devices.size(); ++i) {
      array.push_back(ListedDeviceToJson(devices[i], consumers[i]));
    }
    context.out.writeLine(DumpLine(array));
  } else if (devices.empty()) {
    // A script reading the table gets no lines; a person reads why on stderr.
    context.err.writeLine("harkwell: no devices connected");
  } else {
    context.out.write(
        RenderDeviceTable(devices, context.painter, isatty(context.out.fd()) == 1, consumers));
  }
  return 0;
}

}  // namespace harkwell::cli
