// The V4L2 service's running-state check on a busy machine, and how quickly a process opening a
// camera node reaches the client.
//
//   BM_ProcessNodeScan      the /proc scan the service runs after an open or a close: one pass over
//                           every process's descriptors, looking for one node nobody holds (the
//                           full-length case), with 500 extra idle processes started here
//                           (counted in idle_started).
//   BM_Fuser, BM_Lsof       `fuser <node>` and `lsof -w <node>` answering the same question in the
//                           same run (each includes starting the tool; BM_SpawnTrue shows that
//                           part alone).
//   Each of these runs twice: /0 by wall-clock time, /1 by processor time (the scanning thread's,
//   or the tool process's), the fairer measure on a machine busy with other work.
//   BM_OpenToChangedRunning a helper process opens the node; the time from just before its open()
//                           to the client's ChangedRunning event, through the service, the observer
//                           and the controller. Reports the median and the 99th percentile.
//
// The node is in a fake V4L2 tree (the V4L2 suites' FakeV4L2Tree). The idle processes are `sleep`
// children (the suites' ChildProcess) that die with the benchmark and are killed and reaped when
// it ends.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/ProcessNodeScanner.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2HardwareService.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FakeV4L2Tree.h"
#include "tests/support/ScopedHardwareServices.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

constexpr int kIdleProcesses = 500;

std::int64_t MonotonicNanoseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// This process's environment, which the tools run with.
std::map<std::string, std::string> OwnEnvironment() {
  std::map<std::string, std::string> variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::size_t equals = text.find('=');
    if (equals != std::string::npos) variables[text.substr(0, equals)] = text.substr(equals + 1);
  }
  return variables;
}

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// Runs `argv` to its end, its output discarded; returns the processor time (user and system) the
// child used.
double RunToCompletion(const std::vector<std::string>& argv) {
  static const std::map<std::string, std::string> environment = OwnEnvironment();
  testing::ChildProcess child;
  if (!child.start(argv, environment, "/dev/null", nullptr)) return 0;
  rusage usage{};
  child.waitUntilExit(&usage);
  return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

double ThreadCpuSeconds() {
  timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// A fake V4L2 tree with one loopback camera node, and the busy machine around it.
class Machine {
 public:
  Machine() {
    tree_.addNode({.entry = "video0", .nameFile = "Bench Loopback\n", .index = 0, .minor = 0});
    for (int i = 0; i < kIdleProcesses; ++i) {
      auto child = std::make_unique<testing::ChildProcess>();
      if (child->start({"/bin/sleep", "600"}, {}, "/dev/null", nullptr)) {
        idle_.push_back(std::move(child));
      }
    }
  }

  ~Machine() {
    // All at once, before each one's destructor waits for its own.
    for (const auto& child : idle_) ::kill(child->pid(), SIGKILL);
  }

  std::string nodePath() const { return tree_.devNodePath("video0"); }
  std::string sysfsRoot() const { return tree_.sysfsRoot(); }
  std::string devRoot() const { return tree_.devRoot(); }
  std::size_t idleProcessCount() const { return idle_.size(); }

 private:
  testing::FakeV4L2Tree tree_;
  std::vector<std::unique_ptr<testing::ChildProcess>> idle_;
};

Machine& SharedMachine() {
  static Machine machine;
  return machine;
}

// Each check twice: by the clock on the wall, and by the processor time it used (the scanning
// thread's, or the tool process's), which stays comparable on a machine busy with other work.
void BM_ProcessNodeScan(benchmark::State& state) {
  const Machine& machine = SharedMachine();
  const v4l2::ProcessNodeScanner scanner("/proc", ::getpid());
  const std::vector<std::string> paths{machine.nodePath()};
  const bool byProcessorTime = state.range(0) == 1;
  std::size_t processes = 0;
  for (auto _ : state) {
    const double before = ThreadCpuSeconds();
    const auto result = scanner.scan(paths);
    if (byProcessorTime) state.SetIterationTime(ThreadCpuSeconds() - before);
    processes = result.processesRead + result.processesSkipped;
    benchmark::DoNotOptimize(result.isOpen);
  }
  state.counters["processes"] = static_cast<double>(processes);
  state.counters["idle_started"] = static_cast<double>(machine.idleProcessCount());
}

// `package`: the Debian package that provides argv[0], named when it is missing.
void RunTool(benchmark::State& state, const std::vector<std::string>& argv,
             const std::string& package) {
  if (!testing::ChildProcess::findProgram(argv[0])) {
    state.SkipWithError((argv[0] + " is not installed (Debian package " + package + ")").c_str());
    return;
  }
  const bool byProcessorTime = state.range(0) == 1;
  for (auto _ : state) {
    const double used = RunToCompletion(argv);
    if (byProcessorTime) state.SetIterationTime(used);
  }
}

void BM_Fuser(benchmark::State& state) {
  RunTool(state, {"/usr/bin/fuser", SharedMachine().nodePath()}, "psmisc");
}

void BM_Lsof(benchmark::State& state) {
  RunTool(state, {"/usr/bin/lsof", "-w", SharedMachine().nodePath()}, "lsof");
}

void BM_SpawnTrue(benchmark::State& state) {
  RunTool(state, {"/bin/true"}, "coreutils");
}

// Argument 0: wall-clock time; argument 1: processor time.
BENCHMARK(BM_ProcessNodeScan)->Arg(0)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ProcessNodeScan)->Arg(1)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Fuser)->Arg(0)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Fuser)->Arg(1)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Lsof)->Arg(0)->UseRealTime()->Unit(benchmark::kMicrosecond)->Iterations(20);
BENCHMARK(BM_Lsof)->Arg(1)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(20);
BENCHMARK(BM_SpawnTrue)->Arg(0)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SpawnTrue)->Arg(1)->UseManualTime()->Unit(benchmark::kMicrosecond);

