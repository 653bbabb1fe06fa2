// The device record and the enumerations: ordinals, hash values, names, equality and the
// supported-device rule.
#include <gtest/gtest.h>

#include <sstream>
#include <unordered_set>

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceHogMode.h"

namespace harkwell {
namespace {

MediaDevice MakeDevice(std::uint64_t inputs, std::uint64_t outputs) {
  return MediaDevice{
      .deviceID = 42,
      .mediaType = MediaType::Audio,
      .deviceUID = "uid-42",
      .modelUID = std::nullopt,
      .transportType = MediaDeviceTransportType::USB,
      .name = "Microphone",
      .inputSourceName = std::nullopt,
      .inputChannelCount = inputs,
      .outputChannelCount = outputs,
      .isConnected = true,
      .isRunning = false,
      .unsupportedReason = MediaDeviceUnsupportedReasonForChannelCounts(inputs, outputs),
  };
}

TEST(UnsupportedReason, NoInputsIsNoInputChannelsWhateverTheOutputs) {
  EXPECT_EQ(MediaDeviceUnsupportedReasonForChannelCounts(0, 0),
            MediaDeviceUnsupportedReason::NoInputChannels);
  EXPECT_EQ(MediaDeviceUnsupportedReasonForChannelCounts(0, 5),
            MediaDeviceUnsupportedReason::NoInputChannels);
}

TEST(UnsupportedReason, InputOnlyIsSupported) {
  EXPECT_EQ(MediaDeviceUnsupportedReasonForChannelCounts(2, 0), std::nullopt);
}

TEST(UnsupportedReason, InputsAndOutputsAreUnsupported) {
  EXPECT_EQ(MediaDeviceUnsupportedReasonForChannelCounts(2, 2),
            MediaDeviceUnsupportedReason::InputAndOutputChannels);
  EXPECT_EQ(MediaDeviceUnsupportedReasonForChannelCounts(1, 1),
            MediaDeviceUnsupportedReason::InputAndOutputChannels);
}

TEST(MediaDeviceRecord, ZeroInputsHasNoInputChannelsAndIsUnsupported) {
  const MediaDevice device = MakeDevice(0, 2);
  EXPECT_FALSE(device.hasInputChannels());
  EXPECT_FALSE(device.isSupported());
}

TEST(MediaDeviceRecord, InputOnlyDeviceHasInputChannelsAndIsSupported) {
  const MediaDevice device = MakeDevice(1, 0);
  EXPECT_TRUE(device.hasInputChannels());
  EXPECT_TRUE(device.isSupported());
}

TEST(MediaDeviceRecord, MemberwiseInitialiserStoresFieldsUnchanged) {
  // No validation: a reason that contradicts the counts is kept as given.
  const MediaDevice device{.deviceID = 7,
                           .mediaType = MediaType::Video,
                           .deviceUID = "",
                           .modelUID = "model",
                           .transportType = MediaDeviceTransportType::Other,
                           .name = "",
                           .inputSourceName = "Line In",
                           .inputChannelCount = 3,
                           .outputChannelCount = 0,
                           .isConnected = false,
                           .isRunning = true,
                           .unsupportedReason = MediaDeviceUnsupportedReason::NoInputChannels};
  EXPECT_EQ(device.deviceID, 7u);
  EXPECT_EQ(device.mediaType, MediaType::Video);
  EXPECT_EQ(device.modelUID, "model");
  EXPECT_EQ(device.inputSourceName, "Line In");
  EXPECT_TRUE(device.isRunning);
  EXPECT_FALSE(device.isSupported());
}

TEST(MediaDeviceRecord, EqualityComparesEveryField) {
  const MediaDevice a = MakeDevice(1, 0);
  MediaDevice b = a;
  EXPECT_EQ(a, b);
  b.isRunning = true;
  EXPECT_NE(a, b);
  b = a;
  b.inputSourceName = "";
  EXPECT_NE(a, b) << "an empty string is not an absent one";
}

TEST(TransportType, EqualExactlyWhenSameCase) {
  EXPECT_EQ(MediaDeviceTransportType::USB, MediaDeviceTransportType::USB);
  EXPECT_NE(MediaDeviceTransportType::USB, MediaDeviceTransportType::Bluetooth);
  EXPECT_NE(MediaDeviceTransportType::Bluetooth, MediaDeviceTransportType::BluetoothLE);
}

TEST(TransportType, HashValueIsOrdinal) {
  EXPECT_EQ(hashValue(MediaDeviceTransportType::Other), 16u);
  EXPECT_EQ(hashValue(MediaDeviceTransportType::Unknown), 0u);
  EXPECT_EQ(hashValue(MediaDeviceTransportType::USB), 13u);
  EXPECT_EQ(std::hash<MediaDeviceTransportType>{}(MediaDeviceTransportType::Other), 16u);
}

TEST(MediaDeviceEventCases, ChangedInputSourceHashValueIsFour) {
  EXPECT_EQ(hashValue(MediaDeviceEvent::ChangedInputSource), 4u);
  EXPECT_EQ(hashValue(MediaDeviceEvent::InitialDiscovery), 0u);
  EXPECT_EQ(std::hash<MediaDeviceEvent>{}(MediaDeviceEvent::ChangedInputSource), 4u);
}

TEST(Enumerations, OrdinalsFollowDeclarationOrder) {
  EXPECT_EQ(hashValue(MediaType::Audio), 0u);
  EXPECT_EQ(hashValue(MediaType::Video), 1u);
  EXPECT_EQ(hashValue(MediaDeviceUnsupportedReason::NoInputChannels), 0u);
  EXPECT_EQ(hashValue(MediaDeviceUnsupportedReason::InputAndOutputChannels), 1u);
  const MediaDeviceTransportType all[] = {
      MediaDeviceTransportType::Unknown,     MediaDeviceTransportType::Aggregate,
      MediaDeviceTransportType::AirPlay,     MediaDeviceTransportType::AVB,
      MediaDeviceTransportType::Bluetooth,   MediaDeviceTransportType::BluetoothLE,
      MediaDeviceTransportType::BuiltIn,     MediaDeviceTransportType::DisplayPort,
      MediaDeviceTransportType::FireWire,    MediaDeviceTransportType::HDMI,
      MediaDeviceTransportType::Network,     MediaDeviceTransportType::PCI,
      MediaDeviceTransportType::Thunderbolt, MediaDeviceTransportType::USB,
      MediaDeviceTransportType::Virtual,     MediaDeviceTransportType::Wireless,
      MediaDeviceTransportType::Other};
  for (std::size_t i = 0; i < std::size(all); ++i) EXPECT_EQ(hashValue(all[i]), i);
}

TEST(Enumerations, CasesPrintAndParseByName) {
  EXPECT_EQ(caseName(MediaDeviceEvent::ChangedRunning), "ChangedRunning");
  EXPECT_EQ(caseName(MediaDeviceTransportType::BluetoothLE), "BluetoothLE");
  EXPECT_EQ(caseName(MediaType::Video), "Video");
  EXPECT_EQ(caseName(MediaDeviceUnsupportedReason::InputAndOutputChannels),
            "InputAndOutputChannels");
  EXPECT_EQ(caseFromName<MediaDeviceTransportType>("Thunderbolt"),
            MediaDeviceTransportType::Thunderbolt);
  EXPECT_EQ(caseFromName<MediaDeviceEvent>("Nope"), std::nullopt);
  std::ostringstream text;
  text << MediaDeviceEvent::Disconnected;
  EXPECT_EQ(text.str(), "Disconnected");
}

TEST(Enumerations, UsableAsHashKeys) {
  std::unordered_set<MediaDeviceEvent> seen{MediaDeviceEvent::Connected,
                                            MediaDeviceEvent::Connected};
  EXPECT_EQ(seen.size(), 1u);
}

}  // namespace
}  // namespace harkwell
