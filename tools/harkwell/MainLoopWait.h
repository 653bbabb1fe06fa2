// Waiting on the main thread for a dispatch queue without blocking the main run loop: the queue's
// work may itself wait for the main thread (an observer invalidates its polling timer there), so
// the main thread keeps serving MainRunLoop while it waits.
#pragma once

#include "HarkwellFoundation/Platform/DispatchQueue.h"

namespace harkwell::cli {

// Returns once every item queued on `queue` before the call has run, running the main run loop's
// work (main-queue items, timers) in the meantime. Main thread only.
void WaitForQueueServingMainLoop(DispatchQueue& queue);

}  // namespace harkwell::cli
