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
//   BM_QueryThenStreamToChangedRunning
//                           a helper opens the node, keeps it open without streaming for a while
//                           (0 to 149 ms, as a program lists formats and controls first), then maps
//                           it: the time from just before its mmap() to ChangedRunning. A stream
//                           that starts on an open node has no file event of its own, so this is
//                           what the schedule of stream checks after an open costs.
//   Each latency benchmark also reports first_check_share: the share of starts that the first
//   stream check after them saw (the rest waited for a later check). BM_StreamingCpuPerHour
//   processor time this process uses while one camera streams (a helper
//                           keeps the node mapped) and the service looks on its schedule; measured
//                           over ten seconds, given per hour.
//   BM_IdleSixteenCameras   an observing controller with 16 USB cameras and nothing open: the
//                           processor time used over one minute, per hour, and how many /proc
//                           scans and stream checks ran in it (measured, not asserted: the goal is
//                           none).
//   BM_MediaServerHoldsSixteenCameras
//                           the same 16 cameras with every node held open by a process named like
//                           a media server, as PipeWire holds them on a desktop while nobody
//                           watches: /0 without the server's graph (its mappings decide, so the
//                           service keeps looking), /1 with a graph that answers for the cameras
//                           (its changes say when to look); ten seconds each, given per hour.
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
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
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

