// Answers "which other processes hold these device nodes open?" by reading the
// descriptor tables under /proc (/proc/<pid>/fd/<n> are links to the open files). The scanning
// process itself never counts, so the V4L2 service's own capability queries cannot make a camera
// look busy. Entries this process may not read (another user's processes without privilege,
// processes that exit mid-scan, odd entries in a test tree) are skipped, not fatal.
//
// Only link texts are read (readlink), never the files behind them, so a scan cannot block on a
// hung network file system. Paths must be canonical (as realpath gives them): that is how the
// kernel writes the link texts.
//
// The scanner holds no state between scans; any thread may scan. A scan costs one directory read
// per process and one readlink per open descriptor, which is why the service scans only when
// inotify reports that a node was opened or closed.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace harkwell::v4l2 {

class ProcessNodeScanner {
 public:
  struct Result {
    std::vector<bool> isOpen;  // one flag per requested path, in the requested order
    // The processes holding each requested path open, in the order they were found.
    std::vector<std::vector<pid_t>> holders;
    int procError = 0;  // the errno when the /proc folder itself could not be read
    std::size_t processesRead = 0;
    std::size_t processesSkipped = 0;  // processes whose descriptors could not be read
  };

  // `procRoot`: the proc file system to read ("/proc" or a test tree). `selfPid`: the process
  // whose descriptors never count.
  explicit ProcessNodeScanner(std::string procRoot, pid_t selfPid);

  // Scans every process once (all of them: every holder of a node is wanted).
  Result scan(const std::vector<std::string>& nodePaths) const;

 private:
  std::string procRoot_;
  pid_t selfPid_;
};

}  // namespace harkwell::v4l2
