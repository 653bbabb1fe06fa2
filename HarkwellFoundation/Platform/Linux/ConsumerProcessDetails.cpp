#include "HarkwellFoundation/Platform/Linux/ConsumerProcessDetails.h"

#include "HarkwellFoundation/Platform/Linux/ProcessDetails.h"

namespace harkwell {

void ConsumerProcessDetails::fill(std::vector<MediaDeviceConsumer>& consumers) {
  for (MediaDeviceConsumer& consumer : consumers) {
    fillOne(consumer);
    fill(consumer.feeds);
  }
}

void ConsumerProcessDetails::fillOne(MediaDeviceConsumer& consumer) {
  if (consumer.processID <= 0) return;
  auto [slot, added] = remembered_.try_emplace(consumer.processID);
  Details& details = slot->second;
  if (added) {
    details.read.processID = consumer.processID;
    FillProcessDetails(details.read, procRoot_);
  }
  details.usedThisRound = true;
  consumer.executablePath = details.read.executablePath;
  consumer.processName = details.read.processName;
  consumer.sandbox = details.read.sandbox;
  consumer.sandboxApplicationID = details.read.sandboxApplicationID;
}

void ConsumerProcessDetails::endRound() {
  for (auto it = remembered_.begin(); it != remembered_.end();) {
    if (!it->second.usedThisRound) {
      it = remembered_.erase(it);
    } else {
      it->second.usedThisRound = false;
      ++it;
    }
  }
}

}  // namespace harkwell
