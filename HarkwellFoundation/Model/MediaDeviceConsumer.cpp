#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"

#include <algorithm>

namespace harkwell {

namespace {
void printOptional(std::ostream& out, const std::optional<std::string>& text) {
  if (text) {
    out << '"' << *text << '"';
  } else {
    out << "nil";
  }
}
}  // namespace

std::ostream& operator<<(std::ostream& out, const MediaDeviceConsumer& consumer) {
  out << "MediaDeviceConsumer(processID: " << consumer.processID
      << ", isProcessIDVerified: " << (consumer.isProcessIDVerified ? "true" : "false")
      << ", executablePath: ";
  printOptional(out, consumer.executablePath);
  out << ", processName: ";
  printOptional(out, consumer.processName);
  out << ", applicationName: ";
  printOptional(out, consumer.applicationName);
  out << ", applicationID: ";
  printOptional(out, consumer.applicationID);
  out << ", sandbox: " << consumer.sandbox << ", sandboxApplicationID: ";
  printOptional(out, consumer.sandboxApplicationID);
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
