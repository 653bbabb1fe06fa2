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
//   BM_StreamToChangedRunning
//                           a helper process opens the node and maps it at once, as a program
//                           streaming from a camera maps its buffers; the time from just before its
//                           open() to the client's ChangedRunning event, through the service, the
//                           observer and the controller. Reports the median and the 99th
//                           percentile.
//   BM_OpenToChangedRunning the open-file signal alone, in the same run: the node says it moves
//                           frames through read() only, so an open descriptor is what makes it
//                           running; the time from just before the open() to ChangedRunning.
//   BM_StreamingCpuPerHour  processor time this process uses while one camera streams (a helper
//                           keeps the node mapped) and the service looks on its schedule; measured
//                           over a few seconds, given per hour.
//   BM_IdleSixteenCameras   an observing controller with 16 USB cameras and nothing open: the
//                           processor time used over a short window, per hour, and how many /proc
//                           scans and stream checks ran in it (measured, not asserted: the goal is
//                           none).
//
// The node is in a fake V4L2 tree (the V4L2 suites' FakeV4L2Tree). The idle processes are `sleep`
// children (the suites' ChildProcess) that die with the benchmark and are killed and reaped when
// it ends.
#include <benchmark/benchmark.h>
#include <linux/videodev2.h>
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
#include "tests/support/V4L2NodeUser.h"
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

// A probe that declares every node a read()/write()-only capture node, so the open-file signal
// decides; empty: the nodes' own answers.
v4l2::NodeProbe ReadWriteOnlyProbe() {
  return [](const std::string&) {
    return v4l2::NodeProbeResult{
        v4l2::NodeCapabilities{V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_READWRITE, "Bench"}, 0};
  };
}

// `startCommand`: "open" or "stream"; the helper answers "opened <ns>" or "streaming <ns>".
void MeasureToChangedRunning(benchmark::State& state, const std::string& startCommand,
                             v4l2::NodeProbe probe) {
  const Machine& machine = SharedMachine();
  auto service = V4L2HardwareService::create({.sysfsRoot = machine.sysfsRoot(),
                                              .devRoot = machine.devRoot(),
                                              .procRoot = "/proc",
                                              .udevDataRoot = "",
                                              .probe = std::move(probe)});
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
    helper->writeLine(startCommand + " " + machine.nodePath());
    const auto opened = helper->readLine();
    const std::size_t space = opened ? opened->find(' ') : std::string::npos;
    if (space == std::string::npos || opened->rfind("failed", 0) == 0 ||
        !events->waitForCount(seen + 1)) {
      state.SkipWithError(("no ChangedRunning after " + startCommand).c_str());
      break;
    }
    const RunningEvent event = events->entries()[seen];
    const double seconds =
        static_cast<double>(event.arrived - std::stoll(opened->substr(space + 1))) / 1e9;
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
    state.counters["median_us"] = latencies[latencies.size() / 2] * 1e6;
    state.counters["p99_us"] = latencies[std::min(p99, latencies.size() - 1)] * 1e6;
  }
  helper.reset();
  controller->setObserveDevices(false);
  testing::DrainQueue(queue);
}

void BM_StreamToChangedRunning(benchmark::State& state) {
  MeasureToChangedRunning(state, "stream", {});
}

void BM_OpenToChangedRunning(benchmark::State& state) {
  MeasureToChangedRunning(state, "open", ReadWriteOnlyProbe());
}

BENCHMARK(BM_StreamToChangedRunning)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(200);
BENCHMARK(BM_OpenToChangedRunning)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(200);

double ProcessCpuSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

// Blocks this thread for `window` without using the processor (nothing is ever appended).
void Idle(std::chrono::milliseconds window) {
  testing::Recorder<int> never;
  never.waitForCount(1, window);
}

constexpr auto kCpuWindow = std::chrono::seconds(3);

void BM_StreamingCpuPerHour(benchmark::State& state) {
  const Machine& machine = SharedMachine();
  auto service = V4L2HardwareService::create({.sysfsRoot = machine.sysfsRoot(),
                                              .devRoot = machine.devRoot(),
                                              .procRoot = "/proc",
                                              .udevDataRoot = ""});
  auto streamer = testing::StartNodeUser(machine.nodePath(), true);
  if (!streamer) {
    state.SkipWithError("the streaming helper did not start");
    return;
  }
  service->waitForPendingChanges();
  for (auto _ : state) {
    const std::uint64_t checks = service->streamCheckCount();
    const double before = ProcessCpuSeconds();
    Idle(kCpuWindow);
    const double used = ProcessCpuSeconds() - before;
    const double hours = std::chrono::duration<double>(kCpuWindow).count() / 3600;
    state.SetIterationTime(used);
    state.counters["cpu_s_per_hour"] = used / hours;
    state.counters["checks_per_hour"] =
        static_cast<double>(service->streamCheckCount() - checks) / hours;
  }
}
BENCHMARK(BM_StreamingCpuPerHour)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);

void BM_IdleSixteenCameras(benchmark::State& state) {
  testing::FakeV4L2Tree tree;
  for (unsigned i = 0; i < 16; ++i) {
    const testing::FakeUsbCamera camera{.port = "1-" + std::to_string(i + 1)};
    const std::string usb = tree.addUsbInterface(camera);
    tree.addUvcStreamingInterface(camera, "1.1", true);
    tree.addNode(
        {.entry = "video" + std::to_string(2 * i), .index = 0, .minor = 2 * i, .parent = usb});
    tree.addNode({.entry = "video" + std::to_string(2 * i + 1),
                  .index = 1,
                  .minor = 2 * i + 1,
                  .parent = usb});
  }
  auto service = V4L2HardwareService::create({.sysfsRoot = tree.sysfsRoot(),
                                              .devRoot = tree.devRoot(),
                                              .procRoot = "/proc",
                                              .udevDataRoot = ""});
  testing::ScopedHardwareServices installed(SimulatedAudioHardwareService::create(), service);
  auto queue = DispatchQueue::createSerial("com.harkwell.bench.v4l2.idle");
  auto controller = MediaDeviceController::create(queue);
  controller->setDeviceEventHandler([](MediaDeviceEvent, const MediaDevice&) {});
  controller->setObserveDevices(true);
  testing::DrainQueue(queue);
  service->waitForPendingChanges();
  for (auto _ : state) {
    const std::uint64_t scans = service->processScanCount();
    const std::uint64_t checks = service->streamCheckCount();
    const double before = ProcessCpuSeconds();
    Idle(kCpuWindow);
    const double used = ProcessCpuSeconds() - before;
    state.SetIterationTime(used);
    state.counters["cpu_s_per_hour"] =
        used / (std::chrono::duration<double>(kCpuWindow).count() / 3600);
    state.counters["proc_scans"] = static_cast<double>(service->processScanCount() - scans);
    state.counters["stream_checks"] = static_cast<double>(service->streamCheckCount() - checks);
    state.counters["cameras"] = static_cast<double>(controller->connectedDevices().size());
  }
  controller->setObserveDevices(false);
  testing::DrainQueue(queue);
}
BENCHMARK(BM_IdleSixteenCameras)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
}  // namespace harkwell

BENCHMARK_MAIN();
