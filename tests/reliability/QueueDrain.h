// Controlling an event-handler queue from a test's main thread: letting it finish its work while
// the main thread keeps its run loop going, and holding it still while the test changes things.
// Work on the queue may wait for the main thread: removing a device's last polling handler
// invalidates the polling timer there. A plain sync on the queue from the main thread would then
// wait forever, so the reliability suites wait through this instead.
//
// Main thread only (the run loop's own rule).
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "HarkwellFoundation/Platform/DispatchQueue.h"

namespace harkwell::testing {

// First fires what is due on the main run loop (timers whose time the test has moved past queue
// their work on `queue`), then returns once everything queued on the serial `queue` has run,
// serving the main run loop meanwhile. False when the deadline passed first.
bool DrainQueueServingMainThread(const std::shared_ptr<DispatchQueue>& queue,
                                 std::chrono::milliseconds deadline = std::chrono::seconds(60));

// Runs `work` on this thread while `queue` is held still, so the queue starts on anything `work`
// queued only once `work` has returned. Several changes made in one go then reach the queue's
// readers all at once and in the same order on every run. `work` must not wait for the queue.
void RunWithQueueParked(const std::shared_ptr<DispatchQueue>& queue,
                        const std::function<void()>& work);

}  // namespace harkwell::testing
