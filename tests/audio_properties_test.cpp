// The audio property reads: the service calls they make (object, address, data sizes), the values
// they return, and the exact line each failure writes to the system log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HarkwellFoundation/Audio/AudioDeviceProperties.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SimulatedServicesFixture.h"

namespace harkwell {
namespace {

using testing::CallsAt;
using testing::CallsOfKind;
using ::testing::ElementsAre;
using testing::GlobalAddress;
using testing::InputAddress;
using ::testing::IsEmpty;
using testing::LogCapture;

constexpr ObjectID kMic = 73;

const PropertyAddress kDataSource = InputAddress(kAudioDevicePropertyDataSource);
const PropertyAddress kDataSourceName =
    InputAddress(kAudioDevicePropertyDataSourceNameForIDCFString);
const PropertyAddress kTransport = GlobalAddress(kAudioDevicePropertyTransportType);

SimulatedAudioDevice Microphone(ObjectID id = kMic) {
  return SimulatedAudioDevice{
      .deviceID = id,
      .name = "Studio Microphone",
      .deviceUID = "mic-uid",
      .transportType = kAudioDeviceTransportTypeUSB,
      .selectedDataSource = 1,
      .dataSourceNames = {{1, "Internal Microphone"}, {2, "Line In"}},
  };
}

// Reads shared with the video back end are tested in backend_properties_test.cpp.
class AudioPropertiesTest : public testing::SimulatedServicesTest {
 protected:
  void SetUp() override {
    SimulatedServicesTest::SetUp();
    audio->addDevice(Microphone());
    audio->clearCalls();
  }

  void Fail(SimulatedCallKind kind, ObjectID object, std::uint32_t selector, OSStatus status) {
    audio->addFailure(
        SimulatedFailure{.kind = kind, .object = object, .selector = selector, .status = status});
  }

  testing::PlatformStringLeakCheck leakCheck;
  LogCapture log;
};

// --- String properties ---------------------------------------------------------------------------

TEST_F(AudioPropertiesTest, FailedNameReadLogsTheExampleLine) {
  Fail(SimulatedCallKind::GetPropertyData, kMic, kAudioObjectPropertyName, -50);
  EXPECT_EQ(AudioDeviceNameForDeviceID(kMic), std::nullopt);
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error -50: Unable to get Name of device with ID 73"));
}

// --- Selected input source -----------------------------------------------------------------------

TEST_F(AudioPropertiesTest, GoneDeviceHasNoInputSourceNameAndNoLogLine) {
  audio->removeDevice(kMic);
  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(kMic), std::nullopt);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AudioPropertiesTest, HostileSourceNameIsReturnedByteForByte) {
  const std::string hostile = testing::HostileText();
  SimulatedAudioDevice device = Microphone(80);
  device.dataSourceNames = {{1, hostile}};
  audio->addDevice(device);
  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(80), hostile);
}

TEST_F(AudioPropertiesTest, InputSourceNameIsTranslatedThroughA28ByteRecord) {
  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(kMic), "Internal Microphone");

  const auto calls = audio->calls();
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_EQ(calls[0].kind, SimulatedCallKind::HasProperty);
  EXPECT_EQ(calls[0].address, kDataSource);
  EXPECT_EQ(calls[1].kind, SimulatedCallKind::HasProperty);
  EXPECT_EQ(calls[1].address, kDataSourceName);
  EXPECT_EQ(calls[2].kind, SimulatedCallKind::GetPropertyData);
  EXPECT_EQ(calls[2].address, kDataSource);
  EXPECT_EQ(calls[2].dataSize, 4u);
  EXPECT_EQ(calls[3].kind, SimulatedCallKind::GetPropertyData);
  EXPECT_EQ(calls[3].address, kDataSourceName);
  EXPECT_EQ(calls[3].dataSize, kAudioValueTranslationDataSize);
  EXPECT_EQ(calls[3].dataSize, 28u);
  for (const auto& call : calls) {
    EXPECT_EQ(call.object, kMic);
    EXPECT_EQ(call.qualifierDataSize, 0u);
  }

  audio->setSelectedDataSource(kMic, 2);
  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(kMic), "Line In");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(AudioPropertiesTest, DeviceWithoutDataSourceHasNoInputSourceNameAndNoLogLine) {
  SimulatedAudioDevice device = Microphone(80);
  device.selectedDataSource = std::nullopt;
  audio->addDevice(device);
  audio->clearCalls();

  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(80), std::nullopt);
  EXPECT_THAT(log.lines(), IsEmpty());
  const auto calls = audio->calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].kind, SimulatedCallKind::HasProperty);
  EXPECT_EQ(calls[0].address, kDataSource);
}

