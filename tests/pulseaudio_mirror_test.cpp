// The PulseAudio service's devices as seam objects, in the shared Linux audio mirror: IDs, property
// answers with their statuses and sizes, and which properties a new server state changes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/MappedAudioDeviceMirror.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioDeviceMapping.h"
#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"
#include "HarkwellFoundation/Platform/PlatformString.h"

namespace harkwell {
namespace {

using Change = MappedAudioDeviceMirror::Change;

// A device's ID: the home of its UID, as no two UIDs of these tests share a slot.
ObjectID IDOf(const std::string& uid) {
  return StableDeviceIDHome(StableIDSpace::Audio, uid);
}

std::vector<ObjectID> Ascending(std::vector<ObjectID> ids) {
  std::sort(ids.begin(), ids.end());
  return ids;
}

PropertyAddress Global(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMaster};
}
PropertyAddress Input(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeInput, kAudioObjectPropertyElementMaster};
}
PropertyAddress Output(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeOutput, kAudioObjectPropertyElementMaster};
}

PulseMappedDevice Microphone(const std::string& uid) {
  PulseMappedDevice device;
  device.kind = PulseEndpointKind::Source;
  device.uid = uid;
  device.name = "Microphone " + uid;
  device.transportType = kAudioDeviceTransportTypeUSB;
  device.inputStreamCount = 1;
  return device;
}

PulseMappedDevice Speakers(const std::string& uid) {
  PulseMappedDevice device;
  device.kind = PulseEndpointKind::Sink;
  device.uid = uid;
  device.name = "Speakers " + uid;
  device.transportType = kAudioDeviceTransportTypeBuiltIn;
  device.outputStreamCount = 1;
  return device;
}

PulseMappedDevice WithPorts(PulseMappedDevice device, const std::string& selected) {
  device.inputSources = {{"internal-mic", "Internal Microphone"},
                         {"headset-mic", "Headset Microphone"}};
  device.selectedInputSource = selected;
  return device;
}

std::vector<ObjectID> ListedDevices(const MappedAudioDeviceMirror& mirror) {
  std::uint32_t size = 0;
  EXPECT_EQ(mirror.getPropertyDataSize(kAudioObjectSystemObject,
                                       Global(kAudioHardwarePropertyDevices), &size),
            kNoErr);
  std::vector<ObjectID> ids(size / 4);
  EXPECT_EQ(mirror.getPropertyData(kAudioObjectSystemObject, Global(kAudioHardwarePropertyDevices),
                                   &size, ids.data()),
            kNoErr);
  ids.resize(size / 4);
  return ids;
}

// A string property's text; "<null>" for a null reference, "<status N>" for a failure.
std::string ReadString(const MappedAudioDeviceMirror& mirror, ObjectID object,
                       std::uint32_t selector) {
  OwnedPlatformString string;
  std::uint32_t size = sizeof(PlatformStringRef);
  const OSStatus status = mirror.getPropertyData(object, Global(selector), &size, string.slot());
  if (status != kNoErr) return "<status " + std::to_string(status) + ">";
  EXPECT_EQ(size, sizeof(PlatformStringRef));
  return string.get() ? PlatformStringText(string.get()) : "<null>";
}

std::optional<std::uint32_t> ReadUInt32(const MappedAudioDeviceMirror& mirror, ObjectID object,
                                        const PropertyAddress& address) {
  std::uint32_t value = 0xdeadbeef;
  std::uint32_t size = sizeof value;
  if (mirror.getPropertyData(object, address, &size, &value) != kNoErr) return std::nullopt;
  EXPECT_EQ(size, 4u);
  return value;
}

// The name of input source `sourceID`, read through an AudioValueTranslation.
std::string TranslateSource(const MappedAudioDeviceMirror& mirror, ObjectID object,
                            std::uint32_t sourceID) {
  PlatformStringRef name = nullptr;
  AudioValueTranslation translation{&sourceID, sizeof sourceID, &name, sizeof name};
  std::uint32_t size = kAudioValueTranslationDataSize;
  const OSStatus status = mirror.getPropertyData(
      object, Input(kAudioDevicePropertyDataSourceNameForIDCFString), &size, &translation);
  if (status != kNoErr) return "<status " + std::to_string(status) + ">";
  OwnedPlatformString owned(name);
  return name ? PlatformStringText(name) : "<null>";
}

