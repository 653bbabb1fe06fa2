#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2UdevRecord.h"

#include <algorithm>

#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2FileAccess.h"

namespace harkwell::v4l2 {
namespace {

bool IsDecimal(std::string_view text) {
  return !text.empty() && text.size() <= 10 &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

std::optional<std::string> UdevRecord::property(std::string_view key) const {
  auto found = properties.find(key);
  if (found == properties.end()) return std::nullopt;
  return found->second;
}

std::optional<std::string> UdevRecordName(std::string_view deviceNumber) {
  const std::string_view trimmed = TrimWhitespace(deviceNumber);
  const auto colon = trimmed.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const std::string_view major = trimmed.substr(0, colon);
  const std::string_view minor = trimmed.substr(colon + 1);
  if (!IsDecimal(major) || !IsDecimal(minor)) return std::nullopt;
  std::string name = "c";
  name += trimmed;
  return name;
}

UdevRecord ParseUdevRecord(std::string_view text) {
  UdevRecord record;
  while (!text.empty()) {
    const auto end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.size() < 2 || line[1] != ':') continue;
    const std::string_view value = line.substr(2);
    if (line[0] == 'E') {
      const auto equals = value.find('=');
      if (equals == std::string_view::npos || equals == 0) continue;
      record.properties.insert_or_assign(std::string(value.substr(0, equals)),
                                         std::string(value.substr(equals + 1)));
    } else if (line[0] == 'S' && !value.empty()) {
      record.links.emplace_back(value);
    }
  }
  return record;
}

std::optional<UdevRecord> ReadUdevRecord(const std::string& dataRoot,
                                         const std::string& recordName) {
  if (dataRoot.empty()) return std::nullopt;
  FileText file = ReadSmallFile(dataRoot + "/" + recordName);
  if (!file.text) return std::nullopt;
  return ParseUdevRecord(*file.text);
}

}  // namespace harkwell::v4l2
