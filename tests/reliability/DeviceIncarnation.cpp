#include "tests/reliability/DeviceIncarnation.h"

#include <charconv>
#include <sstream>
#include <string_view>

namespace harkwell::testing {
namespace {

constexpr std::string_view kInputSourcePrefix = "source ";

std::string_view Prefix(MediaType mediaType) {
  return mediaType == MediaType::Audio ? "audio-" : "video-";
}

// Reads an unsigned decimal at the front of `text` and moves past it.
std::optional<std::uint32_t> TakeNumber(std::string_view& text) {
  std::uint32_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return value;
}

bool TakeLiteral(std::string_view& text, std::string_view literal) {
  if (text.substr(0, literal.size()) != literal) return false;
  text.remove_prefix(literal.size());
  return true;
}

// The incarnation a name spells, or nothing when it spells none.
std::optional<DeviceIncarnation> ParseName(std::string_view name) {
  DeviceIncarnation incarnation;
  if (TakeLiteral(name, "audio-")) {
    incarnation.mediaType = MediaType::Audio;
  } else if (TakeLiteral(name, "video-")) {
    incarnation.mediaType = MediaType::Video;
  } else {
    return std::nullopt;
  }
  auto deviceID = TakeNumber(name);
  if (!deviceID || !TakeLiteral(name, ".")) return std::nullopt;
  auto generation = TakeNumber(name);
  if (!generation || !TakeLiteral(name, " in ")) return std::nullopt;
  auto inputs = TakeNumber(name);
  if (!inputs || !TakeLiteral(name, " out ")) return std::nullopt;
  auto outputs = TakeNumber(name);
  if (!outputs || !name.empty()) return std::nullopt;
  incarnation.deviceID = *deviceID;
  incarnation.generation = *generation;
  incarnation.inputCount = *inputs;
  incarnation.outputCount = *outputs;
  return incarnation;
}

}  // namespace

std::string DeviceIncarnation::uid() const {
  return std::string(Prefix(mediaType)) + std::to_string(deviceID) + "." +
         std::to_string(generation);
}

std::string DeviceIncarnation::name() const {
  return uid() + " in " + std::to_string(inputCount) + " out " + std::to_string(outputCount);
}

std::string DeviceIncarnation::modelUID() const {
  return uid() + "-model";
}

std::string DeviceIncarnation::inputSourceName(std::uint32_t source) {
  return std::string(kInputSourcePrefix) + std::to_string(source);
}

std::optional<std::string> CachedRecordProblem(const MediaDevice& record) {
  std::ostringstream problem;
  problem << "record " << record << ": ";
  auto incarnation = ParseName(record.name);
  if (!incarnation) {
    problem << "its name belongs to no device";
    return problem.str();
  }
  if (record.deviceUID != incarnation->uid()) {
    problem << "its UID and name come from different devices";
  } else if (record.deviceID != incarnation->deviceID) {
    problem << "its ID is not the one its device was plugged in with";
  } else if (record.mediaType != incarnation->mediaType) {
    problem << "its media type is wrong";
  } else if (record.inputChannelCount != incarnation->inputCount ||
             record.outputChannelCount != incarnation->outputCount) {
    problem << "its counts are not its device's";
  } else if (record.modelUID && *record.modelUID != incarnation->modelUID()) {
    problem << "its model UID is another device's";
  } else if (!record.isConnected) {
    problem << "it is cached but not connected";
  } else if (record.unsupportedReason != MediaDeviceUnsupportedReasonForChannelCounts(
                                             record.inputChannelCount, record.outputChannelCount)) {
    problem << "its unsupported reason does not follow from its counts";
  } else if (record.inputSourceName && !record.inputSourceName->starts_with(kInputSourcePrefix)) {
    problem << "its input source is not one its device offers";
  } else {
    return std::nullopt;
  }
  return problem.str();
}

}  // namespace harkwell::testing
