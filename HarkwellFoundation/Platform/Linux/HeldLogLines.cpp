#include "HarkwellFoundation/Platform/Linux/HeldLogLines.h"

#include "HarkwellFoundation/Platform/SystemLog.h"

namespace harkwell {

HeldLogLines::HeldLogLines(std::string queueLabel)
    : queue_(DispatchQueue::createSerial(std::move(queueLabel))) {}

void HeldLogLines::log(std::string line) {
  MutexLock lock(mutex_);
  if (holding_) {
    held_.push_back(std::move(line));
    return;
  }
  queue_->async([queue = queue_, line = std::move(line)] { SystemLog(line); });
}

void HeldLogLines::writeHeldLines() {
  // Lines logged while these are written are held too, and written in the next round.
  for (;;) {
    std::vector<std::string> lines;
    {
      MutexLock lock(mutex_);
      if (!holding_) return;
      if (held_.empty()) {
        holding_ = false;
        return;
      }
      lines.swap(held_);
    }
    for (const std::string& line : lines) SystemLog(line);
  }
}

void HeldLogLines::queueHeldLines() {
  MutexLock lock(mutex_);
  if (!holding_) return;
  holding_ = false;
  for (std::string& line : held_) {
    queue_->async([queue = queue_, line = std::move(line)] { SystemLog(line); });
  }
  held_.clear();
}

}  // namespace harkwell
