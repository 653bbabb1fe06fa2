// Sound card reservations on a private dbus-daemon: reading the owner, taking a card from an owner
// that lets it go and from ones that do not, holding it against others, giving it back, and the
// answers without a bus or with a bus that does not answer.
#include "HarkwellFoundation/Platform/Linux/Reservation/DeviceReservation.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "tests/integration/reservation/ReservationOwners.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;
using testing::DrainQueue;
using testing::Eventually;
using testing::LogCapture;
using testing::PrivateSessionBus;
using testing::Recorder;
using testing::SilentUnixSocket;
using testing::StartPwReserve;
using testing::StartTestOwner;
using testing::TestOwnerAnswer;

constexpr std::uint32_t kCard = 7;

std::string NoBusLine(const std::string& why) {
  return "Exclusive access: no session bus (" + why +
         "); every sound card reports nobody holding it";
}

class DeviceReservationTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(bus.start(), "") << "cannot start a private session bus"; }

  std::shared_ptr<DeviceReservation> makeReservation(std::chrono::milliseconds timeout = 2000ms,
                                                     const std::string& name = "harkwell-test") {
    DeviceReservation::Options options;
    options.busAddress = bus.address();
    options.callTimeout = timeout;
    options.applicationName = name;
    return DeviceReservation::create(options);
  }

  // The owner's pid as `reservation` reads it; -2 when the read failed.
  static std::int32_t OwnerOf(DeviceReservation& reservation, std::uint32_t card = kCard) {
    std::int32_t pid = -2;
    return reservation.ownerPID(card, &pid) == kNoErr ? pid : -2;
  }

  static bool WaitForOwner(DeviceReservation& reservation, std::int32_t pid) {
    return Eventually([&] { return OwnerOf(reservation) == pid; });
  }

  PrivateSessionBus bus;
};

TEST_F(DeviceReservationTest, ACardNobodyOwnsReadsMinusOne) {
  auto reservation = makeReservation();
  std::int32_t pid = 0;
  EXPECT_EQ(reservation->ownerPID(kCard, &pid), kNoErr);
  EXPECT_EQ(pid, -1);
  EXPECT_EQ(reservation->owner(kCard), std::nullopt);
  EXPECT_FALSE(reservation->holds(kCard));
}

TEST_F(DeviceReservationTest, ACardPwReserveOwnsReadsAsItsPidAndName) {
  ChildProcess owner;
  ASSERT_EQ(StartPwReserve(owner, bus, kCard), "");
  auto reservation = makeReservation();
  ASSERT_TRUE(WaitForOwner(*reservation, owner.pid()));
  const auto found = reservation->owner(kCard);
  ASSERT_TRUE(found.has_value());
  EXPECT_EQ(found->pid, owner.pid());
  EXPECT_EQ(found->applicationName, "pw-reserve");
  EXPECT_EQ(found->priority, 0);
  // Another card is still free.
  EXPECT_EQ(OwnerOf(*reservation, kCard + 1), -1);
}

TEST_F(DeviceReservationTest, TakingACardFromPwReserveSucceedsAndItComesBackAfterwards) {
  ChildProcess owner;
  ASSERT_EQ(StartPwReserve(owner, bus, kCard), "");
  auto reservation = makeReservation();
  ASSERT_TRUE(WaitForOwner(*reservation, owner.pid()));

  EXPECT_EQ(reservation->take(kCard, "hw:7"), kNoErr);
  EXPECT_TRUE(reservation->holds(kCard));
  EXPECT_EQ(OwnerOf(*reservation), getpid());
  EXPECT_TRUE(owner.isRunning());

  // pw-reserve waits in the bus's queue for the name, so giving it back hands it to pw-reserve.
  EXPECT_EQ(reservation->giveBack(kCard), kNoErr);
  EXPECT_FALSE(reservation->holds(kCard));
  EXPECT_TRUE(WaitForOwner(*reservation, owner.pid()));
}

TEST_F(DeviceReservationTest, AnOwnerThatRefusesKeepsTheCard) {
  ChildProcess owner;
  ASSERT_EQ(StartTestOwner(owner, bus, kCard, TestOwnerAnswer::Refuse, "stubborn"), "");
  auto reservation = makeReservation();
  ASSERT_TRUE(WaitForOwner(*reservation, owner.pid()));

  EXPECT_EQ(reservation->take(kCard, "hw:7"), kAudioDevicePermissionsError);
  EXPECT_FALSE(reservation->holds(kCard));
  EXPECT_EQ(OwnerOf(*reservation), owner.pid());
  EXPECT_EQ(reservation->owner(kCard)->applicationName, "stubborn");
}

TEST_F(DeviceReservationTest, PwReserveWithTheHighestPriorityKeepsTheCard) {
  ChildProcess owner;
  ASSERT_EQ(StartPwReserve(owner, bus, kCard, {"-p", "2147483647"}), "");
  auto reservation = makeReservation();
  ASSERT_TRUE(WaitForOwner(*reservation, owner.pid()));

  EXPECT_EQ(reservation->take(kCard, "hw:7"), kAudioDevicePermissionsError);
  EXPECT_EQ(OwnerOf(*reservation), owner.pid());
}

