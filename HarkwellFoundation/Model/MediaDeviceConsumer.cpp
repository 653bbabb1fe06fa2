#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"

#include "HarkwellFoundation/Model/internal/PrintOptionalText.h"

#include <algorithm>

namespace harkwell {

std::ostream& operator<<(std::ostream& out, const MediaDeviceConsumer& consumer) {
  out << "MediaDeviceConsumer(processID: " << consumer.processID
      << ", isProcessIDVerified: " << (consumer.isProcessIDVerified ? "true" : "false")
      << ", executablePath: ";
  PrintOptionalText(out, consumer.executablePath);
  out << ", processName: ";
  PrintOptionalText(out, consumer.processName);
  out << ", applicationName: ";
  PrintOptionalText(out, consumer.applicationName);
  out << ", applicationID: ";
  PrintOptionalText(out, consumer.applicationID);
  out << ", sandbox: " << consumer.sandbox << ", sandboxApplicationID: ";
  PrintOptionalText(out, consumer.sandboxApplicationID);
  out << ", kind: " << consumer.kind << ", feeds: [";
  for (std::size_t i = 0; i < consumer.feeds.size(); ++i) {
    out << (i == 0 ? "" : ", ") << consumer.feeds[i];
  }
  return out << "])";
}

bool MediaDeviceConsumerReachesApplication(const MediaDeviceConsumer& consumer) {
  switch (consumer.kind) {
    case MediaDeviceConsumerKind::Application:
      return true;
    case MediaDeviceConsumerKind::Filter:
    case MediaDeviceConsumerKind::MediaServer:
      return std::ranges::any_of(consumer.feeds, MediaDeviceConsumerReachesApplication);
    case MediaDeviceConsumerKind::LevelMeter:
    case MediaDeviceConsumerKind::Monitor:
      return false;
  }
  return false;
}

}  // namespace harkwell
