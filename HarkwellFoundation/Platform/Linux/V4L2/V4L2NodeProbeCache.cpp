#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2NodeProbeCache.h"

#include <sys/stat.h>

#include <cerrno>

namespace harkwell::v4l2 {
namespace {

// Refusals that may pass once the node's owner or mode changes.
bool MayChangeSoon(int error) {
  return error == EACCES || error == EPERM || error == EBUSY;
}

}  // namespace

NodeProbeResult NodeProbeCache::probe(const std::string& nodePath) {
  struct stat status {};
  const bool known = ::stat(nodePath.c_str(), &status) == 0;
  auto found = entries_.find(nodePath);
  if (known && found != entries_.end() && found->second.inode == status.st_ino &&
      found->second.device == status.st_rdev) {
    return found->second.result;
  }
  NodeProbeResult result = probe_(nodePath);
  if (known && !MayChangeSoon(result.error)) {
    entries_[nodePath] = Entry{status.st_ino, status.st_rdev, result};
  } else {
    entries_.erase(nodePath);
  }
  return result;
}

void NodeProbeCache::keepOnly(const std::set<std::string>& nodePaths) {
  std::erase_if(entries_, [&](const auto& entry) { return nodePaths.count(entry.first) == 0; });
}

}  // namespace harkwell::v4l2
