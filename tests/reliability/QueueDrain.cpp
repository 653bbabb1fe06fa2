#include "tests/reliability/QueueDrain.h"

#include <atomic>
#include <future>

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

void RunWithQueueParked(const std::shared_ptr<DispatchQueue>& queue,
                        const std::function<void()>& work) {
  auto parked = std::make_shared<std::promise<void>>();
  auto release = std::make_shared<std::promise<void>>();
  queue->async([parked, released = release->get_future().share()] {
    parked->set_value();
    released.wait();
  });
  parked->get_future().wait();
  work();
  release->set_value();
}

}  // namespace harkwell::testing
