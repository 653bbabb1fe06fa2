// A listener on a device's consumers: each call reads the list as the block finds it, so a test
// waits (with a deadline) for the list it expects to arrive with the service's notification,
// never by polling.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "HarkwellFoundation/Consumers/MediaDeviceConsumers.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/HardwareService.h"
#include "tests/support/AudioServiceReads.h"

namespace harkwell::testing {

using ConsumerList = std::vector<MediaDeviceConsumer>;

class ConsumerProbe : public ReadingProbe<ConsumerList> {
 public:
  ConsumerProbe(AudioHardwareService& service, ObjectID device,
                std::shared_ptr<DispatchQueue> queue)
      : ReadingProbe(service, device,
                     {kAudioDevicePropertyConsumers, kAudioObjectPropertyScopeGlobal,
                      kAudioObjectPropertyElementMaster},
                     std::move(queue), [&service, device] {
                       return ReadDeviceConsumers(service, device).value_or(ConsumerList{});
                     }) {}

  // Waits until a notification finds a list for which `matches` holds; that list, or nothing when
  // the deadline passes first.
  template <class Predicate>
  std::optional<ConsumerList> waitFor(Predicate matches) {
    std::optional<ConsumerList> found;
    calls().waitUntil([&](const std::vector<ConsumerList>& lists) {
      if (lists.empty() || !matches(lists.back())) return false;
      found = lists.back();
      return true;
    });
    return found;
  }
  // Forgets the lists read so far.
  void clear() { calls().clear(); }
  // The lists read so far, one per notification.
  std::vector<ConsumerList> lists() { return calls().entries(); }
};

// The consumer with this process ID in `list`, or null.
inline const MediaDeviceConsumer* ConsumerWithProcessID(const ConsumerList& list,
                                                        std::int32_t pid) {
  auto found = std::find_if(list.begin(), list.end(), [&](const MediaDeviceConsumer& consumer) {
    return consumer.processID == pid;
  });
  return found == list.end() ? nullptr : &*found;
}

// The first consumer of this kind in `list`, or null.
inline const MediaDeviceConsumer* ConsumerOfKind(const ConsumerList& list,
                                                 MediaDeviceConsumerKind kind) {
  auto found = std::find_if(list.begin(), list.end(), [&](const MediaDeviceConsumer& consumer) {
    return consumer.kind == kind;
  });
  return found == list.end() ? nullptr : &*found;
}

// The file name at the end of a path ("/usr/bin/pacat" -> "pacat").
inline std::string BaseName(const std::optional<std::string>& path) {
  if (!path) return {};
  const auto slash = path->rfind('/');
  return slash == std::string::npos ? *path : path->substr(slash + 1);
}

}  // namespace harkwell::testing