// --- IDs -----------------------------------------------------------------------------------------

TEST(PulseAudioDeviceMirrorTest, EachDeviceHasTheIDOfItsUIDAndTheListIsAscending) {
  MappedAudioDeviceMirror mirror;
  mirror.update({Speakers("out"), Microphone("in")});
  EXPECT_EQ(ListedDevices(mirror), Ascending({IDOf("out"), IDOf("in")}));
  EXPECT_EQ(ReadString(mirror, IDOf("out"), kAudioDevicePropertyDeviceUID), "out");
  EXPECT_EQ(ReadString(mirror, IDOf("in"), kAudioDevicePropertyDeviceUID), "in");
}

TEST(PulseAudioDeviceMirrorTest, AnotherMirrorGivesTheSameIDsWhateverItSawBefore) {
  // Another process, or this one after the server restarted, with a different history.
  MappedAudioDeviceMirror first;
  first.update({Microphone("a"), Microphone("b"), Speakers("c")});
  MappedAudioDeviceMirror second;
  second.update({Microphone("x")});
  second.update({Speakers("c"), Microphone("b")});
  second.update({Microphone("a"), Microphone("b"), Speakers("c")});
  EXPECT_EQ(ListedDevices(first), ListedDevices(second));
}

TEST(PulseAudioDeviceMirrorTest, DeviceThatComesBackKeepsItsID) {
  MappedAudioDeviceMirror mirror;
  mirror.update({Microphone("a"), Microphone("b")});
  mirror.update({Microphone("b")});
  mirror.update({});
  mirror.update({Microphone("b"), Microphone("a")});
  EXPECT_EQ(ListedDevices(mirror), Ascending({IDOf("a"), IDOf("b")}));
  EXPECT_EQ(ReadString(mirror, IDOf("a"), kAudioDevicePropertyDeviceUID), "a");
}

TEST(PulseAudioDeviceMirrorTest, ADeviceThatLeavesTakesItsIDAlong) {
  MappedAudioDeviceMirror mirror;
  mirror.update({Microphone("a")});
  mirror.update({Microphone("c")});
  EXPECT_EQ(ListedDevices(mirror), (std::vector<ObjectID>{IDOf("c")}));
  EXPECT_EQ(ReadString(mirror, IDOf("a"), kAudioObjectPropertyName),
            "<status " + std::to_string(kAudioHardwareBadObjectError) + ">");
}

TEST(PulseAudioDeviceMirrorTest, SourceAndSinkOfTheSameNameAreTwoDevicesTheSourceFirst) {
  MappedAudioDeviceMirror mirror;
  mirror.update({Microphone("same"), Speakers("same")});
  EXPECT_EQ(ListedDevices(mirror), (std::vector<ObjectID>{IDOf("same"), IDOf("same") + 2}));
  EXPECT_EQ(ReadString(mirror, IDOf("same"), kAudioObjectPropertyName), "Microphone same");
  EXPECT_EQ(ReadString(mirror, IDOf("same") + 2, kAudioObjectPropertyName), "Speakers same");
}

TEST(PulseAudioDeviceMirrorTest, ASinkTakingTheIDOfASourceOfTheSameNameChangesTheList) {
  MappedAudioDeviceMirror mirror;
  mirror.update({Microphone("same")});
  const Change list{kAudioObjectSystemObject, Global(kAudioHardwarePropertyDevices)};
  const auto changes = mirror.update({Speakers("same")});
  ASSERT_FALSE(changes.empty());
  EXPECT_EQ(changes.front(), list) << "another device has the ID now";
  EXPECT_EQ(ListedDevices(mirror), (std::vector<ObjectID>{IDOf("same")}));
}

TEST(PulseAudioDeviceMirrorTest, TwoRecordsOfOneKindAndNameAreOneDeviceTheLast) {
  PulseMappedDevice first = Microphone("twice");
  PulseMappedDevice second = Microphone("twice");
  second.name = "Second";
  const auto distinct = DistinctPulseDevices({first, Speakers("twice"), second});
  ASSERT_EQ(distinct.size(), 2u);
  EXPECT_EQ(distinct[0].name, "Speakers twice");
  EXPECT_EQ(distinct[1].name, "Second");
}

