// `harkwell watch` against a real sound server: a private pulseaudio daemon with a null
// microphone, and a client that opens a recording on it as an application would.
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/cli/HarkwellRun.h"
#include "tests/cli/WatchLines.h"
#include "tests/support/PrivatePulseServer.h"
#include "tests/support/PulseTestClient.h"

namespace harkwell::testing {
namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 15s;

TEST(HarkwellOnPulseAudio, ARecordingShowsAsChangedRunningTrueThenFalse) {
  ASSERT_TRUE(PrivatePulseServer::isInstalled()) << "pulseaudio is missing (Debian: pulseaudio)";
  PrivatePulseServer server;
  const std::string failure = server.start();
  ASSERT_TRUE(failure.empty()) << failure;
  const std::string microphone = PrivatePulseServer::kNullSourceName;

  auto run =
      StartHarkwell({"watch", "--json", "--video", "none"}, {{"PULSE_SERVER", server.address()}});
  ASSERT_NE(run, nullptr);
  const auto discovered =
      NextWatchLineWhere(*run, EventFor("InitialDiscovery", microphone), kDeadline);
  ASSERT_TRUE(discovered.has_value()) << run->errorOutput();
  EXPECT_EQ((*discovered)["device"]["mediaType"], "Audio");
  EXPECT_EQ((*discovered)["device"]["name"], PrivatePulseServer::kNullSourceDescription);
  EXPECT_EQ((*discovered)["device"]["isRunning"], false);
  ASSERT_TRUE(NextWatchLineWhere(*run, IsUpdateFinished, kDeadline)) << run->errorOutput();

  PulseTestClient client(server.address());
  ASSERT_TRUE(client.isConnected());
  auto recording = client.record(microphone);
  ASSERT_NE(recording, nullptr);
  const auto started = NextWatchLineWhere(*run, EventFor("ChangedRunning", microphone), kDeadline);
  ASSERT_TRUE(started.has_value()) << run->errorOutput();
  EXPECT_EQ((*started)["device"]["isRunning"], true);

  recording.reset();
  const auto stopped = NextWatchLineWhere(*run, EventFor("ChangedRunning", microphone), kDeadline);
  ASSERT_TRUE(stopped.has_value()) << run->errorOutput();
  EXPECT_EQ((*stopped)["device"]["isRunning"], false);

  run->sendSignal(SIGINT);
  EXPECT_EQ(run->waitForExitCode(kDeadline), 0) << run->errorOutput();
}

TEST(HarkwellOnPulseAudio, ListShowsTheServersDevices) {
  ASSERT_TRUE(PrivatePulseServer::isInstalled()) << "pulseaudio is missing (Debian: pulseaudio)";
  PrivatePulseServer server;
  const std::string failure = server.start();
  ASSERT_TRUE(failure.empty()) << failure;

  const auto result =
      RunHarkwell({"list", "--json", "--video", "none"}, {{"PULSE_SERVER", server.address()}});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto devices = nlohmann::json::parse(result.out, nullptr, false);
  ASSERT_TRUE(devices.is_array()) << result.out;
  std::vector<std::string> uids;
  for (const auto& device : devices) uids.push_back(device.value("deviceUID", ""));
  EXPECT_NE(std::find(uids.begin(), uids.end(), PrivatePulseServer::kNullSourceName), uids.end())
      << result.out;
  EXPECT_NE(std::find(uids.begin(), uids.end(), PrivatePulseServer::kNullSinkName), uids.end())
      << result.out;
}

// A server address where nothing answers: no daemon is started for these.
const std::map<std::string, std::string> kNoServer{{"PULSE_SERVER", "unix:/nonexistent/harkwell"}};

TEST(HarkwellWithoutASoundServer, ListSaysSoInOneLineAndExitsWithStatus3) {
  const auto result = RunHarkwell({"list", "--audio", "pulse", "--video", "none"}, kNoServer);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "harkwell: PulseAudio: no server answered (Connection refused)\n");
}

TEST(HarkwellWithoutASoundServer, HogSaysSoInOneLineAndExitsWithStatus3) {
  const auto result = RunHarkwell(
      {"hog", "status", "5", "--json", "--audio", "pulse", "--video", "none"}, kNoServer);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "harkwell: PulseAudio: no server answered (Connection refused)\n");
}

TEST(HarkwellWithoutASoundServer, WatchGoesOnAndSaysDevicesWillAppear) {
  const auto result = RunHarkwell(
      {"watch", "--json", "--duration", "0.3", "--audio", "pulse", "--video", "none"}, kNoServer);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err,
            "harkwell: PulseAudio: no server answered (Connection refused); devices will appear "
            "when one starts\n");
  EXPECT_NE(result.out.find("\"finished\":true"), std::string::npos) << result.out;
}

}  // namespace
}  // namespace harkwell::testing
