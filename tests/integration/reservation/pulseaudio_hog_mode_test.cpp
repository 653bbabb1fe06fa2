// Exclusive access through the PulseAudio service: a private pulseaudio daemon with a null sink
// that says it is ALSA card 7 (the server takes any property given to a null sink), a null sink and
// source without a card, and a private session bus where pw-reserve or our test owner holds card 7.
#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Audio/AudioDeviceProperties.h"
#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceHogMode.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#include "HarkwellFoundation/Platform/Linux/Reservation/DeviceReservation.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "tests/integration/reservation/CardSink.h"
#include "tests/integration/reservation/ReservationOwners.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PrivatePulseServer.h"
#include "tests/support/ScopedHardwareServices.h"

namespace harkwell {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;
using testing::Eventually;
using testing::LoadCardSink;
using testing::LogCapture;
using testing::PrivatePulseServer;
using testing::PrivateSessionBus;
using testing::ScopedHardwareServices;
using testing::StartPwReserve;
using testing::StartTestOwner;
using testing::TestOwnerAnswer;

constexpr std::uint32_t kCard = 7;
constexpr const char* kCardSinkName = "harkwell_card_sink";

const PropertyAddress kHogMode{kAudioDevicePropertyHogMode, kAudioObjectPropertyScopeGlobal,
                               kAudioObjectPropertyElementMaster};

std::string SetLine(OSStatus status, std::uint32_t device) {
  return "Audio Error " + std::to_string(status) +
         ": Unable to set hog mode PID of device with ID " + std::to_string(device);
}

std::string GetLine(OSStatus status, std::uint32_t device) {
  return "Audio Error " + std::to_string(status) +
         ": Unable to get hog mode PID of device with ID " + std::to_string(device);
}

class PulseAudioHogModeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(bus.start(), "") << "cannot start a private session bus";
    ASSERT_EQ(pulse.start(), "") << "cannot start a private pulseaudio daemon";
    ASSERT_EQ(LoadCardSink(pulse, kCardSinkName, kCard, "Card Seven"), "");
  }

  // Installs a PulseAudio service whose reservations are on `address` (the private bus unless a
  // test says otherwise).
  void installService(std::optional<std::string> address = std::nullopt,
                      std::chrono::milliseconds timeout = 2000ms) {
    DeviceReservation::Options options;
    options.busAddress = address ? *address : bus.address();
    options.callTimeout = timeout;
    options.applicationName = "harkwell-test";
    reservation = DeviceReservation::create(options);
    PulseAudioHardwareService::Options serviceOptions;
    serviceOptions.server = pulse.address();
    serviceOptions.reservation = reservation;
    service = PulseAudioHardwareService::create(serviceOptions);
    ASSERT_NE(service, nullptr);
    services.install(service, SimulatedVideoHardwareService::create());
  }

  // The audio device with `uid`, as a record the hog-mode operations take.
  static std::optional<MediaDevice> Device(const std::string& uid) {
    for (std::uint32_t id : AudioDeviceConnectedDeviceIDs()) {
      if (AudioDeviceUIDForDeviceID(id) == uid) {
        return MediaDevice{.deviceID = id, .mediaType = MediaType::Audio, .deviceUID = uid};
      }
    }
    return std::nullopt;
  }

  MediaDevice cardDevice() {
    std::optional<MediaDevice> device;
    EXPECT_TRUE(Eventually([&] { return (device = Device(kCardSinkName)).has_value(); }));
    return device.value_or(MediaDevice{});
  }

  // Installs the service and returns the card's device once the hog mode reads `owner`.
  MediaDevice cardDeviceHeldBy(const ChildProcess& owner) {
    installService();
    const MediaDevice device = cardDevice();
    EXPECT_TRUE(Eventually(
        [&] { return device.currentHogMode() == MediaDeviceHogMode::OtherProcess(owner.pid()); }));
    return device;
  }

  PrivateSessionBus bus;
  PrivatePulseServer pulse;
  std::shared_ptr<DeviceReservation> reservation;
  std::shared_ptr<PulseAudioHardwareService> service;
  ScopedHardwareServices services;
};

TEST_F(PulseAudioHogModeTest, ADeviceWithoutACardAnswersUnknownProperty) {
  installService();
  const auto device = Device(PrivatePulseServer::kNullSinkName);
  ASSERT_TRUE(device.has_value());
  EXPECT_FALSE(service->hasProperty(device->deviceID, kHogMode));
  EXPECT_EQ(service->soundCardOfDevice(device->deviceID), std::nullopt);

  LogCapture log;
  EXPECT_EQ(AudioDeviceHogModeForDeviceID(device->deviceID), std::nullopt);
  EXPECT_EQ(device->currentHogMode(), MediaDeviceHogMode::NoProcess());
  EXPECT_FALSE(device->enableHogMode());
  EXPECT_TRUE(device->disableHogMode());
  const std::uint32_t id = device->deviceID;
  EXPECT_EQ(log.lines(), (std::vector<std::string>{
                             GetLine(kAudioHardwareUnknownPropertyError, id),
                             GetLine(kAudioHardwareUnknownPropertyError, id),
                             GetLine(kAudioHardwareUnknownPropertyError, id),
                             SetLine(kAudioHardwareUnknownPropertyError, id),
                             GetLine(kAudioHardwareUnknownPropertyError, id),
                         }));
}