// Whether the process has become `sleep` (its exec is done).
bool RunsSleep(pid_t pid) {
  std::ifstream command("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  return std::getline(command, name) && name == "sleep";
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
    // A child is started once forked; its exec may still be under way, and 500 of them would
    // take the processor from the first measurements on a busy machine.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (const auto& child : idle_) {
      while (!RunsSleep(child->pid()) && std::chrono::steady_clock::now() < giveUp) {
        ::usleep(1000);
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

// The client's view: the time each ChangedRunning event arrived, the state it reported, and how
// many stream checks the service had run by then.
struct RunningEvent {
  bool isRunning = false;
  std::int64_t arrived = 0;
  std::uint64_t streamChecks = 0;
};

// A probe that declares every node a read()/write()-only capture node, so the open-file signal
// decides; empty: the nodes' own answers.
v4l2::NodeProbe ReadWriteOnlyProbe() {
  return [](const std::string&) {
    return v4l2::NodeProbeResult{
        v4l2::NodeCapabilities{V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_READWRITE, "Bench"}, 0};
  };
}

// How the helper starts in each iteration. "open" or "stream" is one command, measured from just
// before its open(). With a query time, the helper opens the node, keeps it open that long without
// streaming (as a program lists formats and controls first), then maps it; measured from just
// before its mmap().
struct StartPlan {
  std::string command;  // "open", "stream", or "open" followed by "map"
  // The query time of iteration `i`; null: none.
  std::function<std::chrono::milliseconds(std::size_t i)> queryTime;
};

// The helper's timestamp from an answer "<word> <ns>"; absent when it failed.
std::optional<std::int64_t> StepTime(const std::optional<std::string>& answer) {
  const std::size_t space = answer ? answer->find(' ') : std::string::npos;
  if (space == std::string::npos || answer->rfind("failed", 0) == 0) return std::nullopt;
  return std::stoll(answer->substr(space + 1));
}

// Blocks this thread for `window` without using the processor (nothing is ever appended).
void Idle(std::chrono::milliseconds window) {
  testing::Recorder<int> never;
  never.waitForCount(1, window);
}

double Percentile(const std::vector<double>& sorted, int percent) {
  const std::size_t rank = (sorted.size() * static_cast<std::size_t>(percent) + 99) / 100;
  return sorted[std::min(rank == 0 ? 0 : rank - 1, sorted.size() - 1)];
}

void MeasureToChangedRunning(benchmark::State& state, const StartPlan& plan,
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
  controller->setDeviceEventHandler(
      [events, raw = service.get()](MediaDeviceEvent event, const MediaDevice& device) {
        if (event == MediaDeviceEvent::ChangedRunning) {
          events->append({device.isRunning, MonotonicNanoseconds(), raw->streamCheckCount()});
        }
      });
  controller->setObserveDevices(true);
  testing::DrainQueue(queue);

  auto helper =
      testing::ChildProcess::launch({HARKWELL_V4L2_TEST_HELPER, "hold"}, {.pipeInput = true});
  std::vector<double> latencies;
  std::size_t iteration = 0;
  std::size_t seenByTheFirstCheck = 0;
  std::size_t early = 0;  // running reported during the query time
  for (auto _ : state) {
    const std::size_t seen = events->size();
    helper->writeLine(plan.command + " " + machine.nodePath());
    std::optional<std::int64_t> started = StepTime(helper->readLine());
    std::uint64_t checksBefore = service->streamCheckCount();
    if (started && plan.queryTime) {
      Idle(plan.queryTime(iteration));
      if (events->size() != seen) ++early;
      checksBefore = service->streamCheckCount();
      helper->writeLine("map");
      started = StepTime(helper->readLine());
    }
    ++iteration;
    if (!started || !events->waitForCount(seen + 1)) {
      state.SkipWithError(("no ChangedRunning after " + plan.command).c_str());
      break;
    }
    const RunningEvent event = events->entries()[seen];
    const double seconds = static_cast<double>(event.arrived - *started) / 1e9;
    state.SetIterationTime(seconds);
    latencies.push_back(seconds);
    if (event.streamChecks == checksBefore + 1) ++seenByTheFirstCheck;
    helper->writeLine("close");
    if (!helper->readLine() || !events->waitForCount(seen + 2)) {
      state.SkipWithError("no ChangedRunning after a close");
      break;
    }
  }
  if (!latencies.empty()) {
    std::sort(latencies.begin(), latencies.end());
    state.counters["median_ms"] = Percentile(latencies, 50) * 1e3;
    state.counters["p99_ms"] = Percentile(latencies, 99) * 1e3;
    state.counters["max_ms"] = latencies.back() * 1e3;
    // The share of starts the first stream check after them saw; the rest waited for later ones.
    state.counters["first_check_share"] =
        static_cast<double>(seenByTheFirstCheck) / static_cast<double>(latencies.size());
    if (plan.queryTime) state.counters["early_events"] = static_cast<double>(early);
  }
  helper.reset();
  controller->setObserveDevices(false);
  testing::DrainQueue(queue);
}

void BM_StreamToChangedRunning(benchmark::State& state) {
  MeasureToChangedRunning(state, {.command = "stream", .queryTime = {}}, {});
}

void BM_OpenToChangedRunning(benchmark::State& state) {
  MeasureToChangedRunning(state, {.command = "open", .queryTime = {}}, ReadWriteOnlyProbe());
}

// Query times spread over 0 to 149 ms, the same in every run.
void BM_QueryThenStreamToChangedRunning(benchmark::State& state) {
  MeasureToChangedRunning(
      state,
      {.command = "open",
       .queryTime = [](std::size_t i) { return std::chrono::milliseconds((i * 37) % 150); }},
      {});
}

BENCHMARK(BM_StreamToChangedRunning)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(200);
BENCHMARK(BM_OpenToChangedRunning)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(200);
BENCHMARK(BM_QueryThenStreamToChangedRunning)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(100);

double ProcessCpuSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

// Long enough for the schedule to settle at its longest delay (one camera streaming), and the
// minute the idle goal is stated for.
constexpr auto kStreamingWindow = std::chrono::seconds(10);
constexpr auto kIdleWindow = std::chrono::seconds(60);

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
  // Past the quick checks that follow the open: the steady state while the camera streams.
  const std::uint64_t openedAt = service->streamCheckCount();
  while (service->streamCheckCount() - openedAt < service->streamChecksAfterAnOpen()) {
    Idle(std::chrono::milliseconds(50));
  }
  for (auto _ : state) {
    const std::uint64_t checks = service->streamCheckCount();
    const double before = ProcessCpuSeconds();
    Idle(kStreamingWindow);
    const double used = ProcessCpuSeconds() - before;
    const double hours = std::chrono::duration<double>(kStreamingWindow).count() / 3600;
    state.SetIterationTime(used);
    state.counters["cpu_s_per_hour"] = used / hours;
    state.counters["checks_per_hour"] =
        static_cast<double>(service->streamCheckCount() - checks) / hours;
  }
}
BENCHMARK(BM_StreamingCpuPerHour)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);

// Sixteen USB cameras with isochronous streaming interfaces, a capture and a metadata node each.
void AddSixteenCameras(testing::FakeV4L2Tree& tree) {
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
}

// An observing controller on `service` for `window`: the processor time this process used, per
// hour, and the /proc scans and stream checks the service ran meanwhile.
void MeasureObserving(benchmark::State& state, const std::shared_ptr<V4L2HardwareService>& service,
                      std::chrono::milliseconds window) {
  testing::ScopedHardwareServices installed(SimulatedAudioHardwareService::create(), service);
  auto queue = DispatchQueue::createSerial("com.harkwell.bench.v4l2.idle");
  auto controller = MediaDeviceController::create(queue);
  controller->setDeviceEventHandler([](MediaDeviceEvent, const MediaDevice&) {});
  controller->setObserveDevices(true);
  testing::DrainQueue(queue);
  service->waitForPendingChanges();
  // Past the quick checks that follow any open before the window.
  const std::uint64_t start = service->streamCheckCount();
  while (service->streamCheckScheduled() &&
         service->streamCheckCount() - start < service->streamChecksAfterAnOpen()) {
    Idle(std::chrono::milliseconds(50));
  }
  for (auto _ : state) {
    const std::uint64_t scans = service->processScanCount();
    const std::uint64_t checks = service->streamCheckCount();
    const double before = ProcessCpuSeconds();
    Idle(window);
    const double used = ProcessCpuSeconds() - before;
    state.SetIterationTime(used);
    const double hours = std::chrono::duration<double>(window).count() / 3600;
    state.counters["cpu_s_per_hour"] = used / hours;
    state.counters["proc_scans_per_hour"] =
        static_cast<double>(service->processScanCount() - scans) / hours;
    state.counters["stream_checks_per_hour"] =
        static_cast<double>(service->streamCheckCount() - checks) / hours;
    state.counters["cameras"] = static_cast<double>(controller->connectedDevices().size());
  }
  controller->setObserveDevices(false);
  testing::DrainQueue(queue);
}

void BM_IdleSixteenCameras(benchmark::State& state) {
  testing::FakeV4L2Tree tree;
  AddSixteenCameras(tree);
  MeasureObserving(state,
                   V4L2HardwareService::create({.sysfsRoot = tree.sysfsRoot(),
                                                .devRoot = tree.devRoot(),
                                                .procRoot = "/proc",
                                                .udevDataRoot = ""}),
                   kIdleWindow);
}
BENCHMARK(BM_IdleSixteenCameras)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);

