// A one-off look at the connected devices (and who uses them), for the commands that do not watch.
#include "HarkwellFoundation/Consumers/MediaDeviceConsumers.h"
#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "HarkwellFoundation/Platform/SystemLog.h"
#include "tools/harkwell/Commands.h"
#include "tools/harkwell/MainLoopWait.h"

namespace harkwell::cli {

std::vector<MediaDevice> ConnectedDevicesNow() {
  auto queue = DispatchQueue::createSerial("com.harkwell.cli.list");
  auto controller = MediaDeviceController::create(queue);
  controller->setObserveDevices(true);
  // The observers' cache fills and the initial discovery were queued by the switch; once the queue
  // has run them, the caches hold every device present.
  WaitForQueueServingMainLoop(*queue);
  auto devices = controller->connectedDevices();
  controller->setObserveDevices(false);
  WaitForQueueServingMainLoop(*queue);
  return devices;
}

std::vector<std::vector<MediaDeviceConsumer>> ConsumersOfDevicesNow(
    const std::vector<MediaDevice>& devices) {
  std::vector<std::vector<MediaDeviceConsumer>> consumers;
  consumers.reserve(devices.size());
  for (const auto& device : devices) {
    consumers.push_back(
        MediaDeviceConsumersForDevice(device).value_or(std::vector<MediaDeviceConsumer>{}));
  }
  return consumers;
}

bool AllSourcesAnswered(const InstalledServices& services, LineWriter& err) {
  if (services.unreachableSource) {
    err.writeLine("harkwell: " + *services.unreachableSource);
    return false;
  }
  LogStartupLines(services);
  return true;
}

void LogStartupLines(const InstalledServices& services) {
  for (const auto& line : services.startupLog) SystemLog(line);
}

void ReleaseServices() {
  InstallAudioHardwareService(SimulatedAudioHardwareService::create());
  InstallVideoHardwareService(SimulatedVideoHardwareService::create());
}

}  // namespace harkwell::cli
