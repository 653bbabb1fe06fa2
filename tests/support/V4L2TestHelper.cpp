// A helper program for the V4L2 suites and benchmarks, run as a separate process:
//
//   v4l2_test_helper scan <procRoot> <path>...
//       Scans <procRoot> as this process sees it and prints "open" or "closed" for each path, then
//       "skipped <n>" (process entries it could not read). The suites run it as another user.
//   v4l2_test_helper hold
//       Reads commands from stdin: "open <path>" opens the path read-only and prints
//       "opened <ns>"; "stream <path>" opens it and maps it at once and prints "streaming <ns>";
//       "map" maps one page of each open file that is not mapped yet, shared and
//       read-only, as a program streaming from a node maps its buffers, and prints "mapped <ns>";
//       "unmap" undoes every mapping and prints "unmapped <ns>"; "close" undoes every mapping,
//       closes everything it opened and prints "closed <ns>". <ns> is the CLOCK_MONOTONIC time
//       taken just before the step. A step that fails prints "failed". Exits at the end of its
//       input. Copied under another name, it stands in for a program of that name.
#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/Linux/V4L2/ProcessNodeScanner.h"

namespace {

std::int64_t MonotonicNanoseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

int Scan(const std::string& procRoot, const std::vector<std::string>& paths) {
  const harkwell::v4l2::ProcessNodeScanner scanner(procRoot, ::getpid());
  const auto result = scanner.scan(paths);
  for (bool open : result.isOpen) std::cout << (open ? "open" : "closed") << "\n";
  std::cout << "skipped " << result.processesSkipped << std::endl;
  return result.procError == 0 ? 0 : 1;
}

int Hold() {
  std::vector<int> open;
  std::vector<void*> mapped;  // one per open file once mapped
  auto unmapAll = [&mapped] {
    for (void* address : mapped) {
      if (address != nullptr) ::munmap(address, 4096);
    }
    mapped.clear();
  };
  std::string line;
  while (std::getline(std::cin, line)) {
    if (line.rfind("stream ", 0) == 0) {
      const std::int64_t when = MonotonicNanoseconds();
      const int fd = ::open(line.c_str() + 7, O_RDONLY | O_CLOEXEC);
      void* address = fd < 0 ? MAP_FAILED : ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
      if (address == MAP_FAILED) {
        if (fd >= 0) ::close(fd);
        std::cout << "failed" << std::endl;
        continue;
      }
      mapped.resize(open.size(), nullptr);
      open.push_back(fd);
      mapped.push_back(address);
      std::cout << "streaming " << when << std::endl;
    } else if (line.rfind("open ", 0) == 0) {
      const std::int64_t when = MonotonicNanoseconds();
      const int fd = ::open(line.c_str() + 5, O_RDONLY | O_CLOEXEC);
      if (fd < 0) {
        std::cout << "failed" << std::endl;
        continue;
      }
      open.push_back(fd);
      std::cout << "opened " << when << std::endl;
    } else if (line == "map") {
      const std::int64_t when = MonotonicNanoseconds();
      bool failed = false;
      while (mapped.size() < open.size()) {
        void* address = ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, open[mapped.size()], 0);
        failed = failed || address == MAP_FAILED;
        mapped.push_back(address == MAP_FAILED ? nullptr : address);
      }
      if (failed) {
        std::cout << "failed" << std::endl;
      } else {
        std::cout << "mapped " << when << std::endl;
      }
    } else if (line == "unmap") {
      const std::int64_t when = MonotonicNanoseconds();
      unmapAll();
      std::cout << "unmapped " << when << std::endl;
    } else if (line == "close") {
      const std::int64_t when = MonotonicNanoseconds();
      unmapAll();
      for (int fd : open) ::close(fd);
      open.clear();
      std::cout << "closed " << when << std::endl;
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() >= 2 && arguments[0] == "scan") {
    return Scan(arguments[1], std::vector<std::string>(arguments.begin() + 2, arguments.end()));
  }
  if (arguments.size() == 1 && arguments[0] == "hold") return Hold();
  std::fprintf(stderr, "usage: v4l2_test_helper scan <procRoot> <path>... | hold\n");
  return 2;
}