TEST(PulseAudioDeviceMirrorTest, CollidingUIDsAreSettledInUIDOrderAndAMoveChangesTheList) {
  // Both UIDs have their home in the same slot; the one that sorts first owns it when present.
  const std::string first = "alsa_input.collide.188";
  const std::string second = "alsa_input.collide.294";
  ASSERT_EQ(IDOf(first), IDOf(second));
  const ObjectID home = IDOf(first);
  MappedAudioDeviceMirror mirror;
  mirror.update({Microphone(second)});
  EXPECT_EQ(ListedDevices(mirror), (std::vector<ObjectID>{home}));

  const Change list{kAudioObjectSystemObject, Global(kAudioHardwarePropertyDevices)};
  const auto changes = mirror.update({Microphone(second), Microphone(first)});
  EXPECT_EQ(ListedDevices(mirror), (std::vector<ObjectID>{home, home + 2}));
  EXPECT_EQ(ReadString(mirror, home, kAudioDevicePropertyDeviceUID), first);
  EXPECT_EQ(ReadString(mirror, home + 2, kAudioDevicePropertyDeviceUID), second);
  ASSERT_FALSE(changes.empty());
  EXPECT_EQ(changes.front(), list) << "the home ID names another device now";

  EXPECT_EQ(mirror.update({Microphone(second)}), (std::vector<Change>{
                                                     list,
                                                     {home, Global(kAudioDevicePropertyDeviceUID)},
                                                     {home, Global(kAudioObjectPropertyName)},
                                                 }));
}

// --- Property answers
// ------------------------------------------------------------------------------

TEST(PulseAudioDeviceMirrorTest, StringPropertiesAreReferencesTheCallerOwns) {
  MappedAudioDeviceMirror mirror;
  PulseMappedDevice device = Microphone("alsa_input.usb");
  device.modelUID = "046d:0825";
  mirror.update({device});
  const std::size_t before = PlatformStringLiveCount();
  std::uint32_t size = 0;
  EXPECT_EQ(
      mirror.getPropertyDataSize(IDOf("alsa_input.usb"), Global(kAudioObjectPropertyName), &size),
      kNoErr);
  EXPECT_EQ(size, 8u);
  EXPECT_EQ(ReadString(mirror, IDOf("alsa_input.usb"), kAudioObjectPropertyName),
            "Microphone alsa_input.usb");
  EXPECT_EQ(ReadString(mirror, IDOf("alsa_input.usb"), kAudioDevicePropertyDeviceUID),
            "alsa_input.usb");
  EXPECT_EQ(ReadString(mirror, IDOf("alsa_input.usb"), kAudioDevicePropertyModelUID), "046d:0825");
  EXPECT_EQ(PlatformStringLiveCount(), before);
}

TEST(PulseAudioDeviceMirrorTest, UnknownModelIsANullReference) {
  MappedAudioDeviceMirror mirror;
  mirror.update({Microphone("mic")});
  EXPECT_TRUE(mirror.hasProperty(IDOf("mic"), Global(kAudioDevicePropertyModelUID)));
  EXPECT_EQ(ReadString(mirror, IDOf("mic"), kAudioDevicePropertyModelUID), "<null>");
}

TEST(PulseAudioDeviceMirrorTest, GlobalPropertiesAnswerInEveryScope) {
  MappedAudioDeviceMirror mirror;
  mirror.update({Microphone("mic")});
  std::uint32_t size = 0;
  EXPECT_EQ(mirror.getPropertyDataSize(IDOf("mic"), Input(kAudioObjectPropertyName), &size),
            kNoErr);
  EXPECT_EQ(mirror.getPropertyDataSize(IDOf("mic"), Output(kAudioObjectPropertyName), &size),
            kNoErr);
  EXPECT_EQ(mirror.getPropertyDataSize(IDOf("mic"),
                                       {kAudioObjectPropertyName, FourCharCode("abcd"), 0}, &size),
            kAudioHardwareUnknownPropertyError);
  EXPECT_EQ(mirror.getPropertyDataSize(
                IDOf("mic"), {kAudioObjectPropertyName, kAudioObjectPropertyScopeGlobal, 3}, &size),
            kAudioHardwareUnknownPropertyError);
}

TEST(PulseAudioDeviceMirrorTest, TransportIsAFourByteCode) {
  MappedAudioDeviceMirror mirror;
  mirror.update({Speakers("out")});
  EXPECT_EQ(ReadUInt32(mirror, IDOf("out"), Global(kAudioDevicePropertyTransportType)),
            kAudioDeviceTransportTypeBuiltIn);
}

