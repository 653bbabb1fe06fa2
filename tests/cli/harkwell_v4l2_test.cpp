// `harkwell watch` against the V4L2 service on a stand-in tree (sysfs and /dev in a temporary
// folder, the real /proc): another process streaming from the camera's node (its buffers mapped)
// shows as ChangedRunning.
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/cli/HarkwellRun.h"
#include "tests/cli/WatchLines.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FakeV4L2Tree.h"
#include "tests/support/V4L2NodeUser.h"

namespace harkwell::testing {
namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 15s;

TEST(HarkwellOnV4L2, ACameraStreamedElsewhereShowsAsChangedRunningTrueThenFalse) {
  FakeV4L2Tree tree;
  const std::string usb = tree.addUsbInterface({});
  tree.addNode({.entry = "video0", .index = 0, .minor = 0, .parent = usb});
  tree.addNode({.entry = "video1", .index = 1, .minor = 1, .parent = usb});

  auto run = StartHarkwell({"watch", "--json", "--audio", "none", "--sysfs-root", tree.sysfsRoot(),
                            "--dev-root", tree.devRoot(), "--proc-root", "/proc"});
  ASSERT_NE(run, nullptr);
  const auto discovered = NextWatchLineWhere(
      *run,
      [](const nlohmann::json& line) {
        return line.value("event", "") == "InitialDiscovery" &&
               line["device"].value("mediaType", "") == "Video";
      },
      kDeadline);
  ASSERT_TRUE(discovered.has_value()) << run->errorOutput();
  const std::string camera = (*discovered)["device"]["deviceUID"];
  EXPECT_EQ((*discovered)["device"]["transportType"], "USB");
  EXPECT_EQ((*discovered)["device"]["isRunning"], false);
  ASSERT_TRUE(NextWatchLineWhere(*run, IsUpdateFinished, kDeadline)) << run->errorOutput();

  // Another process that holds the capture node open and mapped until it is killed.
  auto holder = StartNodeUser(tree.devNodePath("video0"), true);
  ASSERT_NE(holder, nullptr) << "the node user did not start";
  const auto opened = NextWatchLineWhere(*run, EventFor("ChangedRunning", camera), kDeadline);
  ASSERT_TRUE(opened.has_value()) << run->errorOutput();
  EXPECT_EQ((*opened)["device"]["isRunning"], true);

  holder.reset();  // kills it, which unmaps and closes the node
  const auto closed = NextWatchLineWhere(*run, EventFor("ChangedRunning", camera), kDeadline);
  ASSERT_TRUE(closed.has_value()) << run->errorOutput();
  EXPECT_EQ((*closed)["device"]["isRunning"], false);

  run->sendSignal(SIGINT);
  EXPECT_EQ(run->waitForExitCode(kDeadline), 0) << run->errorOutput();
}

}  // namespace
}  // namespace harkwell::testing
