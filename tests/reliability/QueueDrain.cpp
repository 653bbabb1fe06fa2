#include "tests/reliability/QueueDrain.h"

#include <atomic>

#include "HarkwellFoundation/Platform/MainRunLoop.h"

namespace harkwell::testing {

bool DrainQueueServingMainThread(const std::shared_ptr<DispatchQueue>& queue,
                                 std::chrono::milliseconds deadline) {
  MainRunLoop& loop = MainRunLoop::shared();
  loop.performDueWork();
  auto drained = std::make_shared<std::atomic<bool>>(false);
  queue->async([drained] {
    drained->store(true);
    // Wakes the loop at once instead of at its next polling slice.
    DispatchQueue::main()->async([] {});
  });
  return loop.runUntil([&drained] { return drained->load(); }, deadline);
}

}  // namespace harkwell::testing