TEST(PulseAudioDeviceMirrorTest, StreamListsHaveFourBytesPerStream) {
  MappedAudioDeviceMirror mirror;
  mirror.update({Microphone("in"), Speakers("out")});
  auto sizeOf = [&](ObjectID device, const PropertyAddress& address) {
    std::uint32_t size = 99;
    EXPECT_EQ(mirror.getPropertyDataSize(device, address, &size), kNoErr);
    return size;
  };
  EXPECT_EQ(sizeOf(IDOf("in"), Input(kAudioDevicePropertyStreams)), 4u);
  EXPECT_EQ(sizeOf(IDOf("in"), Output(kAudioDevicePropertyStreams)), 0u);
  EXPECT_EQ(sizeOf(IDOf("out"), Input(kAudioDevicePropertyStreams)), 0u);
  EXPECT_EQ(sizeOf(IDOf("out"), Output(kAudioDevicePropertyStreams)), 4u);
  EXPECT_EQ(sizeOf(IDOf("out"), Global(kAudioDevicePropertyStreams)), 4u);
  EXPECT_EQ(ReadUInt32(mirror, IDOf("in"), Input(kAudioDevicePropertyStreams)), IDOf("in") + 1);
}

TEST(PulseAudioDeviceMirrorTest, RunningSomewhereIsZeroOrOne) {
  MappedAudioDeviceMirror mirror;
  PulseMappedDevice device = Microphone("mic");
  mirror.update({device});
  EXPECT_EQ(ReadUInt32(mirror, IDOf("mic"), Global(kAudioDevicePropertyDeviceIsRunningSomewhere)),
            0u);
  device.isRunning = true;
  mirror.update({device});
  EXPECT_EQ(ReadUInt32(mirror, IDOf("mic"), Global(kAudioDevicePropertyDeviceIsRunningSomewhere)),
            1u);
}

TEST(PulseAudioDeviceMirrorTest, SelectedInputSourceIsTheActivePortsID) {
  MappedAudioDeviceMirror mirror;
  mirror.update({WithPorts(Microphone("mic"), "headset-mic")});
  EXPECT_TRUE(mirror.hasProperty(IDOf("mic"), Input(kAudioDevicePropertyDataSource)));
  EXPECT_TRUE(
      mirror.hasProperty(IDOf("mic"), Input(kAudioDevicePropertyDataSourceNameForIDCFString)));
  EXPECT_EQ(ReadUInt32(mirror, IDOf("mic"), Input(kAudioDevicePropertyDataSource)), 2u);
  EXPECT_EQ(TranslateSource(mirror, IDOf("mic"), 2), "Headset Microphone");
  EXPECT_EQ(TranslateSource(mirror, IDOf("mic"), 1), "Internal Microphone");
  EXPECT_EQ(TranslateSource(mirror, IDOf("mic"), 7), "<null>");
  std::uint32_t size = 0;
  EXPECT_EQ(mirror.getPropertyDataSize(
                IDOf("mic"), Input(kAudioDevicePropertyDataSourceNameForIDCFString), &size),
            kNoErr);
  EXPECT_EQ(size, kAudioValueTranslationDataSize);
}

TEST(PulseAudioDeviceMirrorTest, InputSourceIDsStayWithTheirPorts) {
  MappedAudioDeviceMirror mirror;
  mirror.update({WithPorts(Microphone("mic"), "internal-mic")});
  PulseMappedDevice reordered = Microphone("mic");
  reordered.inputSources = {{"line-in", "Line In"}, {"headset-mic", "Headset Microphone"}};
  reordered.selectedInputSource = "line-in";
  mirror.update({reordered});
  EXPECT_EQ(ReadUInt32(mirror, IDOf("mic"), Input(kAudioDevicePropertyDataSource)), 3u);
  EXPECT_EQ(TranslateSource(mirror, IDOf("mic"), 2), "Headset Microphone");
  EXPECT_EQ(TranslateSource(mirror, IDOf("mic"), 1), "<null>");
}

TEST(PulseAudioDeviceMirrorTest, DeviceWithoutPortsHasNoDataSourceProperties) {
  MappedAudioDeviceMirror mirror;
  mirror.update({Microphone("mic"), Speakers("out")});
  for (ObjectID device : {IDOf("mic"), IDOf("out")}) {
    EXPECT_FALSE(mirror.hasProperty(device, Input(kAudioDevicePropertyDataSource)));
    EXPECT_FALSE(
        mirror.hasProperty(device, Input(kAudioDevicePropertyDataSourceNameForIDCFString)));
    EXPECT_EQ(ReadUInt32(mirror, device, Input(kAudioDevicePropertyDataSource)), std::nullopt);
  }
}