TEST_F(AudioPropertiesTest, DeviceWithoutSourceNamesHasNoInputSourceNameAndNoLogLine) {
  audio->removeProperty(kMic, kDataSourceName);

  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(kMic), std::nullopt);
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(CallsOfKind(audio->calls(), SimulatedCallKind::HasProperty).size(), 2u);
  EXPECT_THAT(CallsOfKind(audio->calls(), SimulatedCallKind::GetPropertyData), IsEmpty());
}

TEST_F(AudioPropertiesTest, FailedSourceReadLogsDefaultSource) {
  Fail(SimulatedCallKind::GetPropertyData, kMic, kAudioDevicePropertyDataSource, -50);
  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(kMic), std::nullopt);
  EXPECT_THAT(log.lines(),
              ElementsAre("Audio Error -50: Unable to get default source of device with ID 73"));
  // The name is not asked for without a source.
  EXPECT_THAT(CallsAt(audio->calls(), SimulatedCallKind::GetPropertyData, kMic, kDataSourceName),
              IsEmpty());
}

TEST_F(AudioPropertiesTest, FailedSourceNameReadLogsDefaultSourceName) {
  Fail(SimulatedCallKind::GetPropertyData, kMic, kAudioDevicePropertyDataSourceNameForIDCFString,
       -50);
  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(kMic), std::nullopt);
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error -50: Unable to get default source name of "
                                       "device with ID 73"));
}

TEST_F(AudioPropertiesTest, SourceWithoutANameLogsIsNil) {
  SimulatedAudioDevice device = Microphone(80);
  device.dataSourceNames = {{1, std::nullopt}};
  audio->addDevice(device);

  EXPECT_EQ(AudioDeviceSelectedInputSourceNameForDeviceID(80), std::nullopt);
  EXPECT_THAT(log.lines(), ElementsAre("Audio Error (unknown error): Name for default source of "
                                       "device with ID 80 is nil"));
}

// --- Transport type ------------------------------------------------------------------------------

TEST_F(AudioPropertiesTest, TransportCodesMapByTheAudioTable) {
  const std::pair<std::uint32_t, MediaDeviceTransportType> table[] = {
      {FourCharCode("grup"), MediaDeviceTransportType::Aggregate},
      {FourCharCode("airp"), MediaDeviceTransportType::AirPlay},
      {FourCharCode("eavb"), MediaDeviceTransportType::AVB},
      {FourCharCode("blue"), MediaDeviceTransportType::Bluetooth},
      {FourCharCode("blea"), MediaDeviceTransportType::BluetoothLE},
      {FourCharCode("bltn"), MediaDeviceTransportType::BuiltIn},
      {FourCharCode("dprt"), MediaDeviceTransportType::DisplayPort},
      {FourCharCode("1394"), MediaDeviceTransportType::FireWire},
      {FourCharCode("hdmi"), MediaDeviceTransportType::HDMI},
      {FourCharCode("pci "), MediaDeviceTransportType::PCI},
      {FourCharCode("thun"), MediaDeviceTransportType::Thunderbolt},
      {FourCharCode("usb "), MediaDeviceTransportType::USB},
      {FourCharCode("virt"), MediaDeviceTransportType::Virtual},
      // Codes only cameras use are not audio transports.
      {FourCharCode("ntwk"), MediaDeviceTransportType::Unknown},
      {FourCharCode("wrls"), MediaDeviceTransportType::Unknown},
      {FourCharCode("othr"), MediaDeviceTransportType::Unknown},
  };
  for (const auto& [code, expected] : table) {
    audio->setProperty(kMic, kTransport, SimulatedPropertyValue::UInt32(code), false);
    EXPECT_EQ(AudioDeviceTransportTypeForDeviceID(kMic), expected) << FourCharCodeText(code);
  }
  const auto reads = CallsAt(audio->calls(), SimulatedCallKind::GetPropertyData, kMic, kTransport);
  ASSERT_FALSE(reads.empty());
  EXPECT_EQ(reads[0].dataSize, 4u);
}

TEST_F(AudioPropertiesTest, AutoAggregateAndUnknownTransportMapToUnknown) {
  audio->setProperty(kMic, kTransport,
                     SimulatedPropertyValue::UInt32(kAudioDeviceTransportTypeAutoAggregate), false);
  EXPECT_EQ(AudioDeviceTransportTypeForDeviceID(kMic), MediaDeviceTransportType::Unknown);
  audio->setProperty(kMic, kTransport,
                     SimulatedPropertyValue::UInt32(kAudioDeviceTransportTypeUnknown), false);
  EXPECT_EQ(AudioDeviceTransportTypeForDeviceID(kMic), MediaDeviceTransportType::Unknown);
}

}  // namespace
}  // namespace harkwell
