// udev's database entry for one device node: the properties its rules set (the "E:" lines, such as
// ID_V4L_CAPABILITIES) and the symlinks it made under /dev (the "S:" lines, such as
// v4l/by-id/...). The entry for a character device with number MAJOR:MINOR is the file
// "c<MAJOR>:<MINOR>" in the database folder (/run/udev/data).
//
// Machines without udev, and nodes udev has not processed yet, have no entry; that is normal and
// callers fall back on what sysfs and the node itself say. Stateless; any thread may call.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace harkwell::v4l2 {

struct UdevRecord {
  std::map<std::string, std::string, std::less<>> properties;
  std::vector<std::string> links;  // relative to /dev

  std::optional<std::string> property(std::string_view key) const;
};

// The entry's file name for a device number as sysfs writes it ("81:0" gives "c81:0"), or nothing
// when the text is not MAJOR:MINOR in decimal.
std::optional<std::string> UdevRecordName(std::string_view deviceNumber);

// Parses the text of a database entry; lines of other kinds are ignored.
UdevRecord ParseUdevRecord(std::string_view text);

// Reads the entry `recordName` from `dataRoot`; nothing when there is none or it is unreadable.
std::optional<UdevRecord> ReadUdevRecord(const std::string& dataRoot,
                                         const std::string& recordName);

}  // namespace harkwell::v4l2
