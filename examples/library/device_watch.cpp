// device-watch: prints every microphone, speaker and camera event, and who uses each device,
// until Ctrl-C or --duration.
//   device-watch [--simulated] [--duration SECONDS]
// --simulated watches one in-memory microphone instead of the computer's own devices.
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "HarkwellFoundation/HarkwellFoundation.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"

namespace {

volatile std::sig_atomic_t gInterrupted = 0;
extern "C" void Interrupt(int) {
  gInterrupted = 1;
}

void Print(harkwell::MediaDeviceEvent event, const harkwell::MediaDevice& device) {
  std::cout << event << "  " << device.mediaType << " " << device.deviceID << "  " << device.name
            << (device.isRunning ? "  running" : "") << std::endl;
}

// Each consumer is a process: its name as it announced it (or as /proc gives it) and its ID.
void PrintConsumers(const harkwell::MediaDevice& device,
                    const std::vector<harkwell::MediaDeviceConsumer>& consumers) {
  std::cout << "Consumers  " << device.mediaType << " " << device.deviceID << "  " << device.name
            << "  used by";
  if (consumers.empty()) std::cout << " nobody";
  for (const auto& consumer : consumers) {
    std::cout << "  " << consumer.applicationName.value_or(consumer.processName.value_or("?"))
              << " (pid " << consumer.processID << ", " << consumer.kind << ")";
  }
  std::cout << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
  bool simulated = false;
  std::chrono::milliseconds duration = std::chrono::hours(24 * 365);  // "until Ctrl-C"
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--simulated") {
      simulated = true;
    } else if (argument == "--duration" && i + 1 < argc) {
      duration = std::chrono::milliseconds(std::llround(std::atof(argv[++i]) * 1000));
    } else {
      std::cerr << "usage: device-watch [--simulated] [--duration SECONDS]\n";
      return 2;
    }
  }

  // 1. Choose the device sources before the first controller exists; without this the
  //    computer's own are used (PulseAudio or PipeWire and V4L2 on Linux).
  std::shared_ptr<harkwell::SimulatedAudioHardwareService> microphones;
  if (simulated) {
    microphones = harkwell::SimulatedAudioHardwareService::create();
    harkwell::SimulatedAudioDevice microphone;
    microphone.deviceID = 100;
    microphone.name = "Simulated Microphone";
    microphone.deviceUID = "simulated-mic";
    microphone.modelUID = "0000:0001";
    microphones->addDevice(microphone);
    harkwell::InstallAudioHardwareService(microphones);
    harkwell::InstallVideoHardwareService(harkwell::SimulatedVideoHardwareService::create());
  }

  // 2. The controller calls back on its own serial queue, never on the main thread. This program
  //    hands each event to the main thread, as a GUI must before it touches its widgets.
  auto queue = harkwell::DispatchQueue::createSerial("com.example.device-watch");
  auto controller = harkwell::MediaDeviceController::create(queue);
  controller->setDeviceEventHandler(
      [](harkwell::MediaDeviceEvent event, const harkwell::MediaDevice& device) {
        harkwell::DispatchQueue::main()->async([event, device] { Print(event, device); });
      });
  // Optional: who uses each device, told whenever that changes (first right after the device's
  // discovery when someone already does). Without this handler nothing about consumers is read.
  controller->setDeviceConsumersHandler(
      [](const harkwell::MediaDevice& device,
         const std::vector<harkwell::MediaDeviceConsumer>& consumers) {
        harkwell::DispatchQueue::main()->async(
            [device, consumers] { PrintConsumers(device, consumers); });
      });
  controller->setObserveDevices(true);
  if (microphones) {
    // Queued behind the initial discovery: a voice recorder starts recording from the microphone.
    queue->async([microphones] {
      microphones->setDeviceRunning(100, true);
      microphones->setDeviceConsumers(100, {{.processID = 4242,
                                             .isProcessIDVerified = true,
                                             .processName = "arecord",
                                             .applicationName = "Voice Recorder"}});
    });
  }

  // 3. The main thread runs the main run loop: it delivers the main-queue work above and fires
  //    the polling timer. It must never block on `queue` (no queue->sync() here): the queue may
  //    itself wait for the main thread.
  std::signal(SIGINT, Interrupt);
  std::signal(SIGTERM, Interrupt);
  auto& mainLoop = harkwell::MainRunLoop::shared();
  mainLoop.runUntil([] { return gInterrupted != 0; }, duration);

  // 4. Shut down: switch observation off, drop the callbacks, and keep the main loop running
  //    until the queue has finished what it had started.
  controller->setObserveDevices(false);
  controller->setDeviceEventHandler(nullptr);
  controller->setDeviceConsumersHandler(nullptr);
  auto finished = std::make_shared<std::atomic<bool>>(false);
  queue->async([finished] {
    *finished = true;
    harkwell::DispatchQueue::main()->async([] {});  // wakes the main loop
  });
  while (!mainLoop.runUntil([finished] { return finished->load(); }, std::chrono::seconds(1))) {
  }
  return 0;
}
