// The /proc scanner and the maps reader against the real /proc with real processes, and against
// fake /proc trees with entries it cannot read.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "HarkwellFoundation/Platform/Linux/V4L2/ProcessMappingReader.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/ProcessNodeScanner.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/UsbStreamingState.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FakeV4L2Tree.h"
#include "tests/support/V4L2NodeUser.h"

namespace harkwell::testing {
namespace {

using v4l2::ProcessNodeScanner;

class ProcessNodeScannerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tree.createDevNode("video0");
    tree.createDevNode("video1");
    ::chmod(tree.root().c_str(), 0755);
  }

  FakeV4L2Tree tree;
  const std::string video0 = tree.devNodePath("video0");
  const std::string video1 = tree.devNodePath("video1");
};

TEST_F(ProcessNodeScannerTest, FindsANodeHeldByAnotherProcess) {
  auto holder = StartNodeHolder(video1);
  ASSERT_TRUE(holder);

  const auto result = ProcessNodeScanner("/proc", ::getpid()).scan({video0, video1});

  EXPECT_EQ(result.isOpen, (std::vector<bool>{false, true}));
  EXPECT_EQ(result.procError, 0);
  EXPECT_GT(result.processesRead, 0u);
}

TEST_F(ProcessNodeScannerTest, NodeIsClosedAgainOnceItsHolderExits) {
  auto holder = StartNodeHolder(video0);
  ASSERT_TRUE(holder);
  holder->kill();

  const auto result = ProcessNodeScanner("/proc", ::getpid()).scan({video0});

  EXPECT_EQ(result.isOpen, std::vector<bool>{false});
}

TEST_F(ProcessNodeScannerTest, OwnDescriptorsNeverCount) {
  const int fd = ::open(video0.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);

  const auto result = ProcessNodeScanner("/proc", ::getpid()).scan({video0});
  ::close(fd);

  EXPECT_EQ(result.isOpen, std::vector<bool>{false});
}

TEST_F(ProcessNodeScannerTest, EntriesThatCannotBeReadAreSkipped) {
  // 100: descriptor folder is a file; 101: no descriptor folder; 102: a holder; 103: a link
  // pointing at itself; 104: a link to another file; "self" and "net" are not processes.
  tree.writeFile("proc/100/fd", "");
  tree.makeFolder("proc/101");
  tree.makeSymlink(video1, "proc/102/fd/7");
  tree.makeSymlink(tree.procRoot() + "/103/fd/3", "proc/103/fd/3");
  tree.makeSymlink("/etc/hostname", "proc/104/fd/0");
  tree.makeSymlink(video0, "proc/self/fd/3");
  tree.makeFolder("proc/net");

  const auto result = ProcessNodeScanner(tree.procRoot(), ::getpid()).scan({video0, video1});

  EXPECT_EQ(result.isOpen, (std::vector<bool>{false, true}));
  EXPECT_EQ(result.processesSkipped, 2u);
  EXPECT_EQ(result.processesRead, 3u);
}

TEST_F(ProcessNodeScannerTest, TheGivenProcessIsLeftOut) {
  tree.makeSymlink(video0, "proc/4242/fd/3");

  EXPECT_EQ(ProcessNodeScanner(tree.procRoot(), 4242).scan({video0}).isOpen,
            std::vector<bool>{false});
  EXPECT_EQ(ProcessNodeScanner(tree.procRoot(), 4243).scan({video0}).isOpen,
            std::vector<bool>{true});
}

TEST_F(ProcessNodeScannerTest, MissingProcFolderIsAnErrorNotACrash) {
  const auto result = ProcessNodeScanner(tree.root() + "/no-such-proc", ::getpid()).scan({video0});

  EXPECT_EQ(result.procError, ENOENT);
  EXPECT_EQ(result.isOpen, std::vector<bool>{false});
}

TEST_F(ProcessNodeScannerTest, UnreadableProcessesAreSkippedWhenScanningWithoutPrivilege) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to start processes as another user";
  constexpr uid_t kNobody = 65534;
  // This (root) process holds video0: an unprivileged scanner may not look at it. A process of
  // its own user holds video1: that one it sees.
  const int fd = ::open(video0.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  auto ownHolder = StartNodeHolder(video1, kNobody);
  ASSERT_TRUE(ownHolder);

  auto scanner = ChildProcess::launch({HARKWELL_V4L2_TEST_HELPER, "scan", "/proc", video0, video1},
                                      {.runAsUser = kNobody});
  ASSERT_TRUE(scanner);
  const auto first = scanner->readLine();
  const auto second = scanner->readLine();
  const auto skipped = scanner->readLine();
  const auto status = scanner->waitForExit();
  ::close(fd);

  EXPECT_EQ(first, "closed");
  EXPECT_EQ(second, "open");
  ASSERT_TRUE(skipped.has_value());
  EXPECT_NE(*skipped, "skipped 0");
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
}

