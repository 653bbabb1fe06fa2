// What /proc tells about a device's consumers: the parsers on file text, the reader on a test tree
// laid out like /proc, and the reader on the real /proc with processes this test starts.
#include "HarkwellFoundation/Platform/Linux/ProcessDetails.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "tests/support/ChildProcess.h"

namespace harkwell {
namespace {

namespace fs = std::filesystem;
using testing::ChildProcess;

constexpr std::string_view kStatus =
    "Name:\trecorder\nUmask:\t0022\nState:\tS (sleeping)\nTgid:\t4242\nNgid:\t0\nPid:\t4242\n";

TEST(ProcessDetailsParsingTest, ExecutablePathDropsTheDeletedMark) {
  EXPECT_EQ(ExecutablePathFromLinkText("/usr/bin/arecord"), "/usr/bin/arecord");
  EXPECT_EQ(ExecutablePathFromLinkText("/usr/bin/arecord (deleted)"), "/usr/bin/arecord");
  EXPECT_EQ(ExecutablePathFromLinkText("/tmp/x (deleted) (deleted)"), "/tmp/x (deleted)");
  EXPECT_EQ(ExecutablePathFromLinkText("/memfd:runner (deleted)"), "/memfd:runner");
  EXPECT_EQ(ExecutablePathFromLinkText(""), std::nullopt);
  EXPECT_EQ(ExecutablePathFromLinkText(" (deleted)"), std::nullopt);
  EXPECT_EQ(ExecutablePathFromLinkText("socket:[123]"), std::nullopt);
}

TEST(ProcessDetailsParsingTest, CommandNameLosesItsLineBreakOnly) {
  EXPECT_EQ(ProcessNameFromCommText("pw-record\n"), "pw-record");
  EXPECT_EQ(ProcessNameFromCommText("Web Content \n"), "Web Content ");
  EXPECT_EQ(ProcessNameFromCommText("\n"), std::nullopt);
  EXPECT_EQ(ProcessNameFromCommText(""), std::nullopt);
}

TEST(ProcessDetailsParsingTest, StatusGivesNameStateAndThreadGroup) {
  const ProcessStatus status = ParseProcessStatus(kStatus);
  EXPECT_EQ(status.name, "recorder");
  EXPECT_EQ(status.state, 'S');
  EXPECT_EQ(status.threadGroupID, 4242);
  EXPECT_FALSE(status.isZombie());

  EXPECT_TRUE(ParseProcessStatus("Name:\tgone\nState:\tZ (zombie)\n").isZombie());
  EXPECT_EQ(ParseProcessStatus("Name:\ta\\nb\\\\c\\011d\n").name, "a\nb\\c\td");
  const ProcessStatus odd = ParseProcessStatus("Names:\tx\nTgid:\t-3\nState:\n\nTgid:\t12a\n");
  EXPECT_EQ(odd.name, std::nullopt);
  EXPECT_EQ(odd.state, std::nullopt);
  EXPECT_EQ(odd.threadGroupID, std::nullopt);
}

TEST(ProcessDetailsParsingTest, FlatpakInfoGivesTheApplicationGroupsName) {
  EXPECT_EQ(FlatpakApplicationIDFromInfo("[Application]\nname=org.example.Recorder\n"
                                         "runtime=runtime/org.gnome.Platform/x86_64/45\n"),
            "org.example.Recorder");
  EXPECT_EQ(FlatpakApplicationIDFromInfo("[Instance]\nname=org.other.App\n[Application]\n"
                                         "# comment\n name = org.example.Two-Words \n"),
            "org.example.Two-Words");
  EXPECT_EQ(FlatpakApplicationIDFromInfo("[Runtime]\nname=org.gnome.Platform\n"), std::nullopt);
  EXPECT_EQ(FlatpakApplicationIDFromInfo("[Application]\nname=not-an-id\n"), std::nullopt);
  EXPECT_EQ(FlatpakApplicationIDFromInfo("[Application]\nnamex=org.example.App\n"), std::nullopt);
  EXPECT_EQ(FlatpakApplicationIDFromInfo(""), std::nullopt);
}

TEST(ProcessDetailsParsingTest, CgroupNamesFlatpakAndSnapUnits) {
  EXPECT_EQ(SandboxFromCgroup("0::/user.slice/user-1000.slice/user@1000.service/app.slice/"
                              "app-flatpak-org.example.Recorder-83412.scope\n"),
            (ProcessSandbox{MediaDeviceConsumerSandbox::Flatpak, "org.example.Recorder"}));
  EXPECT_EQ(SandboxFromCgroup("0::/user.slice/app.slice/app-flatpak-org.example.My-App-7.scope"),
            (ProcessSandbox{MediaDeviceConsumerSandbox::Flatpak, "org.example.My-App"}));
  EXPECT_EQ(SandboxFromCgroup("12:pids:/user.slice\n0::/user.slice/user-1000.slice/"
                              "user@1000.service/app.slice/"
                              "snap.firefox.firefox-0b2f8a8e-1c1d-4c3b-9a1e-2f3c4d5e6f70.scope\n"),
            (ProcessSandbox{MediaDeviceConsumerSandbox::Snap, "firefox"}));
  EXPECT_EQ(SandboxFromCgroup("0::/system.slice/snap.lxd_beta.daemon.service\n"),
            (ProcessSandbox{MediaDeviceConsumerSandbox::Snap, "lxd_beta"}));
  EXPECT_EQ(SandboxFromCgroup("0::/user.slice/app.slice/app-gnome-firefox-1234.scope\n"),
            ProcessSandbox{});
  EXPECT_EQ(SandboxFromCgroup("0::/system.slice/snapd.service\n"), ProcessSandbox{});
  EXPECT_EQ(SandboxFromCgroup("0::/app-flatpak-org.example.App.scope\n"), ProcessSandbox{});
  EXPECT_EQ(SandboxFromCgroup("0::/snap.Bad_Name.app.scope\n"), ProcessSandbox{});
  EXPECT_EQ(SandboxFromCgroup("garbage without colons\n::\n"), ProcessSandbox{});
}

TEST(ProcessDetailsParsingTest, SnapExecutablesLiveUnderTheirSnapsFolder) {
  EXPECT_EQ(SnapNameFromExecutablePath("/snap/obs-studio/1234/usr/bin/obs"), "obs-studio");
  EXPECT_EQ(SnapNameFromExecutablePath("/snap/bin/obs-studio"), std::nullopt);
  EXPECT_EQ(SnapNameFromExecutablePath("/snap/README"), std::nullopt);
  EXPECT_EQ(SnapNameFromExecutablePath("/usr/bin/obs"), std::nullopt);
}

TEST(ProcessDetailsParsingTest, NamesFollowTheirSystemsRules) {
  EXPECT_TRUE(IsFlatpakApplicationID("org.example.App"));
  EXPECT_TRUE(IsFlatpakApplicationID("com.example_co.App_2"));
  EXPECT_FALSE(IsFlatpakApplicationID("org.example"));
  EXPECT_FALSE(IsFlatpakApplicationID("org..example.App"));
  EXPECT_FALSE(IsFlatpakApplicationID("org.3d.App"));
  EXPECT_FALSE(IsFlatpakApplicationID("org.example.App/x"));
  EXPECT_FALSE(IsFlatpakApplicationID("org.example." + std::string(260, 'a')));
  EXPECT_TRUE(IsSnapName("vlc"));
  EXPECT_TRUE(IsSnapName("obs-studio"));
  EXPECT_TRUE(IsSnapName("firefox_esr2"));
  EXPECT_FALSE(IsSnapName("123"));
  EXPECT_FALSE(IsSnapName("-vlc"));
  EXPECT_FALSE(IsSnapName("a--b"));
  EXPECT_FALSE(IsSnapName("Vlc"));
  EXPECT_FALSE(IsSnapName("vlc_"));
  EXPECT_FALSE(IsSnapName(""));
}

// A folder laid out like /proc, with the entries each test writes into it.
class ProcessDetailsTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() /
            ("harkwell-proc-" + std::to_string(getpid()) + "-" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root_);
    fs::create_directories(root_);
  }
  void TearDown() override { fs::remove_all(root_); }

