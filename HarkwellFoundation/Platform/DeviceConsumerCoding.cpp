#include "HarkwellFoundation/Platform/DeviceConsumerCoding.h"

#include <cstring>
#include <string>

namespace harkwell {

namespace {

constexpr std::uint32_t kEncodingVersion = 1;
constexpr std::uint32_t kAbsentString = 0xFFFFFFFFu;

class Writer {
 public:
  void word(std::uint32_t value) { bytes(&value, sizeof value); }
  void text(const std::optional<std::string>& value) {
    if (!value) {
      word(kAbsentString);
      return;
    }
    word(static_cast<std::uint32_t>(value->size()));
    bytes(value->data(), value->size());
  }
  void consumers(const std::vector<MediaDeviceConsumer>& list) {
    word(static_cast<std::uint32_t>(list.size()));
    for (const MediaDeviceConsumer& consumer : list) {
      word(static_cast<std::uint32_t>(consumer.processID));
      word(consumer.isProcessIDVerified ? 1 : 0);
      word(static_cast<std::uint32_t>(consumer.kind));
      word(static_cast<std::uint32_t>(consumer.sandbox));
      text(consumer.executablePath);
      text(consumer.processName);
      text(consumer.applicationName);
      text(consumer.applicationID);
      text(consumer.sandboxApplicationID);
      consumers(consumer.feeds);
    }
  }
  std::vector<std::uint8_t> take() { return std::move(out_); }

 private:
  void bytes(const void* data, std::size_t size) {
    if (size == 0) return;
    const std::size_t at = out_.size();
    out_.resize(at + size);
    std::memcpy(out_.data() + at, data, size);
  }
  std::vector<std::uint8_t> out_;
};

class Reader {
 public:
  Reader(const void* data, std::size_t size)
      : next_(static_cast<const std::uint8_t*>(data)), left_(data == nullptr ? 0 : size) {}

  bool word(std::uint32_t& value) {
    if (left_ < sizeof value) return false;
    std::memcpy(&value, next_, sizeof value);
    advance(sizeof value);
    return true;
  }
  bool text(std::optional<std::string>& value) {
    std::uint32_t length = 0;
    if (!word(length)) return false;
    if (length == kAbsentString) {
      value.reset();
      return true;
    }
    if (left_ < length) return false;
    value.emplace(reinterpret_cast<const char*>(next_), length);
    advance(length);
    return true;
  }
  bool consumers(std::vector<MediaDeviceConsumer>& list, int depth) {
    std::uint32_t count = 0;
    if (!word(count)) return false;
    if (count != 0 && depth > kMaxDeviceConsumerNesting) return false;
    // Every consumer takes at least nine words, so a count the bytes cannot hold is refused
    // before anything is reserved.
    if (count > left_ / (9 * sizeof(std::uint32_t))) return false;
    list.resize(count);
    for (MediaDeviceConsumer& consumer : list) {
      std::uint32_t processID = 0, verified = 0, kind = 0, sandbox = 0;
      if (!word(processID) || !word(verified) || !word(kind) || !word(sandbox)) return false;
      if (verified > 1 || kind >= detail::CaseNames<MediaDeviceConsumerKind>::names.size() ||
          sandbox >= detail::CaseNames<MediaDeviceConsumerSandbox>::names.size()) {
        return false;
      }
      consumer.processID = static_cast<std::int32_t>(processID);
      consumer.isProcessIDVerified = verified == 1;
      consumer.kind = static_cast<MediaDeviceConsumerKind>(kind);
      consumer.sandbox = static_cast<MediaDeviceConsumerSandbox>(sandbox);
      if (!text(consumer.executablePath) || !text(consumer.processName) ||
          !text(consumer.applicationName) || !text(consumer.applicationID) ||
          !text(consumer.sandboxApplicationID) || !consumers(consumer.feeds, depth + 1)) {
        return false;
      }
    }
    return true;
  }
  bool atEnd() const { return left_ == 0; }

 private:
  void advance(std::size_t count) {
    next_ += count;
    left_ -= count;
  }
  const std::uint8_t* next_;
  std::size_t left_;
};

}  // namespace

std::vector<std::uint8_t> EncodeDeviceConsumers(const std::vector<MediaDeviceConsumer>& consumers) {
  Writer writer;
  writer.word(kEncodingVersion);
  writer.consumers(consumers);
  return writer.take();
}

std::optional<std::vector<MediaDeviceConsumer>> DecodeDeviceConsumers(const void* data,
                                                                      std::size_t size) {
  Reader reader(data, size);
  std::uint32_t version = 0;
  if (!reader.word(version) || version != kEncodingVersion) return std::nullopt;
  std::vector<MediaDeviceConsumer> consumers;
  if (!reader.consumers(consumers, 0) || !reader.atEnd()) return std::nullopt;
  return consumers;
}

}  // namespace harkwell
