// What it costs to describe a device's consumers from /proc (FillProcessDetails: the executable,
// the process name, the Flatpak or Snap sandbox), for 500 processes at once, beside the cheapest
// reads that touch the same processes, in the same run.
//
//   BM_ConsumerDetails/0       FillProcessDetails for 500 real processes (`sleep` children started
//                              here) from the real /proc.
//   BM_ConsumerDetails/1       the same on a fake /proc tree of 500 entries, half of them Flatpak
//                              (a .flatpak-info in their root), a quarter in a Snap scope, the rest
//                              unsandboxed: the sandbox paths that the real machine lacks.
//   BM_CommReadAlone/0, /1     the baseline: reading only /proc/<pid>/comm of the same 500
//                              processes (one open, read and close each), the least any reader of a
//                              process's name does.
//   BM_ProcessNodeScan         the /proc descriptor scan the V4L2 service runs after each open or
//                              close, over the same machine: what the details add to it.
// Counters: `named` is how many of the 500 got a process name (500 unless processes vanished).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/Linux/ProcessDetails.h"
#include "tests/support/ChildProcess.h"
#ifdef HARKWELL_BENCH_WITH_V4L2
#include "HarkwellFoundation/Platform/Linux/V4L2/ProcessNodeScanner.h"
#endif

namespace harkwell {
namespace {

namespace fs = std::filesystem;

constexpr int kProcesses = 500;

void Write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// 500 idle real processes, and a fake /proc of 500 entries.
class Machine {
 public:
  Machine()
      : fakeProc_(fs::temp_directory_path() /
                  ("harkwell-consumers-bench-" + std::to_string(::getpid()))) {
    for (int i = 0; i < kProcesses; ++i) {
      auto child = std::make_unique<testing::ChildProcess>();
      if (child->start({"/bin/sleep", "600"}, {}, "/dev/null", nullptr)) {
        realPids_.push_back(child->pid());
        children_.push_back(std::move(child));
      }
    }
    fs::remove_all(fakeProc_);
    for (int pid = 1000; pid < 1000 + kProcesses; ++pid) {
      const fs::path entry = fakeProc_ / std::to_string(pid);
      Write(entry / "status", "Name:\trecorder\nUmask:\t0022\nState:\tS (sleeping)\nTgid:\t" +
                                  std::to_string(pid) + "\nPid:\t" + std::to_string(pid) + "\n");
      Write(entry / "comm", "recorder\n");
      fs::create_symlink("/usr/bin/recorder", entry / "exe");
      fs::create_directories(entry / "root");
      std::string cgroup = "0::/user.slice/user-1000.slice/session-2.scope\n";
      if (pid % 2 == 0) {
        Write(entry / "root/.flatpak-info",
              "[Application]\nname=org.example.Recorder" + std::to_string(pid) +
                  "\nruntime=runtime/org.example.Platform/x86_64/1\n\n[Instance]\ninstance-id=" +
                  std::to_string(pid) + "\n");
        cgroup = "0::/user.slice/app.slice/app-flatpak-org.example.Recorder" + std::to_string(pid) +
                 "-" + std::to_string(pid) + ".scope\n";
      } else if (pid % 4 == 1) {
        cgroup =
            "0::/user.slice/app.slice/snap.recorder.recorder-" + std::to_string(pid) + ".scope\n";
      }
      Write(entry / "cgroup", cgroup);
      fakePids_.push_back(pid);
    }
  }

  ~Machine() {
    // All at once, before each one's destructor waits for its own.
    for (const auto& child : children_) ::kill(child->pid(), SIGKILL);
    std::error_code ignored;
    fs::remove_all(fakeProc_, ignored);
  }

  // The processes and the /proc they are read from: 0 real, 1 fake.
  const std::vector<pid_t>& pids(int which) const { return which == 0 ? realPids_ : fakePids_; }
  std::string procRoot(int which) const { return which == 0 ? "/proc" : fakeProc_.string(); }

 private:
  fs::path fakeProc_;
  std::vector<std::unique_ptr<testing::ChildProcess>> children_;
  std::vector<pid_t> realPids_;
  std::vector<pid_t> fakePids_;
};

Machine& SharedMachine() {
  static Machine machine;
  return machine;
}

void BM_ConsumerDetails(benchmark::State& state) {
  const Machine& machine = SharedMachine();
  const int which = static_cast<int>(state.range(0));
  const std::string procRoot = machine.procRoot(which);
  std::size_t named = 0;
  for (auto _ : state) {
    named = 0;
    for (const pid_t pid : machine.pids(which)) {
      MediaDeviceConsumer consumer{.processID = pid, .isProcessIDVerified = true};
      FillProcessDetails(consumer, procRoot);
      if (consumer.processName) ++named;
      benchmark::DoNotOptimize(consumer);
    }
  }
  state.counters["named"] = static_cast<double>(named);
  state.counters["processes"] = static_cast<double>(machine.pids(which).size());
}

void BM_CommReadAlone(benchmark::State& state) {
  const Machine& machine = SharedMachine();
  const int which = static_cast<int>(state.range(0));
  const std::string procRoot = machine.procRoot(which);
  std::size_t named = 0;
  char buffer[64];
  for (auto _ : state) {
    named = 0;
    for (const pid_t pid : machine.pids(which)) {
      const std::string path = procRoot + "/" + std::to_string(pid) + "/comm";
      const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) continue;
      if (::read(fd, buffer, sizeof buffer) > 0) ++named;
      ::close(fd);
    }
    benchmark::DoNotOptimize(buffer);
  }
  state.counters["named"] = static_cast<double>(named);
  state.counters["processes"] = static_cast<double>(machine.pids(which).size());
}

#ifdef HARKWELL_BENCH_WITH_V4L2
void BM_ProcessNodeScan(benchmark::State& state) {
  SharedMachine();
  const v4l2::ProcessNodeScanner scanner("/proc", ::getpid());
  const std::vector<std::string> paths{"/dev/harkwell-bench-no-such-node"};
  for (auto _ : state) {
    const auto result = scanner.scan(paths);
    benchmark::DoNotOptimize(result.isOpen);
  }
}
BENCHMARK(BM_ProcessNodeScan)->UseRealTime()->Unit(benchmark::kMicrosecond);
#endif

BENCHMARK(BM_ConsumerDetails)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CommReadAlone)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace harkwell

BENCHMARK_MAIN();