  fs::path process(int pid) const { return root_ / std::to_string(pid); }
  void write(const fs::path& path, std::string_view text) const {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }
  // A running process with an executable, a command name and an unsandboxed cgroup.
  void addProcess(int pid, const std::string& executable, const std::string& comm) const {
    write(process(pid) / "status", kStatus);
    fs::create_symlink(executable, process(pid) / "exe");
    write(process(pid) / "comm", comm + "\n");
    write(process(pid) / "cgroup", "0::/user.slice/user-1000.slice/session-2.scope\n");
    fs::create_directories(process(pid) / "root");
  }
  MediaDeviceConsumer read(int pid) const {
    MediaDeviceConsumer consumer;
    consumer.processID = pid;
    FillProcessDetails(consumer, root_.string());
    return consumer;
  }

  fs::path root_;
};

TEST_F(ProcessDetailsTreeTest, AnUnsandboxedProcessGivesExecutableAndName) {
  addProcess(4242, "/usr/bin/parecord", "parecord");
  const MediaDeviceConsumer consumer = read(4242);
  EXPECT_EQ(consumer.executablePath, "/usr/bin/parecord");
  EXPECT_EQ(consumer.processName, "parecord");
  EXPECT_EQ(consumer.sandbox, MediaDeviceConsumerSandbox::None);
  EXPECT_EQ(consumer.sandboxApplicationID, std::nullopt);
}

