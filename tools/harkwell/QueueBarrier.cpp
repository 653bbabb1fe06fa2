#include "tools/harkwell/QueueBarrier.h"

namespace harkwell::cli {

QueueBarrier::QueueBarrier(std::shared_ptr<DispatchQueue> queue)
    : queue_(std::move(queue)), pipe_(std::make_shared<WakePipe>()) {}

void QueueBarrier::post() {
  pending_ = true;
  queue_->async([pipe = pipe_] { pipe->wake(); });
}

void QueueBarrier::collect() {
  pipe_->drain();
  pending_ = false;
}

}  // namespace harkwell::cli
