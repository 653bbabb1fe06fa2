// Remembers what each video node answered to a probe, so the service opens a node once when it
// appears rather than at every re-read of the tree. An answer is kept for as long as the node is
// the same file (same inode and device number); a node that is re-created is asked again. A node
// that refused to open (EACCES, EPERM, EBUSY) is asked again at the next re-read, because udev
// usually fixes its permissions a moment after it appears.
//
// Used by the V4L2 service's background thread only; not thread-safe.
#pragma once

#include <sys/types.h>

#include <map>
#include <set>
#include <string>

#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2NodeProbe.h"

namespace harkwell::v4l2 {

class NodeProbeCache {
 public:
  explicit NodeProbeCache(NodeProbe probe) : probe_(std::move(probe)) {}

  // The remembered answer for `nodePath`, or a fresh one from the probe.
  NodeProbeResult probe(const std::string& nodePath);
  // Forgets every node not in `nodePaths`.
  void keepOnly(const std::set<std::string>& nodePaths);

 private:
  struct Entry {
    ino_t inode = 0;
    dev_t device = 0;
    NodeProbeResult result;
  };

  NodeProbe probe_;
  std::map<std::string, Entry> entries_;
};

}  // namespace harkwell::v4l2
