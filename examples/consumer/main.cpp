// A program built against an installed HarkwellFoundation: it lists the connected devices.
#include <iostream>

#include "HarkwellFoundation/HarkwellFoundation.h"

int main() {
  auto queue = harkwell::DispatchQueue::createSerial("com.example.consumer");
  auto controller = harkwell::MediaDeviceController::create(queue);
  controller->setObserveDevices(true);
  queue->sync([] {});  // the initial discovery has run once the queue gets here
  for (const auto& device : controller->connectedDevices()) std::cout << device << "\n";
  controller->setObserveDevices(false);
  std::cout << "model: " << harkwell::ComputerModelIdentifier().value_or("unknown") << "\n";
}