TEST_F(ProcessDetailsTreeTest, AReplacedExecutableKeepsItsPath) {
  addProcess(7, "/usr/lib/firefox/firefox (deleted)", "firefox");
  EXPECT_EQ(read(7).executablePath, "/usr/lib/firefox/firefox");
}

TEST_F(ProcessDetailsTreeTest, FlatpakInfoInTheProcessRootNamesTheApplication) {
  addProcess(10, "/app/bin/recorder", "recorder");
  write(process(10) / "root/.flatpak-info", "[Application]\nname=org.example.Recorder\n");
  const MediaDeviceConsumer consumer = read(10);
  EXPECT_EQ(consumer.sandbox, MediaDeviceConsumerSandbox::Flatpak);
  EXPECT_EQ(consumer.sandboxApplicationID, "org.example.Recorder");
}

TEST_F(ProcessDetailsTreeTest, FlatpakInfoOutranksTheCgroup) {
  addProcess(11, "/app/bin/recorder", "recorder");
  write(process(11) / "root/.flatpak-info", "[Application]\nname=org.example.Real\n");
  write(process(11) / "cgroup", "0::/app.slice/app-flatpak-org.example.Claimed-11.scope\n");
  EXPECT_EQ(read(11).sandboxApplicationID, "org.example.Real");
}

TEST_F(ProcessDetailsTreeTest, AFlatpakScopeNamesTheApplicationWhenTheRootIsOutOfReach) {
  addProcess(12, "/app/bin/recorder", "recorder");
  fs::remove(process(12) / "root");
  write(process(12) / "cgroup", "0::/app.slice/app-flatpak-org.example.Recorder-12.scope\n");
  const MediaDeviceConsumer consumer = read(12);
  EXPECT_EQ(consumer.sandbox, MediaDeviceConsumerSandbox::Flatpak);
  EXPECT_EQ(consumer.sandboxApplicationID, "org.example.Recorder");
}

TEST_F(ProcessDetailsTreeTest, ASnapIsNamedByItsScopeOrItsExecutable) {
  addProcess(20, "/snap/firefox/3600/usr/lib/firefox/firefox", "firefox");
  write(process(20) / "cgroup", "0::/app.slice/snap.firefox.firefox-abc.scope\n");
  addProcess(21, "/snap/obs-studio/12/usr/bin/obs", "obs");
  for (const int pid : {20, 21}) {
    EXPECT_EQ(read(pid).sandbox, MediaDeviceConsumerSandbox::Snap) << pid;
  }
  EXPECT_EQ(read(20).sandboxApplicationID, "firefox");
  EXPECT_EQ(read(21).sandboxApplicationID, "obs-studio");
}

TEST_F(ProcessDetailsTreeTest, AHiddenExecutableLeavesOnlyThePath) {
  // Another user's process: comm and status are readable, exe is not.
  addProcess(30, "/usr/bin/parecord", "parecord");
  fs::remove(process(30) / "exe");
  const MediaDeviceConsumer consumer = read(30);
  EXPECT_EQ(consumer.executablePath, std::nullopt);
  EXPECT_EQ(consumer.processName, "parecord");
}

