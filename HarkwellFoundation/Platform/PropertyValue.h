// A property's value as a hardware service keeps it, written into a caller's buffer the one way
// the seam's size rules say; and the note that a property's value changed. The services that
// answer reads from a mirror of their own (PulseAudio, V4L2) and the simulated object graph all
// store their values this way, so a new service only maps its objects to values.
//
// Values are plain data: copy them freely, read them from any thread that may see them.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "HarkwellFoundation/HarkwellFoundationExport.h"
#include "HarkwellFoundation/Platform/PropertyAddress.h"

namespace harkwell {

class HARKWELL_EXPORT PropertyValue {
 public:
  // A translation's output for a 4-byte input: a string, or none for a null string reference.
  using Translation = std::function<std::optional<std::string>(std::uint32_t input)>;

  static PropertyValue UInt32(std::uint32_t value);
  static PropertyValue Int32(std::int32_t value);
  // Raw bytes of any size (a value of an odd size, say).
  static PropertyValue Bytes(std::vector<std::uint8_t> bytes);
  // A string reference; std::nullopt is read as a null reference.
  static PropertyValue String(std::optional<std::string> text);
  static PropertyValue IDList(std::vector<std::uint32_t> ids);
  // Read with an AudioValueTranslation record that the caller puts in the buffer.
  static PropertyValue TranslationTable(Translation translate);

  // What a size query answers: the bytes' count, one string reference (8), 4 per ID, or one
  // AudioValueTranslation record (28).
  std::uint32_t dataSize() const;

  // Writes the value into `outData`, which holds `*ioDataSize` bytes, and sets `*ioDataSize` to
  // the size written. Bytes and string references are written whole or not at all ("!siz" when
  // they do not fit); a string is a new reference that the caller owns. An ID list writes as many
  // whole IDs as fit and never more than it has; a short buffer is no error. A translation reads
  // the caller's AudioValueTranslation record ("!siz" unless the record is whole, its input is 4
  // bytes and its output a string reference) and writes a new string reference, or null, to its
  // output. `outData` may be null only when `*ioDataSize` is 0.
  OSStatus write(std::uint32_t* ioDataSize, void* outData) const;

  // What the value holds, for readers that look inside; null when it holds something else.
  const std::vector<std::uint8_t>* bytes() const { return std::get_if<0>(&storage_); }
  const std::optional<std::string>* string() const { return std::get_if<1>(&storage_); }
  const std::vector<std::uint32_t>* idList() const { return std::get_if<2>(&storage_); }
  // The bytes as a 32-bit number, when there are exactly four.
  std::optional<std::uint32_t> asUInt32() const;

 private:
  using Storage = std::variant<std::vector<std::uint8_t>, std::optional<std::string>,
                               std::vector<std::uint32_t>, Translation>;
  explicit PropertyValue(Storage storage) : storage_(std::move(storage)) {}

  Storage storage_;
};

// A property whose value changed: what a service's mirror reports after an update, so that the
// service notifies exactly the listeners of that object and address.
struct PropertyChange {
  ObjectID object = 0;
  PropertyAddress address;

  friend bool operator==(const PropertyChange&, const PropertyChange&) = default;
};

}  // namespace harkwell