TEST(PulseAudioDeviceMirrorTest, DataSourceLivesInTheInputScopeOnly) {
  MappedAudioDeviceMirror mirror;
  mirror.update({WithPorts(Microphone("mic"), "internal-mic")});
  EXPECT_FALSE(mirror.hasProperty(IDOf("mic"), Global(kAudioDevicePropertyDataSource)));
  EXPECT_FALSE(mirror.hasProperty(IDOf("mic"), Output(kAudioDevicePropertyDataSource)));
}

TEST(PulseAudioDeviceMirrorTest, HogModeIsAnUnknownProperty) {
  MappedAudioDeviceMirror mirror;
  mirror.update({Microphone("mic")});
  std::int32_t owner = -1;
  std::uint32_t size = sizeof owner;
  EXPECT_FALSE(mirror.hasProperty(IDOf("mic"), Global(kAudioDevicePropertyHogMode)));
  EXPECT_EQ(mirror.getPropertyDataSize(IDOf("mic"), Global(kAudioDevicePropertyHogMode), &size),
            kAudioHardwareUnknownPropertyError);
  EXPECT_EQ(mirror.getPropertyData(IDOf("mic"), Global(kAudioDevicePropertyHogMode), &size, &owner),
            kAudioHardwareUnknownPropertyError);
  EXPECT_EQ(mirror.setPropertyDataStatus(IDOf("mic"), Global(kAudioDevicePropertyHogMode)),
            kAudioHardwareUnknownPropertyError);
}

TEST(PulseAudioDeviceMirrorTest, HogModeOfADeviceWithACardNamesTheCard) {
  MappedAudioDeviceMirror mirror;
  PulseMappedDevice withCard = Microphone("mic");
  withCard.soundCard = 4;
  mirror.update({withCard, Speakers("null")});
  std::uint32_t card = 0;
  EXPECT_EQ(mirror.hogModeSoundCard(IDOf("mic"), Global(kAudioDevicePropertyHogMode), &card),
            kNoErr);
  EXPECT_EQ(card, 4u);
  EXPECT_EQ(mirror.hogModeSoundCard(IDOf("mic"), Output(kAudioDevicePropertyHogMode), &card),
            kNoErr);
  EXPECT_EQ(mirror.hogModeSoundCard(IDOf("null"), Global(kAudioDevicePropertyHogMode), &card),
            kAudioHardwareUnknownPropertyError);
  EXPECT_EQ(
      mirror.hogModeSoundCard(kAudioObjectSystemObject, Global(kAudioDevicePropertyHogMode), &card),
      kAudioHardwareUnknownPropertyError);
  EXPECT_EQ(
      mirror.hogModeSoundCard(
          IDOf("mic"), {kAudioDevicePropertyHogMode, kAudioObjectPropertyScopeGlobal, 1}, &card),
      kAudioHardwareUnknownPropertyError);
  EXPECT_EQ(mirror.hogModeSoundCard(999, Global(kAudioDevicePropertyHogMode), &card),
            kAudioHardwareBadObjectError);
}

TEST(PulseAudioDeviceMirrorTest, AbsentObjectIsABadObject) {
  MappedAudioDeviceMirror mirror;
  mirror.update({Microphone("mic")});
  mirror.update({});
  std::uint32_t size = 0;
  EXPECT_FALSE(mirror.hasObject(IDOf("mic")));
  EXPECT_FALSE(mirror.hasProperty(IDOf("mic"), Global(kAudioObjectPropertyName)));
  EXPECT_EQ(mirror.getPropertyDataSize(IDOf("mic"), Global(kAudioObjectPropertyName), &size),
            kAudioHardwareBadObjectError);
  EXPECT_EQ(ReadUInt32(mirror, 5, Global(kAudioDevicePropertyTransportType)), std::nullopt);
  EXPECT_EQ(mirror.setPropertyDataStatus(IDOf("mic"), Global(kAudioObjectPropertyName)),
            kAudioHardwareBadObjectError);
  EXPECT_TRUE(mirror.hasObject(kAudioObjectSystemObject));
}

