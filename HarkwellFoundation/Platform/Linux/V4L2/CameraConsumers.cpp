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
  for (const pid_t pid : holders) {
    MediaDeviceConsumer consumer{.processID = static_cast<std::int32_t>(pid),
                                 .isProcessIDVerified = true};
    FillProcessDetails(consumer, procRoot);
    if (IsMediaServerConsumer(consumer)) consumer.kind = MediaDeviceConsumerKind::MediaServer;
    consumers.push_back(std::move(consumer));
  }
  RefreshMediaServerFeeds(camera, consumers, clientsQuery);
  return consumers;
}

void RefreshMediaServerFeeds(const CameraDescription& camera,
                             std::vector<MediaDeviceConsumer>& consumers,
                             const MediaServerClientsQuery& clientsQuery) {
  const bool servedByAServer =
      std::any_of(consumers.begin(), consumers.end(), [](const MediaDeviceConsumer& consumer) {
        return consumer.kind == MediaDeviceConsumerKind::MediaServer;
      });
  if (!servedByAServer) return;
  // Asked once per camera, however many servers hold it; each feeds what the graph names.
  const std::optional<std::vector<MediaDeviceConsumer>> clients =
      clientsQuery ? clientsQuery(camera) : std::nullopt;
  for (MediaDeviceConsumer& consumer : consumers) {
    if (consumer.kind != MediaDeviceConsumerKind::MediaServer) continue;
    consumer.feeds = clients.value_or(std::vector<MediaDeviceConsumer>{});
  }
}

}  // namespace harkwell::v4l2
