// `harkwell` against a private PipeWire stack: the default audio source is PipeWire when its
// daemon answers, `--audio pipewire` asks for it by name, and a recording shows as ChangedRunning.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "tests/cli/HarkwellRun.h"
#include "tests/cli/WatchLines.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/PrivatePipeWireStack.h"

namespace harkwell::testing {
namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 15s;
constexpr const char* kMicrophone = "harkwell_cli_mic";

std::vector<std::string> ListedUIDs(const std::string& out) {
  const auto devices = nlohmann::json::parse(out, nullptr, false);
  std::vector<std::string> uids;
  if (!devices.is_array()) return uids;
  for (const auto& device : devices) uids.push_back(device.value("deviceUID", ""));
  return uids;
}

TEST(HarkwellOnPipeWire, TheDefaultAudioSourceIsPipeWireWhenItsDaemonAnswers) {
  PrivatePipeWireStack stack;
  ASSERT_EQ(stack.start(), "");
  ASSERT_EQ(stack.createVirtualMicrophone(kMicrophone, "CLI Microphone"), "");

  // Only PIPEWIRE_REMOTE names the stack: a PulseAudio service would find no server, so the
  // microphone is listed only when PipeWire was chosen.
  for (const std::vector<std::string>& audio :
       {std::vector<std::string>{}, std::vector<std::string>{"--audio", "pipewire"}}) {
    std::vector<std::string> arguments{"list", "--json", "--video", "none"};
    arguments.insert(arguments.end(), audio.begin(), audio.end());
    const auto result = RunHarkwell(arguments, {{"PIPEWIRE_REMOTE", stack.remote()}});
    ASSERT_EQ(result.status, 0) << result.err;
    const auto uids = ListedUIDs(result.out);
    EXPECT_NE(std::find(uids.begin(), uids.end(), kMicrophone), uids.end()) << result.out;
    EXPECT_NE(std::find(uids.begin(), uids.end(), PrivatePipeWireStack::kNullSinkName), uids.end())
        << result.out;
  }
}

TEST(HarkwellOnPipeWire, ARecordingShowsAsChangedRunningTrueThenFalse) {
  PrivatePipeWireStack stack;
  ASSERT_EQ(stack.start(), "");
  ASSERT_EQ(stack.createVirtualMicrophone(kMicrophone, "CLI Microphone"), "");

  auto run = StartHarkwell({"watch", "--json", "--audio", "pipewire", "--video", "none"},
                           {{"PIPEWIRE_REMOTE", stack.remote()}});
  ASSERT_NE(run, nullptr);
  const auto discovered =
      NextWatchLineWhere(*run, EventFor("InitialDiscovery", kMicrophone), kDeadline);
  ASSERT_TRUE(discovered.has_value()) << run->errorOutput();
  EXPECT_EQ((*discovered)["device"]["isRunning"], false);
  ASSERT_TRUE(NextWatchLineWhere(*run, IsUpdateFinished, kDeadline)) << run->errorOutput();

  {
    ChildProcess recorder;
    ASSERT_EQ(stack.startRecorder(recorder, kMicrophone), "");
    const auto started =
        NextWatchLineWhere(*run, EventFor("ChangedRunning", kMicrophone), kDeadline);
    ASSERT_TRUE(started.has_value()) << run->errorOutput();
    EXPECT_EQ((*started)["device"]["isRunning"], true);
  }
  const auto stopped = NextWatchLineWhere(*run, EventFor("ChangedRunning", kMicrophone), kDeadline);
  ASSERT_TRUE(stopped.has_value()) << run->errorOutput();
  EXPECT_EQ((*stopped)["device"]["isRunning"], false);

  // Removing the microphone is a disconnection.
  ASSERT_EQ(stack.destroyNode(kMicrophone), "");
  const auto gone = NextWatchLineWhere(*run, EventFor("Disconnected", kMicrophone), kDeadline);
  ASSERT_TRUE(gone.has_value()) << run->errorOutput();

  run->sendSignal(SIGINT);
  EXPECT_EQ(run->waitForExitCode(kDeadline), 0) << run->errorOutput();
}

}  // namespace
}  // namespace harkwell::testing