// The client's view: the time each ChangedRunning event arrived, and the state it reported.
struct RunningEvent {
  bool isRunning = false;
  std::int64_t arrived = 0;
};

void BM_OpenToChangedRunning(benchmark::State& state) {
  const Machine& machine = SharedMachine();
  auto service = V4L2HardwareService::create({.sysfsRoot = machine.sysfsRoot(),
                                              .devRoot = machine.devRoot(),
                                              .procRoot = "/proc",
                                              .udevDataRoot = ""});
  testing::ScopedHardwareServices installed(SimulatedAudioHardwareService::create(), service);
  auto queue = DispatchQueue::createSerial("com.harkwell.bench.v4l2");
  auto events = std::make_shared<testing::Recorder<RunningEvent>>();
  auto controller = MediaDeviceController::create(queue);
  controller->setDeviceEventHandler([events](MediaDeviceEvent event, const MediaDevice& device) {
    if (event == MediaDeviceEvent::ChangedRunning) {
      events->append({device.isRunning, MonotonicNanoseconds()});
    }
  });
  controller->setObserveDevices(true);
  testing::DrainQueue(queue);

  auto helper =
      testing::ChildProcess::launch({HARKWELL_V4L2_TEST_HELPER, "hold"}, {.pipeInput = true});
  std::vector<double> latencies;
  for (auto _ : state) {
    const std::size_t seen = events->size();
    helper->writeLine("open " + machine.nodePath());
    const auto opened = helper->readLine();
    if (!opened || opened->rfind("opened ", 0) != 0 || !events->waitForCount(seen + 1)) {
      state.SkipWithError("no ChangedRunning after an open");
      break;
    }
    const RunningEvent event = events->entries()[seen];
    const double seconds = static_cast<double>(event.arrived - std::stoll(opened->substr(7))) / 1e9;
    state.SetIterationTime(seconds);
    latencies.push_back(seconds);
    helper->writeLine("close");
    if (!helper->readLine() || !events->waitForCount(seen + 2)) {
      state.SkipWithError("no ChangedRunning after a close");
      break;
    }
  }
  if (!latencies.empty()) {
    std::sort(latencies.begin(), latencies.end());
    const std::size_t p99 = (latencies.size() * 99 + 99) / 100 - 1;
    state.counters["median_ms"] = latencies[latencies.size() / 2] * 1e3;
    state.counters["p99_ms"] = latencies[std::min(p99, latencies.size() - 1)] * 1e3;
  }
  helper.reset();
  controller->setObserveDevices(false);
  testing::DrainQueue(queue);
}
BENCHMARK(BM_OpenToChangedRunning)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(200);

}  // namespace
}  // namespace harkwell

BENCHMARK_MAIN();
