// The PulseAudio service under server faults: a private pulseaudio daemon is killed and started
// again and again while programs start and stop recording, and the controller's client must keep
// a true picture throughout. No event may arrive for a device the client was told is gone, every
// Disconnected must follow a Connected or InitialDiscovery of its device, and once the server has
// settled the client's view must be what the server itself says (pactl's list of its sources and
// sinks, monitors left out).
//
// HARKWELL_SERVER_RESTARTS sets how often the daemon is killed (20 by default).
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "HarkwellFoundation/Platform/SystemLog.h"
#include "tests/reliability/ClientViewChecker.h"
#include "tests/reliability/RunLength.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/PrivatePulseServer.h"
#include "tests/support/PulseTestClient.h"
#include "tests/support/ScopedHardwareServices.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;
using testing::ClientViewChecker;
using testing::PrivatePulseServer;
using testing::PulseTestClient;

using View = std::map<ClientViewChecker::DeviceKey, MediaDevice>;

constexpr std::uint64_t kDefaultRestarts = 20;
// The service reconnects with delays of up to 2 s, and a daemon takes a moment to start.
constexpr auto kSettleDeadline = 20s;

// A record from a real server: its UID and name must be known, and a cached record is connected.
std::optional<std::string> PulseRecordProblem(const MediaDevice& device) {
  if (device.deviceUID.empty() || device.name.empty()) return "a record without a UID or name";
  if (!device.isConnected) return "a record handed on as connected is not";
  return std::nullopt;
}

// What the server says about one of its devices.
struct ServerDevice {
  std::string uid;
  bool running = false;
  friend bool operator==(const ServerDevice&, const ServerDevice&) = default;
  friend auto operator<=>(const ServerDevice&, const ServerDevice&) = default;
};

std::string Describe(const std::set<ServerDevice>& devices) {
  std::ostringstream text;
  for (const auto& device : devices) {
    text << device.uid << (device.running ? " (running) " : " ");
  }
  return text.str();
}

std::set<ServerDevice> ClientDevices(const View& view) {
  std::set<ServerDevice> devices;
  for (const auto& [key, device] : view) devices.insert({device.deviceUID, device.isRunning});
  return devices;
}

class PulseAudioServerFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!ChildProcess::findProgram("pactl")) {
      FAIL() << "the pactl program is not installed (Debian package pulseaudio-utils)";
    }
    ASSERT_EQ(server_.start(), "");
    service_ = server_.connectService();
    ASSERT_TRUE(service_);
    services_.install(service_, SimulatedVideoHardwareService::create());
    // The service logs each lost connection; those lines are expected here.
    previousSink_ = InstallLogSink([](std::string_view) {});
  }

  void TearDown() override {
    if (controller_) {
      controller_->setObserveDevices(false);
      testing::DrainQueue(queue_);
    }
    controller_.reset();
    if (previousSink_) InstallLogSink(std::move(*previousSink_));
    previousSink_.reset();
    services_.restore();
  }

  // What `pactl list short sources` and `... sinks` say: each device's name and whether its state
  // is RUNNING. Monitor sources are not devices.
  std::optional<std::set<ServerDevice>> serverDevices() {
    std::set<ServerDevice> devices;
    for (const char* kind : {"sources", "sinks"}) {
      const std::string outputPath = server_.folder() + "/pactl.out";
      std::remove(outputPath.c_str());
      ChildProcess pactl;
      std::string error;
      if (!pactl.start(
              {"pactl", "--server=" + server_.address(), "list", "short", kind},
              {{"PATH", "/usr/local/bin:/usr/bin:/bin"}, {"HOME", server_.folder() + "/home"}},
              outputPath, &error)) {
        ADD_FAILURE() << "pactl: " << error;
        return std::nullopt;
      }
      auto status = pactl.waitForExit(10s);
      if (!status || *status != 0) return std::nullopt;
      std::ifstream output(outputPath);
      for (std::string line; std::getline(output, line);) {
        std::vector<std::string> fields;
        std::istringstream columns(line);
        for (std::string field; std::getline(columns, field, '\t');) fields.push_back(field);
        if (fields.size() < 5) continue;
        const std::string& name = fields[1];
        if (name.size() > 8 && name.compare(name.size() - 8, 8, ".monitor") == 0) continue;
        devices.insert({name, fields[4] == "RUNNING"});
      }
    }
    return devices;
  }

  PrivatePulseServer server_;
  std::shared_ptr<PulseAudioHardwareService> service_;
  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("test.server-faults");
  // A member, so that it outlives the observation TearDown switches off: the controller's
  // callbacks write to it until then, even when an assertion ends the test early.
  ClientViewChecker checker_{queue_, PulseRecordProblem};
  std::shared_ptr<MediaDeviceController> controller_;

 private:
  testing::ScopedHardwareServices services_;
  // Set once SetUp has put in its own sink.
  std::optional<LogSink> previousSink_;
};

