// The objects `harkwell serve` exports, read back over a private session bus with busctl: the
// consumers' dictionaries (only the texts that are known, filters with the programs they feed),
// and a device that has gone.
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <nlohmann/json.hpp>

#include "tests/support/ChildProcess.h"
#include "tests/support/PrivateSessionBus.h"
#include "tools/harkwell/serve/DeviceBusService.h"

namespace harkwell::cli {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;
using testing::PrivateSessionBus;

const MediaDevice kMicrophone{.deviceID = 100,
                              .mediaType = MediaType::Audio,
                              .deviceUID = "usb-mic",
                              .name = "USB Microphone",
                              .inputChannelCount = 1,
                              .isConnected = true,
                              .isRunning = true};

class DeviceBusServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto failure = bus_.start();
    ASSERT_TRUE(failure.empty()) << failure;
    std::string why;
    connection_ = ReservationBusConnection::connect(bus_.address(), 2s, &why);
    ASSERT_NE(connection_, nullptr) << why;
    service_ = DeviceBusService::create(*connection_, &why);
    ASSERT_NE(service_, nullptr) << why;
    uniqueName_ = connection_->withBus([](sd_bus* bus) {
      const char* name = nullptr;
      return sd_bus_get_unique_name(bus, &name) >= 0 ? std::string(name) : std::string();
    });
  }

  void TearDown() override {
    service_.reset();
    connection_.reset();
  }

  // busctl's JSON answer for a property of the device object; null when the call failed.
  nlohmann::json property(const std::string& name, ObjectID id = 100) {
    auto run =
        ChildProcess::launch({"busctl", "--address", bus_.address(), "--json=short", "get-property",
                              uniqueName_, DeviceObjectPath(id), kDeviceInterface, name});
    if (run == nullptr || run->waitForExitCode(10s) != 0) return nullptr;
    return nlohmann::json::parse(run->unreadOutput(), nullptr, false);
  }

  PrivateSessionBus bus_;
  std::unique_ptr<ReservationBusConnection> connection_;
  std::unique_ptr<DeviceBusService> service_;
  std::string uniqueName_;
};

TEST_F(DeviceBusServiceTest, ConsumersCarryTheKnownFieldsAndAFiltersFeeds) {
  service_->noteEvent(MediaDeviceEvent::InitialDiscovery, kMicrophone);
  const MediaDeviceConsumer meeting{.processID = 4242,
                                    .isProcessIDVerified = false,
                                    .applicationName = "Meeting",
                                    .applicationID = "org.example.Meeting",
                                    .sandbox = MediaDeviceConsumerSandbox::Flatpak,
                                    .sandboxApplicationID = "org.example.Meeting",
                                    .kind = MediaDeviceConsumerKind::Application};
  const MediaDeviceConsumer filter{.processID = 17,
                                   .isProcessIDVerified = true,
                                   .executablePath = "/usr/bin/pipewire",
                                   .processName = "pipewire",
                                   .kind = MediaDeviceConsumerKind::Filter,
                                   .feeds = {meeting}};
  service_->noteConsumers(kMicrophone, {filter});

  const auto answer = property("Consumers");
  ASSERT_TRUE(answer.is_object()) << answer;
  EXPECT_EQ(answer["type"], "aa{sv}");
  const auto& consumers = answer["data"];
  ASSERT_EQ(consumers.size(), 1u) << answer;
  const auto& first = consumers[0];
  EXPECT_EQ(first["ProcessID"]["data"], 17);
  EXPECT_EQ(first["ProcessIDVerified"]["data"], true);
  EXPECT_EQ(first["Kind"]["data"], "Filter");
  EXPECT_EQ(first["Sandbox"]["data"], "None");
  EXPECT_EQ(first["ExecutablePath"]["data"], "/usr/bin/pipewire");
  EXPECT_EQ(first["ProcessName"]["data"], "pipewire");
  EXPECT_FALSE(first.contains("ApplicationName")) << "an unknown text is left out";
  ASSERT_EQ(first["Feeds"]["type"], "aa{sv}");
  const auto& fed = first["Feeds"]["data"][0];
  EXPECT_EQ(fed["ProcessID"]["data"], 4242);
  EXPECT_EQ(fed["ProcessIDVerified"]["data"], false);
  EXPECT_EQ(fed["ApplicationName"]["data"], "Meeting");
  EXPECT_EQ(fed["Sandbox"]["data"], "Flatpak");
  EXPECT_EQ(fed["SandboxApplicationID"]["data"], "org.example.Meeting");
  EXPECT_FALSE(fed.contains("Feeds"));
}

TEST_F(DeviceBusServiceTest, ADisconnectedDeviceHasNoObjectAndConsumersOfItAreIgnored) {
  service_->noteEvent(MediaDeviceEvent::InitialDiscovery, kMicrophone);
  ASSERT_EQ(property("Name")["data"], "USB Microphone");
  service_->noteEvent(MediaDeviceEvent::Disconnected, kMicrophone);
  EXPECT_TRUE(property("Name").is_null());
  service_->noteConsumers(kMicrophone, {MediaDeviceConsumer{.processID = 5}});
  EXPECT_TRUE(property("Consumers").is_null());
  EXPECT_TRUE(service_->deviceIDs().empty());
}

}  // namespace
}  // namespace harkwell::cli
