#include "HarkwellFoundation/Platform/PropertyValue.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/PlatformString.h"

namespace harkwell {

PropertyValue PropertyValue::UInt32(std::uint32_t value) {
  std::vector<std::uint8_t> bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  return PropertyValue(Storage(std::in_place_index<0>, std::move(bytes)));
}

PropertyValue PropertyValue::Int32(std::int32_t value) {
  return UInt32(static_cast<std::uint32_t>(value));
}

PropertyValue PropertyValue::Bytes(std::vector<std::uint8_t> bytes) {
  return PropertyValue(Storage(std::in_place_index<0>, std::move(bytes)));
}

PropertyValue PropertyValue::String(std::optional<std::string> text) {
  return PropertyValue(Storage(std::in_place_index<1>, std::move(text)));
}

PropertyValue PropertyValue::IDList(std::vector<std::uint32_t> ids) {
  return PropertyValue(Storage(std::in_place_index<2>, std::move(ids)));
}

PropertyValue PropertyValue::TranslationTable(Translation translate) {
  return PropertyValue(Storage(std::in_place_index<3>, std::move(translate)));
}

std::uint32_t PropertyValue::dataSize() const {
  switch (storage_.index()) {
    case 0:
      return static_cast<std::uint32_t>(std::get<0>(storage_).size());
    case 1:
      return sizeof(PlatformStringRef);
    case 2:
      return static_cast<std::uint32_t>(std::get<2>(storage_).size() * sizeof(std::uint32_t));
    default:
      return kAudioValueTranslationDataSize;
  }
}

std::optional<std::uint32_t> PropertyValue::asUInt32() const {
  const auto* stored = bytes();
  if (!stored || stored->size() != sizeof(std::uint32_t)) return std::nullopt;
  std::uint32_t value;
  std::memcpy(&value, stored->data(), sizeof value);
  return value;
}

namespace {

// Writes a new reference to `text` (null when absent), which the caller then owns.
void WriteStringReference(const std::optional<std::string>& text, void* destination) {
  PlatformStringRef string = text ? PlatformStringCreate(*text) : nullptr;
  std::memcpy(destination, &string, sizeof string);
}

}  // namespace

OSStatus PropertyValue::write(std::uint32_t* ioDataSize, void* outData) const {
  const std::uint32_t capacity = *ioDataSize;
  switch (storage_.index()) {
    case 0: {
      const auto& stored = std::get<0>(storage_);
      if (capacity < stored.size()) return kAudioHardwareBadPropertySizeError;
      if (!stored.empty()) std::memcpy(outData, stored.data(), stored.size());
      *ioDataSize = static_cast<std::uint32_t>(stored.size());
      return kNoErr;
    }
    case 1:
      if (capacity < sizeof(PlatformStringRef)) return kAudioHardwareBadPropertySizeError;
      WriteStringReference(std::get<1>(storage_), outData);
      *ioDataSize = sizeof(PlatformStringRef);
      return kNoErr;
    case 2: {
      const auto& ids = std::get<2>(storage_);
      const std::size_t count = std::min<std::size_t>(capacity / sizeof(std::uint32_t), ids.size());
      if (count > 0) std::memcpy(outData, ids.data(), count * sizeof(std::uint32_t));
      *ioDataSize = static_cast<std::uint32_t>(count * sizeof(std::uint32_t));
      return kNoErr;
    }
    default: {
      if (capacity < kAudioValueTranslationDataSize) return kAudioHardwareBadPropertySizeError;
      AudioValueTranslation translation;
      std::memcpy(&translation, outData, kAudioValueTranslationDataSize);
      if (translation.mInputDataSize != sizeof(std::uint32_t) ||
          translation.mOutputDataSize != sizeof(PlatformStringRef) || !translation.mInputData ||
          !translation.mOutputData) {
        return kAudioHardwareBadPropertySizeError;
      }
      std::uint32_t input;
      std::memcpy(&input, translation.mInputData, sizeof input);
      WriteStringReference(std::get<3>(storage_)(input), translation.mOutputData);
      *ioDataSize = kAudioValueTranslationDataSize;
      return kNoErr;
    }
  }
}

}  // namespace harkwell