// A media server's graph that knows every camera and streams none of them, and never changes.
class QuietMediaServerGraph final : public v4l2::MediaServerGraph {
 public:
  std::optional<bool> streamsCamera(const v4l2::CameraDescription&) override { return false; }
  void setChangeHandler(std::function<void()>) override {}
};

// Sixteen cameras whose every node a process named like a media server holds open, as PipeWire
// does on a desktop while nobody watches: /0 without the server's graph (its mappings decide, so
// the service keeps looking), /1 with a graph that answers for the cameras.
void BM_MediaServerHoldsSixteenCameras(benchmark::State& state) {
  testing::FakeV4L2Tree tree;
  AddSixteenCameras(tree);
  const std::string server = tree.root() + "/pipewire";
  std::filesystem::copy_file(HARKWELL_V4L2_TEST_HELPER, server);
  std::filesystem::permissions(server, std::filesystem::perms::owner_all);
  auto holder = testing::ChildProcess::launch({server, "hold"}, {.pipeInput = true});
  for (unsigned node = 0; node < 32 && holder; ++node) {
    if (!testing::TellNodeUser(*holder, "open " + tree.devNodePath("video" + std::to_string(node)),
                               "opened")) {
      holder.reset();
    }
  }
  if (!holder) {
    state.SkipWithError("the media server's stand-in did not open the nodes");
    return;
  }
  std::shared_ptr<v4l2::MediaServerGraph> graph;
  if (state.range(0) == 1) graph = std::make_shared<QuietMediaServerGraph>();
  MeasureObserving(state,
                   V4L2HardwareService::create({.sysfsRoot = tree.sysfsRoot(),
                                                .devRoot = tree.devRoot(),
                                                .procRoot = "/proc",
                                                .udevDataRoot = "",
                                                .mediaServerGraph = graph}),
                   kStreamingWindow);
}
BENCHMARK(BM_MediaServerHoldsSixteenCameras)
    ->Arg(0)
    ->Arg(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

}  // namespace
}  // namespace harkwell

BENCHMARK_MAIN();
