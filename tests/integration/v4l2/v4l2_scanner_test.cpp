// The /proc scanner against the real /proc with real processes, and against fake /proc trees with
// entries it cannot read.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "HarkwellFoundation/Platform/Linux/V4L2/ProcessNodeScanner.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FakeV4L2Tree.h"

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

}  // namespace
}  // namespace harkwell::testing
