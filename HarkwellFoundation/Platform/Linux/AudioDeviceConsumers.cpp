#include "HarkwellFoundation/Platform/Linux/AudioDeviceConsumers.h"

#include <algorithm>
#include <charconv>

namespace harkwell {
namespace {

std::optional<std::int32_t> ProcessIDOf(const std::string* text) {
  if (!text || text->empty()) return std::nullopt;
  std::int32_t value = 0;
  const char* end = text->data() + text->size();
  auto [at, error] = std::from_chars(text->data(), end, value);
  if (error != std::errc() || at != end || value <= 0) return std::nullopt;
  return value;
}

std::optional<std::string> TextOf(const std::string* text) {
  if (!text) return std::nullopt;
  return *text;
}

void AddOnce(std::vector<MediaDeviceConsumer>& consumers, MediaDeviceConsumer consumer) {
  if (std::find(consumers.begin(), consumers.end(), consumer) == consumers.end()) {
    consumers.push_back(std::move(consumer));
  }
}

}  // namespace

std::vector<MediaDeviceConsumer> AudioDeviceConsumersIn(const ConsumerGraph& graph,
                                                        ConsumerGraph::NodeKey device,
                                                        const DescribeStream& describe) {
  using Kind = MediaDeviceConsumerKind;
  std::vector<MediaDeviceConsumer> consumers;
  const auto direction = graph.deviceDirection(device);
  if (!direction) return consumers;

  // A stream next to the device, and the way its chain leads away from it.
  auto add = [&](ConsumerGraph::NodeKey stream, bool downstream, bool monitorsOnly) {
    if (!graph.hasStream(stream)) return;
    std::optional<MediaDeviceConsumer> consumer = describe(stream);
    if (!consumer) return;
    if (monitorsOnly && consumer->kind != Kind::Monitor && consumer->kind != Kind::LevelMeter) {
      return;
    }
    if (consumer->kind == Kind::Filter) {
      consumer->feeds.clear();
      for (ConsumerGraph::NodeKey program : ProgramStreamsServedBy(graph, stream, downstream)) {
        if (auto fed = describe(program)) AddOnce(consumer->feeds, std::move(*fed));
      }
    }
    AddOnce(consumers, std::move(*consumer));
  };

  if (*direction == ConsumerGraph::DeviceDirection::Source) {
    for (ConsumerGraph::NodeKey stream : graph.flowsOutOf(device)) add(stream, true, false);
  } else {
    for (ConsumerGraph::NodeKey stream : graph.flowsInto(device)) add(stream, false, false);
    for (ConsumerGraph::NodeKey stream : graph.flowsOutOf(device)) add(stream, true, true);
  }
  return consumers;
}

ConsumerGraph::StreamKind StreamKindForConsumer(MediaDeviceConsumerKind kind) {
  switch (kind) {
    case MediaDeviceConsumerKind::LevelMeter:
      return ConsumerGraph::StreamKind::LevelMeter;
    case MediaDeviceConsumerKind::Monitor:
      return ConsumerGraph::StreamKind::MonitorCapture;
    case MediaDeviceConsumerKind::Filter:
      return ConsumerGraph::StreamKind::Filter;
    case MediaDeviceConsumerKind::Application:
    case MediaDeviceConsumerKind::MediaServer:
      break;
  }
  return ConsumerGraph::StreamKind::Program;
}

AudioClientIdentity AudioClientIdentity::fromLookup(
    const std::function<const std::string*(const char* key)>& lookup) {
  AudioClientIdentity identity;
  identity.socketProcessID = ProcessIDOf(lookup("pipewire.sec.pid"));
  identity.claimedProcessID = ProcessIDOf(lookup("application.process.id"));
  identity.applicationName = TextOf(lookup("application.name"));
  identity.applicationID = TextOf(lookup("application.id"));
  const std::string* api = lookup("client.api");
  identity.servedByPulseBridge = api && *api == "pipewire-pulse";
  return identity;
}

std::set<std::int32_t> ServerConnectionProcessIDs(const std::vector<AudioClientIdentity>& clients) {
  std::set<std::int32_t> processIDs;
  for (const AudioClientIdentity& client : clients) {
    if (!client.servedByPulseBridge && client.socketProcessID) {
      processIDs.insert(*client.socketProcessID);
    }
  }
  return processIDs;
}

void ApplyAudioClientIdentity(MediaDeviceConsumer& consumer, const AudioClientIdentity& client,
                              const std::set<std::int32_t>& serverConnectionProcessIDs,
                              const AudioClientIdentity& fallback) {
  const bool ownSocket =
      client.socketProcessID && !(client.servedByPulseBridge &&
                                  serverConnectionProcessIDs.count(*client.socketProcessID) != 0);
  if (ownSocket) {
    consumer.processID = *client.socketProcessID;
    consumer.isProcessIDVerified = true;
  } else if (const auto claimed =
                 client.claimedProcessID ? client.claimedProcessID : fallback.claimedProcessID) {
    consumer.processID = *claimed;
    consumer.isProcessIDVerified = false;
  } else {
    consumer.processID = -1;
    consumer.isProcessIDVerified = false;
  }
  consumer.applicationName =
      client.applicationName ? client.applicationName : fallback.applicationName;
  consumer.applicationID = client.applicationID ? client.applicationID : fallback.applicationID;
}

}  // namespace harkwell
