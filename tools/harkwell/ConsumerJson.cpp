#include "tools/harkwell/ConsumerJson.h"

namespace harkwell::cli {
namespace {

Json OptionalText(const std::optional<std::string>& text) {
  return text ? Json(*text) : Json(nullptr);
}

}  // namespace

Json ConsumerToJson(const MediaDeviceConsumer& consumer) {
  Json object = Json::object();
  object["processID"] = consumer.processID;
  object["isProcessIDVerified"] = consumer.isProcessIDVerified;
  object["executablePath"] = OptionalText(consumer.executablePath);
  object["processName"] = OptionalText(consumer.processName);
  object["applicationName"] = OptionalText(consumer.applicationName);
  object["applicationID"] = OptionalText(consumer.applicationID);
  object["sandbox"] = caseName(consumer.sandbox);
  object["sandboxApplicationID"] = OptionalText(consumer.sandboxApplicationID);
  object["kind"] = caseName(consumer.kind);
  object["feeds"] = ConsumersToJson(consumer.feeds);
  return object;
}

Json ConsumersToJson(const std::vector<MediaDeviceConsumer>& consumers) {
  Json array = Json::array();
  for (const auto& consumer : consumers) array.push_back(ConsumerToJson(consumer));
  return array;
}

Json ListedDeviceToJson(const MediaDevice& device,
                        const std::vector<MediaDeviceConsumer>& consumers) {
  Json object = DeviceToJson(device);
  if (!consumers.empty()) object["consumers"] = ConsumersToJson(consumers);
  return object;
}

Json ConsumersLine(std::chrono::system_clock::time_point time, const MediaDevice& device,
                   const std::vector<MediaDeviceConsumer>& consumers) {
  Json line = WatchLine(time, "consumers");
  line["device"] = DeviceToJson(device);
  line["consumers"] = ConsumersToJson(consumers);
  return line;
}

}  // namespace harkwell::cli
