#include "HarkwellFoundation/Platform/Linux/V4L2/CameraConsumers.h"

#include <algorithm>

#include "HarkwellFoundation/Platform/Linux/ProcessDetails.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/MediaServerProcesses.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2FileAccess.h"

namespace harkwell::v4l2 {

bool IsMediaServerConsumer(const MediaDeviceConsumer& consumer) {
  if (consumer.executablePath) {
    return IsMediaServerExecutable(LastPathComponent(*consumer.executablePath));
  }
  return consumer.processName && IsMediaServerExecutable(*consumer.processName);
}

std::vector<MediaDeviceConsumer> CameraConsumers(const CameraDescription& camera,
                                                 std::vector<pid_t> holders,
                                                 const std::string& procRoot,
                                                 const MediaServerClientsQuery& clientsQuery) {
  std::sort(holders.begin(), holders.end());
  holders.erase(std::unique(holders.begin(), holders.end()), holders.end());
  std::vector<MediaDeviceConsumer> consumers;
  consumers.reserve(holders.size());
  // One server holding the camera asks the graph once, whatever the number of servers.
  std::optional<std::optional<std::vector<MediaDeviceConsumer>>> clients;
  for (const pid_t pid : holders) {
    MediaDeviceConsumer consumer{.processID = static_cast<std::int32_t>(pid),
                                 .isProcessIDVerified = true};
    FillProcessDetails(consumer, procRoot);
    if (IsMediaServerConsumer(consumer)) {
      consumer.kind = MediaDeviceConsumerKind::MediaServer;
      if (!clients) clients = clientsQuery ? clientsQuery(camera) : std::nullopt;
      if (*clients) consumer.feeds = **clients;
    }
    consumers.push_back(std::move(consumer));
  }
  return consumers;
}

}  // namespace harkwell::v4l2
