#include "tools/harkwell/MainLoopWait.h"

#include <atomic>
#include <chrono>
#include <memory>

#include "HarkwellFoundation/Platform/MainRunLoop.h"

namespace harkwell::cli {

void WaitForQueueServingMainLoop(DispatchQueue& queue) {
  auto passed = std::make_shared<std::atomic<bool>>(false);
  queue.async([passed] {
    passed->store(true);
    // An empty main-queue item wakes the loop, so it sees `passed` without waiting for a timer.
    DispatchQueue::main()->async([] {});
  });
  MainRunLoop& loop = MainRunLoop::shared();
  while (!loop.runUntil([&passed] { return passed->load(); }, std::chrono::seconds(60))) {
  }
}

}  // namespace harkwell::cli