TEST_F(ProcessDetailsTreeTest, StatusNamesTheProcessWhenCommIsMissing) {
  addProcess(31, "/usr/bin/parecord", "parecord");
  fs::remove(process(31) / "comm");
  EXPECT_EQ(read(31).processName, "recorder");
}

TEST_F(ProcessDetailsTreeTest, AGoneOrZombieProcessLeavesEverythingEmpty) {
  // A zombie keeps its status and comm, not its executable.
  addProcess(40, "/usr/bin/parecord", "parecord");
  fs::remove(process(40) / "exe");
  write(process(40) / "status", "Name:\tparecord\nState:\tZ (zombie)\n");
  for (const int pid : {40, 41, 0, -1}) {
    EXPECT_EQ(read(pid), MediaDeviceConsumer{.processID = pid}) << pid;
  }
}

TEST_F(ProcessDetailsTreeTest, FilesInTheWrongShapeAreNotRead) {
  addProcess(50, "/usr/bin/parecord", "parecord");
  fs::create_directories(process(50) / "root/.flatpak-info");
  fs::remove(process(50) / "comm");
  ASSERT_EQ(::mkfifo((process(50) / "comm").c_str(), 0600), 0);
  const MediaDeviceConsumer consumer = read(50);
  EXPECT_EQ(consumer.processName, "recorder");
  EXPECT_EQ(consumer.sandbox, MediaDeviceConsumerSandbox::None);
}

TEST_F(ProcessDetailsTreeTest, WhatTheServerAlreadyKnewIsKept) {
  addProcess(60, "/usr/bin/parecord", "parecord");
  MediaDeviceConsumer consumer{.processID = 60,
                               .isProcessIDVerified = true,
                               .applicationName = "Recorder",
                               .kind = MediaDeviceConsumerKind::LevelMeter};
  FillProcessDetails(consumer, root_.string());
  EXPECT_TRUE(consumer.isProcessIDVerified);
  EXPECT_EQ(consumer.applicationName, "Recorder");
  EXPECT_EQ(consumer.kind, MediaDeviceConsumerKind::LevelMeter);
  EXPECT_EQ(consumer.processName, "parecord");
}

std::string RealPath(const std::string& path) {
  return fs::canonical(path).string();
}

TEST(ProcessDetailsRealTest, ARunningChildIsDescribedFromTheRealProc) {
  // cat echoing a line proves the child has become cat, not still the test forked.
  const auto cat = ChildProcess::launch({"cat"}, {.pipeInput = true});
  ASSERT_NE(cat, nullptr);
  ASSERT_TRUE(cat->writeLine("hello"));
  ASSERT_EQ(cat->readLine(), "hello");
  MediaDeviceConsumer consumer{.processID = cat->pid()};
  FillProcessDetails(consumer);
  EXPECT_EQ(consumer.executablePath, RealPath(*ChildProcess::findProgram("cat")));
  EXPECT_EQ(consumer.processName, "cat");
  EXPECT_EQ(consumer.sandbox, MediaDeviceConsumerSandbox::None);
}

TEST(ProcessDetailsRealTest, ThisProcessIsDescribedFromTheRealProc) {
  MediaDeviceConsumer consumer{.processID = getpid()};
  FillProcessDetails(consumer);
  EXPECT_EQ(consumer.executablePath, RealPath("/proc/self/exe"));
  EXPECT_TRUE(consumer.processName.has_value());
}

TEST(ProcessDetailsRealTest, AConsumerWhoseProcessExitedBeforeItsDetailsWereReadStaysEmpty) {
  const auto sleeper = ChildProcess::launch({"sleep", "60"});
  ASSERT_NE(sleeper, nullptr);
  const MediaDeviceConsumer seen{.processID = sleeper->pid(), .isProcessIDVerified = true};

  // Exited but not yet reaped: a zombie, whose status is still there.
  sleeper->sendSignal(SIGKILL);
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(sleeper->pid()), &info, WEXITED | WNOWAIT), 0);
  MediaDeviceConsumer zombie = seen;
  FillProcessDetails(zombie);
  EXPECT_EQ(zombie, seen);

  // Reaped: nothing of it is left in /proc.
  ASSERT_TRUE(sleeper->waitForExit().has_value());
  MediaDeviceConsumer gone = seen;
  FillProcessDetails(gone);
  EXPECT_EQ(gone, seen);
}

}  // namespace
}  // namespace harkwell
