// The log lines of a connection to a sound server, written in order and never on the server
// library's thread nor with its lock held. Until the connection's owner has waited for the first
// attempt to end, lines are held back, so that the owner writes them on its own thread before its
// create() returns (its caller then finds them logged); afterwards they go to a serial queue of
// their own.
//
// Any thread may log, under any lock. A line keeps the queue alive until it is written, so
// dropping this object never waits for the log sink.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/Mutex.h"

namespace harkwell {

class HeldLogLines {
 public:
  explicit HeldLogLines(std::string queueLabel);
  HeldLogLines(const HeldLogLines&) = delete;
  HeldLogLines& operator=(const HeldLogLines&) = delete;

  // Writes `line` later, after every line logged before it.
  void log(std::string line);
  // Writes the held lines on the calling thread, which must hold no lock a log sink could wait
  // for; later lines go to the queue.
  void writeHeldLines();
  // Sends the held lines to the queue, and any later ones (for an owner that never waited).
  void queueHeldLines();

 private:
  std::shared_ptr<DispatchQueue> queue_;
  Mutex mutex_;
  // Lines not yet queued, and whether new lines join them.
  std::vector<std::string> held_ HARKWELL_GUARDED_BY(mutex_);
  bool holding_ HARKWELL_GUARDED_BY(mutex_) = true;
};

}  // namespace harkwell