bool Lists(const View& view, const std::string& uid, std::optional<bool> running = std::nullopt) {
  return std::any_of(view.begin(), view.end(), [&](const auto& entry) {
    return entry.second.deviceUID == uid && (!running || entry.second.isRunning == *running);
  });
}

TEST_F(PulseAudioServerFaultTest, KilledAndRestartedServerLeavesTheClientWithTheServersView) {
  const std::uint64_t restarts =
      testing::RunLengthFromEnvironment("HARKWELL_SERVER_RESTARTS", kDefaultRestarts);
  ClientViewChecker& checker = checker_;
  controller_ = MediaDeviceController::create(queue_);
  checker.attach(*controller_);
  controller_->setObserveDevices(true);
  const std::string source = PrivatePulseServer::kNullSourceName;
  const std::string sink = PrivatePulseServer::kNullSinkName;

  for (std::uint64_t round = 0; round < restarts; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    ASSERT_TRUE(checker.waitUntilView(
        [&](const View& view) { return Lists(view, source) && Lists(view, sink); },
        kSettleDeadline))
        << "the server's devices did not come back";
    auto program = std::make_unique<PulseTestClient>(server_.address());
    ASSERT_TRUE(program->isConnected());

    // Each round ends the server at another moment of a recording's life.
    std::unique_ptr<PulseTestClient::Recording> recording;
    std::unique_ptr<PulseTestClient::Recording> second;
    switch (round % 4) {
      case 0:  // just as a recording starts
        recording = program->record(source);
        ASSERT_TRUE(recording);
        break;
      case 1:  // while the client knows the source is in use
        recording = program->record(source);
        ASSERT_TRUE(recording);
        ASSERT_TRUE(checker.waitUntilView(
            [&](const View& view) { return Lists(view, source, true); }, kSettleDeadline));
        break;
      case 2:  // just after the recording stopped
        recording = program->record(source);
        ASSERT_TRUE(recording);
        ASSERT_TRUE(checker.waitUntilView(
            [&](const View& view) { return Lists(view, source, true); }, kSettleDeadline));
        recording.reset();
        break;
      default: {  // with a device that exists only in this server's life, and a paused stream
        const std::string extra = "harkwell_fault_source_" + std::to_string(round);
        ASSERT_TRUE(program->loadModule("module-null-source", "source_name=" + extra));
        recording = program->record(extra);
        ASSERT_TRUE(recording);
        second = program->record(source, {.startCorked = true});
        ASSERT_TRUE(second);
        ASSERT_TRUE(second->setCorked(false));
        break;
      }
    }
    server_.kill();
    ASSERT_TRUE(
        checker.waitUntilView([](const View& view) { return view.empty(); }, kSettleDeadline))
        << "the client still holds devices of a server that is gone";
    // The program's streams went with the server; it lets go of them now, as a program would.
    second.reset();
    recording.reset();
    program.reset();
    ASSERT_EQ(server_.start(), "");
    auto violation = checker.firstViolation();
    ASSERT_FALSE(violation) << *violation;
  }

  // The server has settled with one program recording from its source: the client must see what
  // the server says.
  auto program = std::make_unique<PulseTestClient>(server_.address());
  ASSERT_TRUE(program->isConnected());
  auto recording = program->record(source);
  ASSERT_TRUE(recording);
  auto server = serverDevices();
  ASSERT_TRUE(server);
  ASSERT_TRUE(server->count({source, true})) << Describe(*server);
  const bool settled = checker.waitUntilView(
      [&](const View& view) { return ClientDevices(view) == *server; }, kSettleDeadline);
  EXPECT_TRUE(settled) << "the server says " << Describe(*server) << "; the client sees "
                       << Describe(ClientDevices(checker.view()));
  auto violation = checker.firstViolation();
  EXPECT_FALSE(violation) << *violation;
  const auto counts = checker.eventCounts();
  std::printf(
      "server faults: %llu restarts; events: %llu InitialDiscovery, %llu Connected, "
      "%llu Disconnected, %llu ChangedRunning\n",
      static_cast<unsigned long long>(restarts), static_cast<unsigned long long>(counts[0]),
      static_cast<unsigned long long>(counts[1]), static_cast<unsigned long long>(counts[2]),
      static_cast<unsigned long long>(counts[3]));
  EXPECT_EQ(checker.eventCount(MediaDeviceEvent::Disconnected),
            checker.eventCount(MediaDeviceEvent::InitialDiscovery) +
                checker.eventCount(MediaDeviceEvent::Connected) -
                ClientDevices(checker.view()).size());
}

}  // namespace
}  // namespace harkwell