TEST(PulseAudioDeviceMirrorTest, SystemObjectHasOnlyTheDeviceList) {
  MappedAudioDeviceMirror mirror;
  std::uint32_t size = 99;
  EXPECT_EQ(mirror.getPropertyDataSize(kAudioObjectSystemObject,
                                       Global(kAudioHardwarePropertyDevices), &size),
            kNoErr);
  EXPECT_EQ(size, 0u);
  EXPECT_FALSE(mirror.hasProperty(kAudioObjectSystemObject, Global(kAudioObjectPropertyName)));
}

TEST(PulseAudioDeviceMirrorTest, BuffersTooSmallAreABadPropertySize) {
  MappedAudioDeviceMirror mirror;
  mirror.update({WithPorts(Microphone("mic"), "internal-mic")});
  std::uint8_t buffer[32] = {};
  std::uint32_t size = 3;
  EXPECT_EQ(
      mirror.getPropertyData(IDOf("mic"), Global(kAudioDevicePropertyTransportType), &size, buffer),
      kAudioHardwareBadPropertySizeError);
  size = 7;
  EXPECT_EQ(mirror.getPropertyData(IDOf("mic"), Global(kAudioObjectPropertyName), &size, buffer),
            kAudioHardwareBadPropertySizeError);
  size = 27;
  EXPECT_EQ(mirror.getPropertyData(
                IDOf("mic"), Input(kAudioDevicePropertyDataSourceNameForIDCFString), &size, buffer),
            kAudioHardwareBadPropertySizeError);
}

TEST(PulseAudioDeviceMirrorTest, MalformedTranslationIsABadPropertySize) {
  MappedAudioDeviceMirror mirror;
  mirror.update({WithPorts(Microphone("mic"), "internal-mic")});
  std::uint32_t sourceID = 1;
  PlatformStringRef name = nullptr;
  AudioValueTranslation translation{&sourceID, 2, &name, sizeof name};
  std::uint32_t size = kAudioValueTranslationDataSize;
  EXPECT_EQ(
      mirror.getPropertyData(IDOf("mic"), Input(kAudioDevicePropertyDataSourceNameForIDCFString),
                             &size, &translation),
      kAudioHardwareBadPropertySizeError);
  translation = {&sourceID, sizeof sourceID, nullptr, sizeof name};
  EXPECT_EQ(
      mirror.getPropertyData(IDOf("mic"), Input(kAudioDevicePropertyDataSourceNameForIDCFString),
                             &size, &translation),
      kAudioHardwareBadPropertySizeError);
}

TEST(PulseAudioDeviceMirrorTest, DeviceListWritesTheWholeIDsThatFit) {
  MappedAudioDeviceMirror mirror;
  mirror.update({Microphone("a"), Microphone("b"), Microphone("c")});
  ObjectID ids[3] = {};
  std::uint32_t size = 6;
  EXPECT_EQ(mirror.getPropertyData(kAudioObjectSystemObject, Global(kAudioHardwarePropertyDevices),
                                   &size, ids),
            kNoErr);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(ids[0], std::min({IDOf("a"), IDOf("b"), IDOf("c")}));
  EXPECT_EQ(ids[1], 0u);
}

TEST(PulseAudioDeviceMirrorTest, MissingBuffersAreRefused) {
  MappedAudioDeviceMirror mirror;
  mirror.update({Microphone("mic")});
  std::uint32_t size = 4;
  EXPECT_EQ(mirror.getPropertyDataSize(IDOf("mic"), Global(kAudioObjectPropertyName), nullptr),
            kAudioHardwareIllegalOperationError);
  EXPECT_EQ(mirror.getPropertyData(IDOf("mic"), Global(kAudioObjectPropertyName), nullptr, nullptr),
            kAudioHardwareIllegalOperationError);
  EXPECT_EQ(mirror.getPropertyData(IDOf("mic"), Global(kAudioObjectPropertyName), &size, nullptr),
            kAudioHardwareIllegalOperationError);
}

TEST(PulseAudioDeviceMirrorTest, NothingIsWritable) {
  MappedAudioDeviceMirror mirror;
  mirror.update({Microphone("mic")});
  EXPECT_EQ(mirror.setPropertyDataStatus(IDOf("mic"), Global(kAudioObjectPropertyName)),
            kAudioHardwareIllegalOperationError);
  EXPECT_EQ(mirror.setPropertyDataStatus(IDOf("mic"), Global(FourCharCode("zzzz"))),
            kAudioHardwareUnknownPropertyError);
}

