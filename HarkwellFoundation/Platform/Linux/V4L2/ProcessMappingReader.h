// Answers "which of these device nodes has this process mapped into its memory?" from
// /proc/<pid>/maps. A program that streams from a V4L2 node with memory-mapped buffers maps them
// through the node's file, so the mapping lasts exactly as long as the buffers are in use; a
// program that only opens the node to ask it something maps nothing.
//
// How a node is recognised in a maps line ("start-end perms offset MM:mm inode path"): the kernel
// prints the device number of the file system that holds the file (in hexadecimal) and the file's
// inode number, for a character device exactly as for a regular file: a camera at /dev/video0 on
// devtmpfs reads "00:06 412 /dev/video0", never the node's own 81:0. A line matches a node when its
// file system device and inode equal the node's (stat st_dev and st_ino), or when its path is the
// node's canonical path. The path alone still catches a node on a stacked file system, where some
// kernels print the lower file's numbers; a node that was deleted while mapped reads
// "... (deleted)" and matches by its numbers only.
//
// Only maps files are read, and only of the processes the caller names (those holding a node
// open), because a large program's maps runs to thousands of lines. Reading another process's maps
// needs the same access as reading its descriptors. Stateless; any thread may call.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace harkwell::v4l2 {

// A node as maps lines name it.
struct MappedFileIdentity {
  std::string path;  // canonical
  std::uint32_t deviceMajor = 0;
  std::uint32_t deviceMinor = 0;
  std::uint64_t inode = 0;
  bool hasNumbers = false;  // false when the node could not be examined: matched by path only
};

// The identity of the file at `path` (canonical), its numbers from stat() when it can be examined.
MappedFileIdentity IdentifyMappedFile(const std::string& path);

struct ProcessMappings {
  std::vector<bool> mapped;  // one flag per requested node, in the requested order
  int error = 0;  // the errno when the maps file could not be read (ENOENT: the process is gone)
};

// Reads `<procRoot>/<pid>/maps` once.
ProcessMappings ReadProcessMappings(const std::string& procRoot, pid_t pid,
                                    const std::vector<MappedFileIdentity>& nodes);

// Whether one maps line names `node`; exposed for tests.
bool MapsLineNamesFile(std::string_view line, const MappedFileIdentity& node);

}  // namespace harkwell::v4l2