TEST_F(DeviceReservationTest, AnOwnerThatNeverAnswersIsTakenAsARefusalAfterTheTimeout) {
  ChildProcess owner;
  ASSERT_EQ(StartTestOwner(owner, bus, kCard, TestOwnerAnswer::Silent, "asleep"), "");
  auto reservation = makeReservation(300ms);
  ASSERT_TRUE(WaitForOwner(*reservation, owner.pid()));

  EXPECT_EQ(reservation->take(kCard, "hw:7"), kAudioDevicePermissionsError);
  EXPECT_EQ(OwnerOf(*reservation), owner.pid());
}

TEST_F(DeviceReservationTest, ACardWeTakeReadsAsOurOwnPidAndOthersSeeWhoWeAre) {
  auto reservation = makeReservation(2000ms, "harkwell-test");
  EXPECT_EQ(reservation->take(kCard, "hw:7"), kNoErr);
  EXPECT_EQ(OwnerOf(*reservation), getpid());

  auto other = makeReservation(2000ms, "someone-else");
  const auto found = other->owner(kCard);
  ASSERT_TRUE(found.has_value());
  EXPECT_EQ(found->pid, getpid());
  EXPECT_EQ(found->applicationName, "harkwell-test");
  EXPECT_EQ(found->applicationDeviceName, "hw:7");
  EXPECT_EQ(found->priority, INT32_MAX);
}

TEST_F(DeviceReservationTest, WeRefuseEveryRequestWhileHoldingAndReportIt) {
  auto reservation = makeReservation();
  Recorder<DeviceReservation::ReleaseRequest> requests;
  auto queue = DispatchQueue::createSerial("release requests");
  reservation->setReleaseRequestHandler(
      queue, [&](const DeviceReservation::ReleaseRequest& request) { requests.append(request); });
  ASSERT_EQ(reservation->take(kCard, "hw:7"), kNoErr);

  // Another program asks with its own priority: PipeWire's tool, told to ask when the card is busy.
  ChildProcess asking;
  ASSERT_EQ(StartPwReserve(asking, bus, kCard, {"-r"}), "");
  ASSERT_TRUE(requests.waitForCount(1));
  EXPECT_EQ(requests.entries()[0].card, kCard);
  EXPECT_EQ(requests.entries()[0].priority, 0);
  EXPECT_EQ(requests.entries()[0].pid, asking.pid());

  // So does another reservation with the highest priority; it is refused all the same.
  auto other = makeReservation();
  EXPECT_EQ(other->take(kCard, "hw:7"), kAudioDevicePermissionsError);
  ASSERT_TRUE(requests.waitForCount(2));
  EXPECT_EQ(requests.entries()[1].priority, INT32_MAX);
  EXPECT_EQ(requests.entries()[1].pid, getpid());
  EXPECT_TRUE(reservation->holds(kCard));
  EXPECT_EQ(OwnerOf(*other), getpid());
  reservation->setReleaseRequestHandler(nullptr, nullptr);
  DrainQueue(queue);
}

TEST_F(DeviceReservationTest, GivingACardBackFreesTheName) {
  auto reservation = makeReservation();
  ASSERT_EQ(reservation->take(kCard, "hw:7"), kNoErr);
  EXPECT_EQ(reservation->take(kCard, "hw:7"), kNoErr) << "taking a card we hold changes nothing";
  EXPECT_EQ(reservation->giveBack(kCard), kNoErr);
  EXPECT_EQ(OwnerOf(*reservation), -1);
  EXPECT_FALSE(reservation->holds(kCard));
  EXPECT_EQ(reservation->giveBack(kCard), kNoErr) << "giving back a card we do not hold";
}

TEST_F(DeviceReservationTest, DestroyingTheReservationGivesItsCardsBack) {
  auto reservation = makeReservation();
  ASSERT_EQ(reservation->take(kCard, "hw:7"), kNoErr);
  ASSERT_EQ(reservation->take(kCard + 1, "hw:8"), kNoErr);
  reservation.reset();
  auto other = makeReservation();
  EXPECT_TRUE(Eventually([&] { return OwnerOf(*other) == -1; }));
  EXPECT_TRUE(Eventually([&] { return OwnerOf(*other, kCard + 1) == -1; }));
}

TEST_F(DeviceReservationTest, TheOwnerVanishingFreesTheCard) {
  ChildProcess owner;
  ASSERT_EQ(StartPwReserve(owner, bus, kCard), "");
  auto reservation = makeReservation();
  ASSERT_TRUE(WaitForOwner(*reservation, owner.pid()));
  owner.stop(SIGKILL, 5s);
  EXPECT_TRUE(WaitForOwner(*reservation, -1));
  EXPECT_EQ(reservation->take(kCard, "hw:7"), kNoErr);
}

// --- Without a usable bus ----------------------------------------------------------------------