// --- Changes -------------------------------------------------------------------------------------

TEST(PulseAudioDeviceMirrorTest, ArrivalAndDepartureChangeTheDeviceList) {
  MappedAudioDeviceMirror mirror;
  const Change list{kAudioObjectSystemObject, Global(kAudioHardwarePropertyDevices)};
  EXPECT_EQ(mirror.update({Microphone("a")}), std::vector<Change>{list});
  EXPECT_EQ(mirror.update({Microphone("a"), Speakers("b")}), std::vector<Change>{list});
  EXPECT_EQ(mirror.update({Speakers("b")}), std::vector<Change>{list});
  EXPECT_EQ(mirror.update({}), std::vector<Change>{list});
  EXPECT_TRUE(mirror.update({}).empty());
}

TEST(PulseAudioDeviceMirrorTest, SameDevicesChangeNothing) {
  MappedAudioDeviceMirror mirror;
  mirror.update({WithPorts(Microphone("a"), "internal-mic"), Speakers("b")});
  EXPECT_TRUE(mirror.update({WithPorts(Microphone("a"), "internal-mic"), Speakers("b")}).empty());
}

TEST(PulseAudioDeviceMirrorTest, RunningChangeNotifiesRunningSomewhereOnly) {
  MappedAudioDeviceMirror mirror;
  PulseMappedDevice device = Microphone("mic");
  mirror.update({device});
  device.isRunning = true;
  EXPECT_EQ(
      mirror.update({device}),
      (std::vector<Change>{{IDOf("mic"), Global(kAudioDevicePropertyDeviceIsRunningSomewhere)}}));
  device.isRunning = false;
  EXPECT_EQ(
      mirror.update({device}),
      (std::vector<Change>{{IDOf("mic"), Global(kAudioDevicePropertyDeviceIsRunningSomewhere)}}));
}

TEST(PulseAudioDeviceMirrorTest, PortChangeNotifiesTheDataSource) {
  MappedAudioDeviceMirror mirror;
  mirror.update({WithPorts(Microphone("mic"), "internal-mic")});
  EXPECT_EQ(mirror.update({WithPorts(Microphone("mic"), "headset-mic")}),
            (std::vector<Change>{{IDOf("mic"), Input(kAudioDevicePropertyDataSource)}}));
}

TEST(PulseAudioDeviceMirrorTest, PortDescriptionChangeNotifiesTheSourceNames) {
  MappedAudioDeviceMirror mirror;
  mirror.update({WithPorts(Microphone("mic"), "internal-mic")});
  PulseMappedDevice renamed = WithPorts(Microphone("mic"), "internal-mic");
  renamed.inputSources[1].description = "Headset";
  EXPECT_EQ(
      mirror.update({renamed}),
      (std::vector<Change>{{IDOf("mic"), Input(kAudioDevicePropertyDataSourceNameForIDCFString)}}));
}

TEST(PulseAudioDeviceMirrorTest, NameModelAndTransportChangesAreNotified) {
  MappedAudioDeviceMirror mirror;
  PulseMappedDevice device = Microphone("mic");
  mirror.update({device});
  device.name = "Renamed";
  device.modelUID = "1:2";
  device.transportType = kAudioDeviceTransportTypePCI;
  EXPECT_EQ(mirror.update({device}),
            (std::vector<Change>{{IDOf("mic"), Global(kAudioObjectPropertyName)},
                                 {IDOf("mic"), Global(kAudioDevicePropertyModelUID)},
                                 {IDOf("mic"), Global(kAudioDevicePropertyTransportType)}}));
}

TEST(PulseAudioDeviceMirrorTest, IdleToSuspendedSourceChangesNothing) {
  PulseServerState state;
  PulseEndpoint source;
  source.index = 1;
  source.name = "mic";
  source.state = PulseEndpointState::Idle;
  state.sources.emplace(1, source);
  MappedAudioDeviceMirror mirror;
  mirror.update(DistinctPulseDevices(MapPulseServerState(state)));
  state.sources.at(1).state = PulseEndpointState::Suspended;
  EXPECT_TRUE(mirror.update(DistinctPulseDevices(MapPulseServerState(state))).empty());
}

}  // namespace
}  // namespace harkwell
