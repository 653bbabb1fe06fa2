// The udev database reader on arbitrary entry text and device numbers. It must never crash; every
// property it keeps has a non-empty key without '=' and neither keys, values nor links hold a line
// break; writing the record back as an entry and reading that again gives the same record; and a
// record name exists only for MAJOR:MINOR in decimal, as "c" followed by the two numbers.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2UdevRecord.h"

namespace {

void Require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "broken promise: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace harkwell::v4l2;
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  const UdevRecord record = ParseUdevRecord(text);
  std::string written;
  for (const auto& [key, value] : record.properties) {
    Require(!key.empty() && key.find('=') == std::string::npos,
            "a property key is empty or holds '='");
    Require(key.find('\n') == std::string::npos && value.find('\n') == std::string::npos,
            "a property holds a line break");
    Require(record.property(key) == value, "a property cannot be looked up by its key");
    written += "E:" + key + "=" + value + "\n";
  }
  for (const auto& link : record.links) {
    Require(!link.empty() && link.find('\n') == std::string::npos, "a link is empty or broken");
    written += "S:" + link + "\n";
  }
  const UdevRecord again = ParseUdevRecord(written);
  Require(again.properties == record.properties && again.links == record.links,
          "a record written back reads differently");

  // The first line doubles as a device number as sysfs writes it.
  const std::string_view number = text.substr(0, text.find('\n'));
  if (auto name = UdevRecordName(number)) {
    Require(name->size() >= 4 && (*name)[0] == 'c', "a record name not starting with 'c'");
    const auto colon = name->find(':');
    Require(colon != std::string::npos && colon > 1 && colon + 1 < name->size(),
            "a record name without MAJOR:MINOR");
    for (std::size_t i = 1; i < name->size(); ++i) {
      Require(i == colon || ((*name)[i] >= '0' && (*name)[i] <= '9'),
              "a record name with more than decimal numbers");
    }
  }
  return 0;
}
