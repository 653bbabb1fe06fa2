// The /proc details of audio consumers (executable, process name, sandbox; ProcessDetails.h), read
// once per process while it keeps appearing: a sound server reports many events for the same few
// streams, and /proc need not be read again for each. A process that leaves every consumer list is
// forgotten at the end of that round, so a PID the kernel gives to a new process later is read
// afresh.
//
// Not thread-safe: one service's server thread uses it, one round at a time.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"

namespace harkwell {

class ConsumerProcessDetails {
 public:
  explicit ConsumerProcessDetails(std::string procRoot = "/proc")
      : procRoot_(std::move(procRoot)) {}

  // Fills the details of each consumer with a process ID, and of those it feeds.
  void fill(std::vector<MediaDeviceConsumer>& consumers);
  // Ends a round: forgets every process that no fill() since the last round named.
  void endRound();

  // How many processes are remembered (for tests).
  std::size_t rememberedCount() const { return remembered_.size(); }

 private:
  struct Details {
    MediaDeviceConsumer read;  // only the /proc fields are used
    bool usedThisRound = false;
  };

  void fillOne(MediaDeviceConsumer& consumer);

  std::string procRoot_;
  std::map<std::int32_t, Details> remembered_;
};

}  // namespace harkwell