TEST_F(DeviceReservationTest, WithoutABusEveryCardIsFreeAfterOneLogLine) {
  LogCapture log;
  DeviceReservation::Options options;
  const std::string missing = bus.folder() + "/no-such-bus";
  options.busAddress = "unix:path=" + missing;
  auto reservation = DeviceReservation::create(options);
  std::int32_t pid = 0;
  EXPECT_EQ(reservation->ownerPID(kCard, &pid), kNoErr);
  EXPECT_EQ(pid, -1);
  EXPECT_EQ(reservation->ownerPID(kCard + 1, &pid), kNoErr);
  EXPECT_EQ(pid, -1);
  EXPECT_EQ(reservation->owner(kCard), std::nullopt);
  EXPECT_EQ(reservation->take(kCard, "hw:7"), kAudioHardwareNotRunningError);
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{NoBusLine("cannot connect to unix:path=" + missing +
                                               ": No such file or directory")});
}

TEST_F(DeviceReservationTest, WithoutASessionBusInTheEnvironmentTheLogLineSaysSo) {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  const std::optional<std::string> savedAddress =
      address ? std::optional<std::string>(address) : std::nullopt;
  const std::optional<std::string> savedRuntime =
      runtime ? std::optional<std::string>(runtime) : std::nullopt;
  // A runtime folder without a bus socket in it.
  const std::string runtimeFolder = bus.folder() + "/runtime";
  std::filesystem::create_directory(runtimeFolder);
  unsetenv("DBUS_SESSION_BUS_ADDRESS");
  setenv("XDG_RUNTIME_DIR", runtimeFolder.c_str(), 1);
  {
    LogCapture log;
    auto reservation = DeviceReservation::create();
    std::int32_t pid = 0;
    EXPECT_EQ(reservation->ownerPID(kCard, &pid), kNoErr);
    EXPECT_EQ(pid, -1);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{NoBusLine("DBUS_SESSION_BUS_ADDRESS is not set and " +
                                                 runtimeFolder + "/bus does not exist")});
  }
  unsetenv("XDG_RUNTIME_DIR");
  {
    LogCapture log;
    auto reservation = DeviceReservation::create();
    std::int32_t pid = 0;
    EXPECT_EQ(reservation->ownerPID(kCard, &pid), kNoErr);
    EXPECT_EQ(pid, -1);
    EXPECT_EQ(log.lines(), std::vector<std::string>{NoBusLine(
                               "neither DBUS_SESSION_BUS_ADDRESS nor XDG_RUNTIME_DIR is set")});
  }
  if (savedAddress) setenv("DBUS_SESSION_BUS_ADDRESS", savedAddress->c_str(), 1);
  if (savedRuntime) setenv("XDG_RUNTIME_DIR", savedRuntime->c_str(), 1);
}

TEST_F(DeviceReservationTest, ABusThatNeverAnswersIsGivenUpAtTheTimeout) {
  SilentUnixSocket silent(bus.folder() + "/silent");
  ASSERT_TRUE(silent.isListening());
  LogCapture log;
  DeviceReservation::Options options;
  options.busAddress = silent.address();
  options.callTimeout = 300ms;
  auto reservation = DeviceReservation::create(options);
  std::int32_t pid = 0;
  EXPECT_EQ(reservation->ownerPID(kCard, &pid), kNoErr);
  EXPECT_EQ(pid, -1);
  EXPECT_EQ(reservation->take(kCard, "hw:7"), kAudioHardwareNotRunningError);
  EXPECT_EQ(log.lines(), std::vector<std::string>{NoBusLine("the bus at " + silent.address() +
                                                            " did not answer within 300 ms")});
}

TEST_F(DeviceReservationTest, ABusThatStopsAnsweringFailsEachCallAtTheTimeout) {
  auto reservation = makeReservation(300ms);
  ASSERT_EQ(OwnerOf(*reservation), -1);
  bus.pause();
  std::int32_t pid = 0;
  EXPECT_EQ(reservation->ownerPID(kCard, &pid), kAudioHardwareUnspecifiedError);
  EXPECT_EQ(reservation->owner(kCard), std::nullopt);
  EXPECT_EQ(reservation->take(kCard, "hw:7"), kAudioHardwareUnspecifiedError);
  bus.resume();
  EXPECT_TRUE(Eventually([&] { return OwnerOf(*reservation) == -1; }));
}

TEST_F(DeviceReservationTest, TheBusGoingAwayEndsOurHoldAndCardsReadFree) {
  auto reservation = makeReservation(300ms);
  ASSERT_EQ(reservation->take(kCard, "hw:7"), kNoErr);
  LogCapture log;
  bus.kill();
  EXPECT_TRUE(Eventually([&] { return !reservation->holds(kCard); }));
  EXPECT_EQ(OwnerOf(*reservation), -1);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].rfind("Exclusive access: no session bus (cannot connect to ", 0), 0u)
      << log.lines()[0];
}

}  // namespace
}  // namespace harkwell