TEST_F(PulseAudioHogModeTest, AFreeCardIsTakenAndGivenBack) {
  installService();
  const MediaDevice device = cardDevice();
  EXPECT_TRUE(service->hasProperty(device.deviceID, kHogMode));
  EXPECT_EQ(service->soundCardOfDevice(device.deviceID), kCard);
  EXPECT_EQ(device.currentHogMode(), MediaDeviceHogMode::NoProcess());

  LogCapture log;
  EXPECT_TRUE(device.enableHogMode());
  EXPECT_EQ(device.currentHogMode(), MediaDeviceHogMode::CurrentProcess());
  EXPECT_TRUE(reservation->holds(kCard));
  EXPECT_TRUE(device.disableHogMode());
  EXPECT_EQ(device.currentHogMode(), MediaDeviceHogMode::NoProcess());
  EXPECT_FALSE(reservation->holds(kCard));
  EXPECT_EQ(log.lines(), std::vector<std::string>{});
}

TEST_F(PulseAudioHogModeTest, ACardPwReserveHoldsIsOtherProcessAndTheToggleTakesIt) {
  ChildProcess owner;
  ASSERT_EQ(StartPwReserve(owner, bus, kCard), "");
  const MediaDevice device = cardDeviceHeldBy(owner);

  LogCapture log;
  // Enabling leaves a device another process holds alone, whatever that process would do.
  EXPECT_FALSE(device.enableHogMode());
  EXPECT_EQ(device.currentHogMode(), MediaDeviceHogMode::OtherProcess(owner.pid()));
  // The toggle asks the owner, which lets the card go to our higher priority.
  EXPECT_TRUE(AudioDeviceToggleHogModeForDeviceID(device.deviceID));
  EXPECT_EQ(device.currentHogMode(), MediaDeviceHogMode::CurrentProcess());
  EXPECT_TRUE(device.disableHogMode());
  // pw-reserve waited in the bus's queue for the name and has it again.
  EXPECT_TRUE(Eventually(
      [&] { return device.currentHogMode() == MediaDeviceHogMode::OtherProcess(owner.pid()); }));
  EXPECT_EQ(log.lines(), std::vector<std::string>{});
}

TEST_F(PulseAudioHogModeTest, AnOwnerThatRefusesKeepsTheCardAndTheToggleLogsWhy) {
  ChildProcess owner;
  ASSERT_EQ(StartTestOwner(owner, bus, kCard, TestOwnerAnswer::Refuse, "stubborn"), "");
  const MediaDevice device = cardDeviceHeldBy(owner);

  LogCapture log;
  EXPECT_FALSE(AudioDeviceToggleHogModeForDeviceID(device.deviceID));
  EXPECT_EQ(device.currentHogMode(), MediaDeviceHogMode::OtherProcess(owner.pid()));
  EXPECT_FALSE(device.disableHogMode());
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{SetLine(kAudioDevicePermissionsError, device.deviceID)});
}

TEST_F(PulseAudioHogModeTest, TheOwnerVanishingFreesTheDevice) {
  ChildProcess owner;
  ASSERT_EQ(StartTestOwner(owner, bus, kCard, TestOwnerAnswer::Refuse, "stubborn"), "");
  const MediaDevice device = cardDeviceHeldBy(owner);
  owner.stop(SIGKILL, 5s);
  EXPECT_TRUE(
      Eventually([&] { return device.currentHogMode() == MediaDeviceHogMode::NoProcess(); }));
  EXPECT_TRUE(device.enableHogMode());
  EXPECT_EQ(device.currentHogMode(), MediaDeviceHogMode::CurrentProcess());
}

TEST_F(PulseAudioHogModeTest, WithoutASessionBusACardIsFreeAndCannotBeTaken) {
  const std::string missing = bus.folder() + "/no-such-bus";
  installService("unix:path=" + missing);
  const MediaDevice device = cardDevice();

  LogCapture log;
  EXPECT_EQ(AudioDeviceHogModeForDeviceID(device.deviceID), MediaDeviceHogMode::NoProcess());
  EXPECT_EQ(device.currentHogMode(), MediaDeviceHogMode::NoProcess());
  EXPECT_FALSE(device.enableHogMode());
  EXPECT_TRUE(device.disableHogMode());
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{
                "Exclusive access: no session bus (cannot connect to unix:path=" + missing +
                    ": No such file or directory); every sound card reports nobody "
                    "holding it",
                SetLine(kAudioHardwareNotRunningError, device.deviceID),
            }));
}

TEST_F(PulseAudioHogModeTest, ABusThatDoesNotAnswerIsGivenUpAtTheTimeout) {
  testing::SilentUnixSocket silent(bus.folder() + "/silent");
  ASSERT_TRUE(silent.isListening());
  installService(silent.address(), 300ms);
  const MediaDevice device = cardDevice();

  LogCapture log;
  EXPECT_EQ(device.currentHogMode(), MediaDeviceHogMode::NoProcess());
  EXPECT_FALSE(device.enableHogMode());
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.lines()[0], "Exclusive access: no session bus (the bus at " + silent.address() +
                                " did not answer within 300 ms); every sound card reports nobody "
                                "holding it");
  EXPECT_EQ(log.lines()[1], SetLine(kAudioHardwareNotRunningError, device.deviceID));
}

}  // namespace
}  // namespace harkwell