TEST_F(ProcessNodeScannerTest, EveryHolderOfANodeIsListed) {
  auto first = StartNodeHolder(video0);
  auto second = StartNodeHolder(video0);
  ASSERT_TRUE(first && second);

  const auto result = ProcessNodeScanner("/proc", ::getpid()).scan({video0, video1});

  ASSERT_EQ(result.holders.size(), 2u);
  std::vector<pid_t> holders = result.holders[0];
  std::sort(holders.begin(), holders.end());
  std::vector<pid_t> expected{first->pid(), second->pid()};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(holders, expected);
  EXPECT_TRUE(result.holders[1].empty());
}

TEST(ProcessMappingReader, MapsLineMatchesByFileSystemNumbersOrByPath) {
  const v4l2::MappedFileIdentity node{
      .path = "/dev/video0", .deviceMajor = 0, .deviceMinor = 6, .inode = 412, .hasNumbers = true};
  using v4l2::MapsLineNamesFile;
  EXPECT_TRUE(MapsLineNamesFile("7f01-7f02 rw-s 00000000 00:06 412      /dev/video0", node));
  // Seen from another mount namespace under another name, or deleted meanwhile.
  EXPECT_TRUE(MapsLineNamesFile("7f01-7f02 rw-s 00000000 00:06 412      /x/cam", node));
  EXPECT_TRUE(MapsLineNamesFile("7f01-7f02 rw-s 00000000 00:06 412 /dev/video0 (deleted)", node));
  // A stacked file system printing the lower file's numbers.
  EXPECT_TRUE(MapsLineNamesFile("7f01-7f02 rw-s 00000000 fe:01 99 /dev/video0", node));
  // The node's own device number (81:0) is not what maps shows; other files do not match.
  EXPECT_FALSE(MapsLineNamesFile("7f01-7f02 rw-s 00000000 51:00 412 /dev/video1", node));
  EXPECT_FALSE(MapsLineNamesFile("7f01-7f02 rw-s 00000000 00:06 413 /dev/video1", node));
  EXPECT_FALSE(MapsLineNamesFile("7f01-7f02 rw-p 00000000 00:00 0 ", node));
  EXPECT_FALSE(MapsLineNamesFile("garbage", node));
}

TEST_F(ProcessNodeScannerTest, MappingOfAnotherProcessIsFoundAsTheKernelPrintsIt) {
  auto user = StartNodeUser(video0, true);
  ASSERT_TRUE(user);
  const v4l2::MappedFileIdentity node = v4l2::IdentifyMappedFile(video0);
  ASSERT_TRUE(node.hasNumbers);
  v4l2::MappedFileIdentity byNumbersOnly = node;
  byNumbersOnly.path = "/nowhere";
  v4l2::MappedFileIdentity byPathOnly{.path = video0};

  const auto found = v4l2::ReadProcessMappings(
      "/proc", user->pid(), {node, byNumbersOnly, byPathOnly, v4l2::IdentifyMappedFile(video1)});

  EXPECT_EQ(found.error, 0);
  EXPECT_EQ(found.mapped, (std::vector<bool>{true, true, true, false}));
  ASSERT_TRUE(TellNodeUser(*user, "unmap", "unmapped"));
  EXPECT_EQ(v4l2::ReadProcessMappings("/proc", user->pid(), {node}).mapped,
            std::vector<bool>{false});
  EXPECT_EQ(v4l2::ReadProcessMappings("/proc", 0, {node}).error, ENOENT);
}

TEST_F(ProcessNodeScannerTest, StreamingInterfacesBelongToTheFunctionBeforeThem) {
  // One USB device with two cameras: interfaces 0 and 1 (colour), 2 and 3 (infrared).
  const FakeUsbCamera colour{.interface = "1.0"};
  const std::string colourControl = tree.sysfsRoot() + "/" + tree.addUsbInterface(colour);
  const std::string colourStreaming = tree.addUvcStreamingInterface(colour, "1.1", true);
  const std::string infraredControl =
      tree.sysfsRoot() + "/" + tree.addUsbInterface({.interface = "1.2"});
  tree.writeFile("sys/" + infraredControl.substr(tree.sysfsRoot().size() + 1) + "/bInterfaceClass",
                 "0e\n");
  const std::string infraredStreaming = tree.addUvcStreamingInterface(colour, "1.3", true);
  const std::string device = colourControl.substr(0, colourControl.rfind('/'));

  tree.setAlternateSetting(infraredStreaming, 2, 1);
  EXPECT_EQ(v4l2::ReadUsbStreamingState(colourControl, device).isochronousStreaming, false);
  EXPECT_EQ(v4l2::ReadUsbStreamingState(infraredControl, device).isochronousStreaming, true);
  tree.setAlternateSetting(colourStreaming, 1, 1);
  EXPECT_EQ(v4l2::ReadUsbStreamingState(colourControl, device).isochronousStreaming, true);
  // A camera without streaming interfaces in sysfs says nothing.
  EXPECT_EQ(v4l2::ReadUsbStreamingState(device + "/1-2:1.9", device).isochronousStreaming,
            std::nullopt);
}

}  // namespace
}  // namespace harkwell::testing
