// `harkwell hog` on Linux's real services: a sound card (a null sink of a private pulseaudio
// daemon that says it is ALSA card 7) whose reservation pw-reserve holds on a private session bus,
// and a camera on a stand-in V4L2 tree.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/Reservation/DeviceReservation.h"
#include "tests/cli/HarkwellRun.h"
#include "tests/integration/reservation/CardSink.h"
#include "tests/integration/reservation/ReservationOwners.h"
#include "tests/support/FakeV4L2Tree.h"
#include "tests/support/PrivatePulseServer.h"

namespace harkwell::testing {
namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 15s;
constexpr std::uint32_t kCard = 7;
constexpr const char* kCardSink = "harkwell_card_sink";

class HarkwellHogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(bus.start(), "") << "cannot start a private session bus";
    ASSERT_EQ(pulse.start(), "") << "cannot start a private pulseaudio daemon";
    ASSERT_EQ(LoadCardSink(pulse, kCardSink, kCard, "Seven"), "");
    ASSERT_EQ(StartPwReserve(owner, bus, kCard), "");
  }

  std::map<std::string, std::string> environment() const {
    return {{"PULSE_SERVER", pulse.address()}, {"DBUS_SESSION_BUS_ADDRESS", bus.address()}};
  }

  // Waits until pw-reserve owns the card, as the bus tells.
  void waitForPwReserve() {
    DeviceReservation::Options options;
    options.busAddress = bus.address();
    auto reservation = DeviceReservation::create(options);
    ASSERT_TRUE(Eventually([&] {
      std::int32_t pid = -1;
      return reservation->ownerPID(kCard, &pid) == kNoErr && pid == owner.pid();
    }));
  }

  PrivateSessionBus bus;
  PrivatePulseServer pulse;
  ChildProcess owner;
};

TEST_F(HarkwellHogTest, StatusNamesTheProgramHoldingTheCard) {
  waitForPwReserve();
  const auto result =
      RunHarkwell({"hog", "status", kCardSink, "--video", "none", "--json"}, environment());
  ASSERT_EQ(result.status, 0) << result.err;
  const auto answer = nlohmann::json::parse(result.out, nullptr, false);
  EXPECT_EQ(answer["hogMode"], "OtherProcess") << result.out;
  EXPECT_EQ(answer["pid"], owner.pid());
  EXPECT_EQ(answer["ownerApplicationName"], "pw-reserve");

  const auto text = RunHarkwell({"hog", "status", kCardSink, "--video", "none"}, environment());
  EXPECT_EQ(text.out, "Seven: OtherProcess(pid: " + std::to_string(owner.pid()) +
                          "), held by pw-reserve (pid " + std::to_string(owner.pid()) + ")\n");
}

TEST_F(HarkwellHogTest, OnWarnsTakesTheCardReportsRequestsAndGivesItBackAtCtrlC) {
  waitForPwReserve();
  auto run = StartHarkwell({"hog", "on", kCardSink, "--hold", "--video", "none"}, environment());
  ASSERT_NE(run, nullptr);
  const auto taken = run->readLine(kDeadline);
  ASSERT_EQ(taken, "Seven: CurrentProcess") << run->errorOutput();
  const std::string pw = std::to_string(owner.pid());
  EXPECT_NE(run->errorOutput().find("harkwell: Seven is held by pw-reserve (pid " + pw +
                                    "); taking the card from it (usually the sound server) "
                                    "silences every other program that plays or records through "
                                    "that card until harkwell gives it back\n"),
            std::string::npos)
      << run->errorOutput();

  // Another program asks for the card and is refused.
  DeviceReservation::Options options;
  options.busAddress = bus.address();
  auto other = DeviceReservation::create(options);
  EXPECT_EQ(other->take(kCard, "hw:7"), kAudioDevicePermissionsError);
  EXPECT_EQ(run->readLine(kDeadline),
            "pid " + std::to_string(getpid()) +
                " asked for Seven (priority 2147483647); harkwell keeps it until it ends");

  run->sendSignal(SIGINT);
  EXPECT_EQ(run->waitForExitCode(kDeadline), 0) << run->errorOutput();
  // pw-reserve waited for the card and has it again.
  EXPECT_TRUE(Eventually([&] {
    std::int32_t pid = -1;
    return other->ownerPID(kCard, &pid) == kNoErr && pid == owner.pid();
  }));
}

TEST_F(HarkwellHogTest, CamerasCannotBeHeldExclusivelyOnLinux) {
  FakeV4L2Tree tree;
  const std::string usb = tree.addUsbInterface({});
  tree.addNode({.entry = "video0", .index = 0, .minor = 0, .parent = usb});
  const std::vector<std::string> where{"--audio",        "none",       "--sysfs-root",
                                       tree.sysfsRoot(), "--dev-root", tree.devRoot()};
  auto list = where;
  list.insert(list.begin(), {"list", "--json"});
  const auto listed = RunHarkwell(list);
  ASSERT_EQ(listed.status, 0) << listed.err;
  const auto devices = nlohmann::json::parse(listed.out, nullptr, false);
  ASSERT_TRUE(devices.is_array() && devices.size() == 1u) << listed.out;
  const std::string camera = devices[0]["deviceUID"];
  const std::string name = devices[0]["name"];

  for (const char* action : {"status", "on", "off"}) {
    auto arguments = where;
    arguments.insert(arguments.begin(), {"hog", action, camera});
    const auto result = RunHarkwell(arguments);
    EXPECT_EQ(result.status, 1) << action;
    EXPECT_EQ(result.out, "") << action;
    EXPECT_EQ(result.err,
              "harkwell: cameras cannot be held exclusively on Linux: no program can "
              "reserve a camera there, so " +
                  name + " has no owner to show, take or release\n")
        << action;
  }
}

}  // namespace
}  // namespace harkwell::testing
