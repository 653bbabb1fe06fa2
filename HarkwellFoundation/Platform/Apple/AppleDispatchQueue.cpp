#include "HarkwellFoundation/Platform/Apple/AppleDispatchQueue.h"

#include <pthread.h>

#include <cstdlib>
#include <utility>

namespace harkwell {
namespace {

// The key under which every queue stores its identity; only its address matters.
constexpr char kIdentityKey = 0;

void freeIdentity(void* identity) {
  delete static_cast<char*>(identity);
}

}  // namespace

// One submission: the work and the queue it belongs to, the latter only as an identity for
// isCurrent() (never dereferenced, so the item may outlive the queue object).
struct AppleDispatchQueue::WorkItem {
  Work work;
  const DispatchQueue* queue;
};

AppleDispatchQueue::AppleDispatchQueue(std::string label, dispatch_queue_t queue, bool isMain)
    : DispatchQueue(std::move(label)), queue_(queue), isMain_(isMain) {
  if (!isMain_) {
    identity_ = new char(0);
    dispatch_queue_set_specific(queue_, &kIdentityKey, identity_, &freeIdentity);
  }
}

std::shared_ptr<AppleDispatchQueue> AppleDispatchQueue::createSerial(std::string label) {
  dispatch_queue_t queue = dispatch_queue_create(label.c_str(), DISPATCH_QUEUE_SERIAL);
  // Without a queue nothing of the library can work; libdispatch fails only when memory is gone.
  if (!queue) std::abort();
  return std::shared_ptr<AppleDispatchQueue>(
      new AppleDispatchQueue(std::move(label), queue, /*isMain=*/false));
}

std::shared_ptr<AppleDispatchQueue> AppleDispatchQueue::createMain() {
  return std::shared_ptr<AppleDispatchQueue>(new AppleDispatchQueue("com.harkwell.main-thread",
                                                                    dispatch_get_main_queue(),
                                                                    /*isMain=*/true));
}

AppleDispatchQueue::~AppleDispatchQueue() {
  // Work already submitted keeps the libdispatch queue alive until it has run, so a queue may be
  // released from inside its own work. The main queue is never released.
  if (!isMain_) dispatch_release(queue_);
}

void AppleDispatchQueue::async(Work work) {
  dispatch_async_f(queue_, new WorkItem{std::move(work), this}, &runWorkItem);
}

void AppleDispatchQueue::sync(Work work) {
  if (runsOnCallingThread()) {
    WorkScope scope(this);
    work();
    return;
  }
  WorkItem borrowed{std::move(work), this};
  dispatch_sync_f(queue_, &borrowed, &runBorrowedWork);
}

void AppleDispatchQueue::runWorkItem(void* item) {
  std::unique_ptr<WorkItem> owned(static_cast<WorkItem*>(item));
  {
    WorkScope scope(owned->queue);
    owned->work();
  }
  // The work (and whatever it holds, possibly the last reference to the queue) goes here.
}

void AppleDispatchQueue::runBorrowedWork(void* item) {
  auto* borrowed = static_cast<WorkItem*>(item);
  WorkScope scope(borrowed->queue);
  borrowed->work();
}

bool AppleDispatchQueue::runsOnCallingThread() const {
  if (isMain_) return IsMainThread();
  return dispatch_get_specific(&kIdentityKey) == identity_;
}

std::shared_ptr<DispatchQueue> DispatchQueue::createSerial(std::string label) {
  return AppleDispatchQueue::createSerial(std::move(label));
}

const std::shared_ptr<DispatchQueue>& DispatchQueue::main() {
  // Never destroyed: work may reach the main queue while the process exits.
  static const auto* mainQueue =
      new std::shared_ptr<DispatchQueue>(AppleDispatchQueue::createMain());
  return *mainQueue;
}

bool IsMainThread() {
  return pthread_main_np() != 0;
}

dispatch_queue_t NativeDispatchQueue(const DispatchQueue& queue) {
  const auto* apple = dynamic_cast<const AppleDispatchQueue*>(&queue);
  return apple ? apple->native() : nullptr;
}

}  // namespace harkwell
