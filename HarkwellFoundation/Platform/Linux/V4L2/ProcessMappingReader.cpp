#include "HarkwellFoundation/Platform/Linux/V4L2/ProcessMappingReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string_view>

namespace harkwell::v4l2 {
namespace {

// The next space-separated field of `line`, taken off its front.
std::string_view TakeField(std::string_view& line) {
  const auto start = line.find_first_not_of(' ');
  if (start == std::string_view::npos) {
    line = {};
    return {};
  }
  line.remove_prefix(start);
  const auto end = line.find(' ');
  const std::string_view field = line.substr(0, end);
  line.remove_prefix(end == std::string_view::npos ? line.size() : end);
  return field;
}

template <class Number>
bool ParseNumber(std::string_view text, int base, Number& value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

}  // namespace

MappedFileIdentity IdentifyMappedFile(const std::string& path) {
  MappedFileIdentity identity;
  identity.path = path;
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0) {
    identity.deviceMajor = major(status.st_dev);
    identity.deviceMinor = minor(status.st_dev);
    identity.inode = status.st_ino;
    identity.hasNumbers = true;
  }
  return identity;
}

bool MapsLineNamesFile(std::string_view line, const MappedFileIdentity& node) {
  TakeField(line);  // address range
  TakeField(line);  // permissions
  TakeField(line);  // offset
  const std::string_view device = TakeField(line);
  const std::string_view inode = TakeField(line);
  const auto pathStart = line.find_first_not_of(' ');
  const std::string_view path =
      pathStart == std::string_view::npos ? std::string_view() : line.substr(pathStart);

  if (node.hasNumbers) {
    const auto colon = device.find(':');
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::uint64_t number = 0;
    if (colon != std::string_view::npos && ParseNumber(device.substr(0, colon), 16, major) &&
        ParseNumber(device.substr(colon + 1), 16, minor) && ParseNumber(inode, 10, number) &&
        number != 0 && number == node.inode && major == node.deviceMajor &&
        minor == node.deviceMinor) {
      return true;
    }
  }
  return !path.empty() && path == node.path;
}

ProcessMappings ReadProcessMappings(const std::string& procRoot, pid_t pid,
                                    const std::vector<MappedFileIdentity>& nodes) {
  ProcessMappings result;
  result.mapped.assign(nodes.size(), false);
  const std::string path = procRoot + "/" + std::to_string(pid) + "/maps";
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) {
    result.error = errno;
    return result;
  }
  std::size_t found = 0;
  std::string pending;  // a line cut by the end of a read
  char buffer[16 * 1024];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      result.error = errno;
      break;
    }
    if (got == 0) break;
    pending.append(buffer, static_cast<std::size_t>(got));
    std::string_view text = pending;
    for (auto newline = text.find('\n'); newline != std::string_view::npos;
         newline = text.find('\n')) {
      const std::string_view line = text.substr(0, newline);
      text.remove_prefix(newline + 1);
      for (std::size_t i = 0; i < nodes.size(); ++i) {
        if (result.mapped[i] || !MapsLineNamesFile(line, nodes[i])) continue;
        result.mapped[i] = true;
        ++found;
      }
      if (found == nodes.size()) break;
    }
    if (found == nodes.size()) break;
    pending.erase(0, pending.size() - text.size());
  }
  // A last line without its newline (a test tree's file) counts too.
  if (found < nodes.size() && !pending.empty() && pending.find('\n') == std::string::npos) {
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      if (!result.mapped[i] && MapsLineNamesFile(pending, nodes[i])) result.mapped[i] = true;
    }
  }
  ::close(fd);
  return result;
}

}  // namespace harkwell::v4l2
