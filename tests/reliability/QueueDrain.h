// Letting an event-handler queue finish its work while the main thread keeps its run loop going.
// Work on the queue may wait for the main thread: removing a device's last polling handler
// invalidates the polling timer there. A plain sync on the queue from the main thread would then
// wait forever, so the reliability suites wait through this instead.
//
// Main thread only (the run loop's own rule).
#pragma once

#include <chrono>
#include <memory>

#include "HarkwellFoundation/Platform/DispatchQueue.h"

namespace harkwell::testing {

// First fires what is due on the main run loop (timers whose time the test has moved past queue
// their work on `queue`), then returns once everything queued on the serial `queue` has run,
// serving the main run loop meanwhile. False when the deadline passed first.
bool DrainQueueServingMainThread(const std::shared_ptr<DispatchQueue>& queue,
                                 std::chrono::milliseconds deadline = std::chrono::seconds(60));

}  // namespace harkwell::testing
