#include "HarkwellFoundation/Platform/Linux/V4L2/ProcessNodeScanner.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>

namespace harkwell::v4l2 {
namespace {

// The directory entries returned by getdents64, read straight into a buffer on the stack: no
// DIR stream, no allocation, no extra fstat/fcntl per folder (a scan opens one per process).
struct DirectoryEntryHeader {
  std::uint64_t inode;
  std::int64_t offset;
  unsigned short length;
  unsigned char type;
};
constexpr std::size_t kNameOffset = offsetof(DirectoryEntryHeader, type) + 1;

class DirectoryReader {
 public:
  explicit DirectoryReader(int fd) : fd_(fd) {}
  ~DirectoryReader() {
    if (fd_ >= 0) ::close(fd_);
  }
  DirectoryReader(const DirectoryReader&) = delete;
  DirectoryReader& operator=(const DirectoryReader&) = delete;

  int fd() const { return fd_; }

  // The next entry's name (NUL-terminated in the buffer), or null at the end. With `shortNames`
  // (procfs descriptor folders only), a read that left room for another entry is taken as the
  // last one: procfs fills the buffer as far as entries fit, and descriptor numbers are short.
  const char* next(bool shortNames) {
    while (position_ >= filled_) {
      if (atEnd_) return nullptr;
      const long got = ::syscall(SYS_getdents64, fd_, buffer_, sizeof buffer_);
      if (got <= 0) return nullptr;
      filled_ = static_cast<std::size_t>(got);
      position_ = 0;
      atEnd_ = shortNames && sizeof buffer_ - filled_ >= kRoomForShortEntry;
    }
    DirectoryEntryHeader header;
    std::memcpy(&header, buffer_ + position_, sizeof header);
    const char* name = buffer_ + position_ + kNameOffset;
    position_ += header.length;
    return name;
  }

 private:
  static constexpr std::size_t kRoomForShortEntry = 64;

  int fd_;
  alignas(8) char buffer_[8192];
  std::size_t filled_ = 0;
  std::size_t position_ = 0;
  bool atEnd_ = false;
};

std::optional<pid_t> ProcessID(std::string_view name) {
  pid_t pid = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
  if (error != std::errc() || end != name.data() + name.size() || name.empty()) {
    return std::nullopt;
  }
  return pid;
}

}  // namespace

ProcessNodeScanner::ProcessNodeScanner(std::string procRoot, pid_t selfPid)
    : procRoot_(std::move(procRoot)), selfPid_(selfPid) {}

ProcessNodeScanner::Result ProcessNodeScanner::scan(
    const std::vector<std::string>& nodePaths) const {
  Result result;
  result.isOpen.assign(nodePaths.size(), false);
  result.holders.assign(nodePaths.size(), {});
  if (nodePaths.empty()) return result;

  std::unordered_map<std::string_view, std::size_t> indexOfPath;
  std::size_t longest = 0;
  for (std::size_t i = 0; i < nodePaths.size(); ++i) {
    indexOfPath.emplace(nodePaths[i], i);
    longest = std::max(longest, nodePaths[i].size());
  }

  DirectoryReader proc(::open(procRoot_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (proc.fd() < 0) {
    result.procError = errno;
    return result;
  }
  // procfs fills a listing as far as entries fit, so a short read there is the end of a folder;
  // other file systems (a test tree) are read until they say so.
  struct statfs fileSystem {};
  const bool isProcfs =
      ::fstatfs(proc.fd(), &fileSystem) == 0 && fileSystem.f_type == PROC_SUPER_MAGIC;
  // One byte more than the longest path: a longer link text is cut, and then cannot match.
  std::string linkText(longest + 1, '\0');
  char fdFolder[32];

  while (const char* process = proc.next(false)) {
    const auto pid = ProcessID(process);
    if (!pid || *pid == selfPid_) continue;
    std::snprintf(fdFolder, sizeof fdFolder, "%d/fd", *pid);
    DirectoryReader descriptors(::openat(proc.fd(), fdFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (descriptors.fd() < 0) {
      ++result.processesSkipped;
      continue;
    }
    bool readable = true;
    while (const char* descriptor = descriptors.next(isProcfs)) {
      if (descriptor[0] == '.') continue;
      const ssize_t length =
          ::readlinkat(descriptors.fd(), descriptor, linkText.data(), linkText.size());
      if (length < 0 && errno == EACCES) {
        // A process may let its folder be listed but not its links read; one refusal means all.
        readable = false;
        break;
      }
      if (length <= 0 || static_cast<std::size_t>(length) > longest) continue;
      auto found = indexOfPath.find(std::string_view(linkText.data(), length));
      if (found == indexOfPath.end()) continue;
      result.isOpen[found->second] = true;
      std::vector<pid_t>& holders = result.holders[found->second];
      if (holders.empty() || holders.back() != *pid) holders.push_back(*pid);
    }
    ++(readable ? result.processesRead : result.processesSkipped);
  }
  return result;
}

}  // namespace harkwell::v4l2
