// The property reads that the audio and video back ends do alike, run once per back end: the
// device list's size query and read, the 8-byte string references, the stream counts from the
// data size alone, the 4-byte running state, and the failure lines ("!obj" always silent).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Audio/AudioDeviceProperties.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/SharedHardwareCodes.h"
#include "HarkwellFoundation/Video/VideoDeviceProperties.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SimulatedServicesFixture.h"

namespace harkwell {
namespace {

using testing::CallsAt;
using testing::CallsOfKind;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::LogCapture;
using ::testing::SizeIs;

constexpr ObjectID kDevice = 21;

// What differs between the two back ends, as far as these reads go.
struct AudioBackend {
  using Service = SimulatedAudioHardwareService;
  using Device = SimulatedAudioDevice;
  static constexpr const char* kErrorPrefix = "Audio Error ";
  static constexpr OSStatus kBadObject = kAudioHardwareBadObjectError;
  static constexpr std::uint32_t kGlobal = kAudioObjectPropertyScopeGlobal;
  static constexpr std::uint32_t kInput = kAudioObjectPropertyScopeInput;
  static constexpr std::uint32_t kOutput = kAudioObjectPropertyScopeOutput;

  static void Log(std::optional<OSStatus> status, std::string_view message) {
    AudioDeviceLogWithStatus(status, message);
  }
  static std::vector<std::uint32_t> ConnectedDeviceIDs() { return AudioDeviceConnectedDeviceIDs(); }
  static std::optional<std::string> Name(ObjectID id) { return AudioDeviceNameForDeviceID(id); }
  static std::optional<std::string> UID(ObjectID id) { return AudioDeviceUIDForDeviceID(id); }
  static std::optional<std::string> ModelUID(ObjectID id) {
    return AudioDeviceModelUIDForDeviceID(id);
  }
  static std::optional<std::uint64_t> Inputs(ObjectID id) {
    return AudioDeviceInputChannelCountForDeviceID(id);
  }
  static std::optional<std::uint64_t> Outputs(ObjectID id) {
    return AudioDeviceOutputChannelCountForDeviceID(id);
  }
  static std::optional<bool> IsRunning(ObjectID id) { return AudioDeviceIsRunningForDeviceID(id); }
  static std::optional<MediaDeviceTransportType> Transport(ObjectID id) {
    return AudioDeviceTransportTypeForDeviceID(id);
  }
};

struct VideoBackend {
  using Service = SimulatedVideoHardwareService;
  using Device = SimulatedVideoDevice;
  static constexpr const char* kErrorPrefix = "Video Error ";
  static constexpr OSStatus kBadObject = kCMIOHardwareBadObjectError;
  static constexpr std::uint32_t kGlobal = kCMIOObjectPropertyScopeGlobal;
  static constexpr std::uint32_t kInput = kCMIODevicePropertyScopeInput;
  static constexpr std::uint32_t kOutput = kCMIODevicePropertyScopeOutput;

  static void Log(std::optional<OSStatus> status, std::string_view message) {
    VideoDeviceLogWithStatus(status, message);
  }
  static std::vector<std::uint32_t> ConnectedDeviceIDs() { return VideoDeviceConnectedDeviceIDs(); }
  static std::optional<std::string> Name(ObjectID id) { return VideoDeviceNameForDeviceID(id); }
  static std::optional<std::string> UID(ObjectID id) { return VideoDeviceUIDForDeviceID(id); }
  static std::optional<std::string> ModelUID(ObjectID id) {
    return VideoDeviceModelUIDForDeviceID(id);
  }
  static std::optional<std::uint64_t> Inputs(ObjectID id) {
    return VideoDeviceInputChannelCountForDeviceID(id);
  }
  static std::optional<std::uint64_t> Outputs(ObjectID id) {
    return VideoDeviceOutputChannelCountForDeviceID(id);
  }
  static std::optional<bool> IsRunning(ObjectID id) { return VideoDeviceIsRunningForDeviceID(id); }
  static std::optional<MediaDeviceTransportType> Transport(ObjectID id) {
    return VideoDeviceTransportTypeForDeviceID(id);
  }
};

// Selectors and the device-list object are the same codes for both services.
constexpr ObjectID kSystemObject = kAudioObjectSystemObject;

template <class Backend>
class BackendPropertiesTest : public testing::SimulatedServicesTest {
 protected:
  using Device = typename Backend::Device;

  void SetUp() override {
    SimulatedServicesTest::SetUp();
    service().addDevice(MakeDevice());
    service().clearCalls();
  }

  typename Backend::Service& service() {
    if constexpr (std::is_same_v<Backend, AudioBackend>) {
      return *audio;
    } else {
      return *video;
    }
  }

  static Device MakeDevice(ObjectID id = kDevice) {
    Device device;
    device.deviceID = id;
    device.name = "Device";
    device.deviceUID = "device-uid";
    device.modelUID = "device-model";
    device.inputStreamCount = 2;
    device.outputStreamCount = 0;
    return device;
  }

  static PropertyAddress Address(std::uint32_t selector, std::uint32_t scope = Backend::kGlobal) {
    return {selector, scope, 0};
  }

  void Fail(SimulatedCallKind kind, ObjectID object, std::uint32_t selector, OSStatus status,
            std::optional<std::uint32_t> scope = std::nullopt) {
    service().addFailure(SimulatedFailure{
        .kind = kind, .object = object, .selector = selector, .scope = scope, .status = status});
  }

  // The prefix, the status and the message as the back end writes them.
  static std::string Line(const std::string& statusAndMessage) {
    return Backend::kErrorPrefix + statusAndMessage;
  }

  testing::PlatformStringLeakCheck leakCheck;
  LogCapture log;
};

class BackendNames {
 public:
  template <class Backend>
  static std::string GetName(int) {
    return std::is_same_v<Backend, AudioBackend> ? "Audio" : "Video";
  }
};

using Backends = ::testing::Types<AudioBackend, VideoBackend>;
TYPED_TEST_SUITE(BackendPropertiesTest, Backends, BackendNames);

// --- Log format
// ------------------------------------------------------------------------------------

TYPED_TEST(BackendPropertiesTest, LogLineIsPrefixStatusInDecimalAndMessage) {
  TypeParam::Log(-50, "Something failed");
  TypeParam::Log(std::nullopt, "No status");
  TypeParam::Log(TypeParam::kBadObject, "Gone");
  TypeParam::Log(static_cast<OSStatus>(FourCharCode("nope")), "Refused");
  EXPECT_THAT(this->log.lines(), ElementsAre(this->Line("-50: Something failed"),
                                             this->Line("(unknown error): No status"),
                                             this->Line("1852797029: Refused")));
}

TYPED_TEST(BackendPropertiesTest, PrintableFourCharacterStatusIsLoggedInDecimal) {
  this->Fail(SimulatedCallKind::GetPropertyDataSize, kSystemObject, kAudioHardwarePropertyDevices,
             kAudioHardwareIllegalOperationError);  // "nope"
  EXPECT_THAT(TypeParam::ConnectedDeviceIDs(), IsEmpty());
  EXPECT_THAT(this->log.lines(), ElementsAre(this->Line("1852797029: Unable to get device count")));
}

// --- Device list
// -------------------------------------------------------------------------------------

TYPED_TEST(BackendPropertiesTest, DeviceListIsASizeQueryThenAReadWithThatSize) {
  this->service().addDevice(this->MakeDevice(22));
  this->service().addDevice(this->MakeDevice(23));
  this->service().clearCalls();

  EXPECT_THAT(TypeParam::ConnectedDeviceIDs(), ElementsAre(kDevice, 22u, 23u));

  const PropertyAddress devices = this->Address(kAudioHardwarePropertyDevices);
  const auto calls = this->service().calls();
  const auto sizes = CallsAt(calls, SimulatedCallKind::GetPropertyDataSize, kSystemObject, devices);
  const auto reads = CallsAt(calls, SimulatedCallKind::GetPropertyData, kSystemObject, devices);
  ASSERT_EQ(sizes.size(), 1u);
  ASSERT_EQ(reads.size(), 1u);
  EXPECT_EQ(sizes[0].qualifierDataSize, 0u);
  EXPECT_EQ(reads[0].qualifierDataSize, 0u);
  EXPECT_EQ(reads[0].dataSize, 12u);
  EXPECT_THAT(this->log.lines(), IsEmpty());
}

TYPED_TEST(BackendPropertiesTest, DeviceListSizeNotAMultipleOfFourKeepsTheWholeIDs) {
  this->service().setProperty(kSystemObject, this->Address(kAudioHardwarePropertyDevices),
                              SimulatedPropertyValue::IDList({5, 6, 7}).withReportedSize(10));
  this->service().clearCalls();

  EXPECT_THAT(TypeParam::ConnectedDeviceIDs(), ElementsAre(5u, 6u));
  const auto reads = CallsOfKind(this->service().calls(), SimulatedCallKind::GetPropertyData);
  ASSERT_EQ(reads.size(), 1u);
  EXPECT_EQ(reads[0].dataSize, 10u);
}

TYPED_TEST(BackendPropertiesTest, EmptyDeviceListIsStillReadWithSizeZero) {
  this->service().setDeviceList({});
  this->service().clearCalls();

  EXPECT_THAT(TypeParam::ConnectedDeviceIDs(), IsEmpty());
  const auto reads = CallsOfKind(this->service().calls(), SimulatedCallKind::GetPropertyData);
  ASSERT_EQ(reads.size(), 1u);
  EXPECT_EQ(reads[0].dataSize, 0u);
  EXPECT_EQ(reads[0].status, kNoErr);
  EXPECT_THAT(this->log.lines(), IsEmpty());
}

TYPED_TEST(BackendPropertiesTest, FailedDeviceCountLogsAndSkipsTheRead) {
  this->Fail(SimulatedCallKind::GetPropertyDataSize, kSystemObject, kAudioHardwarePropertyDevices,
             -50);
  EXPECT_THAT(TypeParam::ConnectedDeviceIDs(), IsEmpty());
  EXPECT_THAT(this->log.lines(), ElementsAre(this->Line("-50: Unable to get device count")));
  EXPECT_THAT(CallsOfKind(this->service().calls(), SimulatedCallKind::GetPropertyData), IsEmpty());
}

TYPED_TEST(BackendPropertiesTest, FailedDeviceIDReadLogsAndGivesNoIDs) {
  this->Fail(SimulatedCallKind::GetPropertyData, kSystemObject, kAudioHardwarePropertyDevices, -50);
  EXPECT_THAT(TypeParam::ConnectedDeviceIDs(), IsEmpty());
  EXPECT_THAT(this->log.lines(), ElementsAre(this->Line("-50: Unable to get device IDs")));
}

TYPED_TEST(BackendPropertiesTest, BadObjectFailureOfTheDeviceListIsSilent) {
  this->Fail(SimulatedCallKind::GetPropertyData, kSystemObject, kAudioHardwarePropertyDevices,
             TypeParam::kBadObject);
  EXPECT_THAT(TypeParam::ConnectedDeviceIDs(), IsEmpty());
  EXPECT_THAT(this->log.lines(), IsEmpty());
}

// --- String properties
// -------------------------------------------------------------------------------

TYPED_TEST(BackendPropertiesTest, StringPropertiesReadOneEightByteReference) {
  EXPECT_EQ(TypeParam::Name(kDevice), "Device");
  EXPECT_EQ(TypeParam::UID(kDevice), "device-uid");
  EXPECT_EQ(TypeParam::ModelUID(kDevice), "device-model");

  const auto calls = this->service().calls();
  ASSERT_EQ(calls.size(), 3u);
  const std::uint32_t selectors[] = {kAudioObjectPropertyName, kAudioDevicePropertyDeviceUID,
                                     kAudioDevicePropertyModelUID};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(calls[i].kind, SimulatedCallKind::GetPropertyData);
    EXPECT_EQ(calls[i].object, kDevice);
    EXPECT_EQ(calls[i].address, this->Address(selectors[i]));
    EXPECT_EQ(calls[i].qualifierDataSize, 0u);
    EXPECT_EQ(calls[i].dataSize, 8u);
  }
  EXPECT_THAT(this->log.lines(), IsEmpty());
}

TYPED_TEST(BackendPropertiesTest, FailedStringReadsNameTheirProperty) {
  this->Fail(SimulatedCallKind::GetPropertyData, kDevice, kAudioObjectPropertyName, -50);
  this->Fail(SimulatedCallKind::GetPropertyData, kDevice, kAudioDevicePropertyDeviceUID, -10);
  this->Fail(SimulatedCallKind::GetPropertyData, kDevice, kAudioDevicePropertyModelUID, -1);
  EXPECT_EQ(TypeParam::Name(kDevice), std::nullopt);
  EXPECT_EQ(TypeParam::UID(kDevice), std::nullopt);
  EXPECT_EQ(TypeParam::ModelUID(kDevice), std::nullopt);
  EXPECT_THAT(this->log.lines(),
              ElementsAre(this->Line("-50: Unable to get Name of device with ID 21"),
                          this->Line("-10: Unable to get Device UID of device with ID 21"),
                          this->Line("-1: Unable to get Model UID of device with ID 21")));
}

TYPED_TEST(BackendPropertiesTest, NullStringReferenceLogsIsNilWithUnknownError) {
  auto device = this->MakeDevice(30);
  device.name = std::nullopt;
  device.deviceUID = std::nullopt;
  device.modelUID = std::nullopt;
  this->service().addDevice(device);

  EXPECT_EQ(TypeParam::Name(30), std::nullopt);
  EXPECT_EQ(TypeParam::UID(30), std::nullopt);
  EXPECT_EQ(TypeParam::ModelUID(30), std::nullopt);
  EXPECT_THAT(this->log.lines(),
              ElementsAre(this->Line("(unknown error): Name for device with ID 30 is nil"),
                          this->Line("(unknown error): Device UID for device with ID 30 is nil"),
                          this->Line("(unknown error): Model UID for device with ID 30 is nil")));
}

TYPED_TEST(BackendPropertiesTest, EmptyNameIsAValueNotAFailure) {
  auto device = this->MakeDevice(30);
  device.name = "";
  this->service().addDevice(device);
  EXPECT_EQ(TypeParam::Name(30), "");
  EXPECT_THAT(this->log.lines(), IsEmpty());
}

TYPED_TEST(BackendPropertiesTest, HostileNameIsReturnedByteForByteAndReachesTheLogUnaltered) {
  const std::string hostile = testing::HostileText();
  auto device = this->MakeDevice(30);
  device.name = hostile;
  this->service().addDevice(device);

  EXPECT_EQ(TypeParam::Name(30), hostile);
  TypeParam::Log(-50, hostile);
  EXPECT_THAT(this->log.lines(), ElementsAre(this->Line("-50: " + hostile)));
}

// --- Counts, running state, transport
// ----------------------------------------------------------------

TYPED_TEST(BackendPropertiesTest, StreamCountsAskOnlyTheDataSize) {
  EXPECT_EQ(TypeParam::Inputs(kDevice), 2u);
  EXPECT_EQ(TypeParam::Outputs(kDevice), 0u);

  const auto calls = this->service().calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].kind, SimulatedCallKind::GetPropertyDataSize);
  EXPECT_EQ(calls[0].address, this->Address(kAudioDevicePropertyStreams, TypeParam::kInput));
  EXPECT_EQ(calls[1].kind, SimulatedCallKind::GetPropertyDataSize);
  EXPECT_EQ(calls[1].address, this->Address(kAudioDevicePropertyStreams, TypeParam::kOutput));
}

TYPED_TEST(BackendPropertiesTest, StreamListOfSixBytesCountsOneAndZeroBytesCountsZero) {
  this->service().setProperty(kDevice,
                              this->Address(kAudioDevicePropertyStreams, TypeParam::kInput),
                              SimulatedPropertyValue::IDList({1, 2}).withReportedSize(6));
  this->service().setProperty(kDevice,
                              this->Address(kAudioDevicePropertyStreams, TypeParam::kOutput),
                              SimulatedPropertyValue::IDList({}));
  EXPECT_EQ(TypeParam::Inputs(kDevice), 1u);
  const auto outputs = TypeParam::Outputs(kDevice);
  ASSERT_TRUE(outputs.has_value());
  EXPECT_EQ(*outputs, 0u);
}

TYPED_TEST(BackendPropertiesTest, FailedStreamCountsLogTheirDirection) {
  this->Fail(SimulatedCallKind::GetPropertyDataSize, kDevice, kAudioDevicePropertyStreams, -50,
             TypeParam::kInput);
  this->Fail(SimulatedCallKind::GetPropertyDataSize, kDevice, kAudioDevicePropertyStreams, -51,
             TypeParam::kOutput);
  EXPECT_EQ(TypeParam::Inputs(kDevice), std::nullopt);
  EXPECT_EQ(TypeParam::Outputs(kDevice), std::nullopt);
  EXPECT_THAT(this->log.lines(),
              ElementsAre(this->Line("-50: Unable to get input streams of device with ID 21"),
                          this->Line("-51: Unable to get output streams of device with ID 21")));
}

TYPED_TEST(BackendPropertiesTest, RunningStateIsAnyNonZeroFourByteValue) {
  const PropertyAddress running = this->Address(kAudioDevicePropertyDeviceIsRunningSomewhere);
  EXPECT_EQ(TypeParam::IsRunning(kDevice), false);
  this->service().setProperty(kDevice, running, SimulatedPropertyValue::UInt32(7), false);
  EXPECT_EQ(TypeParam::IsRunning(kDevice), true);

  const auto reads =
      CallsAt(this->service().calls(), SimulatedCallKind::GetPropertyData, kDevice, running);
  ASSERT_EQ(reads.size(), 2u);
  EXPECT_EQ(reads[0].dataSize, 4u);
}

TYPED_TEST(BackendPropertiesTest, FailedRunningStateReadLogsRunningStatus) {
  this->Fail(SimulatedCallKind::GetPropertyData, kDevice,
             kAudioDevicePropertyDeviceIsRunningSomewhere, -50);
  EXPECT_EQ(TypeParam::IsRunning(kDevice), std::nullopt);
  EXPECT_THAT(this->log.lines(),
              ElementsAre(this->Line("-50: Unable to get running status of device with ID 21")));
}

TYPED_TEST(BackendPropertiesTest, TransportIsReadAsFourBytes) {
  const PropertyAddress transport = this->Address(kAudioDevicePropertyTransportType);
  this->service().setProperty(kDevice, transport,
                              SimulatedPropertyValue::UInt32(FourCharCode("usb ")), false);
  EXPECT_EQ(TypeParam::Transport(kDevice), MediaDeviceTransportType::USB);
  const auto reads =
      CallsAt(this->service().calls(), SimulatedCallKind::GetPropertyData, kDevice, transport);
  ASSERT_EQ(reads.size(), 1u);
  EXPECT_EQ(reads[0].dataSize, 4u);
}

TYPED_TEST(BackendPropertiesTest, FailedTransportReadIsAbsentNotUnknown) {
  this->Fail(SimulatedCallKind::GetPropertyData, kDevice, kAudioDevicePropertyTransportType, -50);
  EXPECT_EQ(TypeParam::Transport(kDevice), std::nullopt);
  EXPECT_THAT(this->log.lines(),
              ElementsAre(this->Line("-50: Unable to get transport type of device with ID 21")));
}

// --- Gone devices and failures of any call
// -----------------------------------------------------------

// Each read of the device (and the list), by name.
template <class Backend>
std::vector<std::pair<const char*, std::function<void()>>> EveryRead() {
  return {
      {"name", [] { Backend::Name(kDevice); }},
      {"uid", [] { Backend::UID(kDevice); }},
      {"model uid", [] { Backend::ModelUID(kDevice); }},
      {"inputs", [] { Backend::Inputs(kDevice); }},
      {"outputs", [] { Backend::Outputs(kDevice); }},
      {"running", [] { Backend::IsRunning(kDevice); }},
      {"transport", [] { Backend::Transport(kDevice); }},
      {"list", [] { Backend::ConnectedDeviceIDs(); }},
  };
}

TYPED_TEST(BackendPropertiesTest, GoneDeviceYieldsAbsentValuesAndNoLogLine) {
  this->service().removeDevice(kDevice);

  EXPECT_EQ(TypeParam::Name(kDevice), std::nullopt);
  EXPECT_EQ(TypeParam::UID(kDevice), std::nullopt);
  EXPECT_EQ(TypeParam::ModelUID(kDevice), std::nullopt);
  EXPECT_EQ(TypeParam::Inputs(kDevice), std::nullopt);
  EXPECT_EQ(TypeParam::Outputs(kDevice), std::nullopt);
  EXPECT_EQ(TypeParam::IsRunning(kDevice), std::nullopt);
  EXPECT_EQ(TypeParam::Transport(kDevice), std::nullopt);
  EXPECT_THAT(this->log.lines(), IsEmpty());
}

// The kinds of call a read makes when nothing fails, in the order of their first use.
template <class Service>
std::vector<SimulatedCallKind> CallKindsOf(Service& service, const std::function<void()>& read) {
  service.clearCalls();
  read();
  std::vector<SimulatedCallKind> kinds;
  for (const SimulatedCall& call : service.calls()) {
    if (std::find(kinds.begin(), kinds.end(), call.kind) == kinds.end()) kinds.push_back(call.kind);
  }
  return kinds;
}

TYPED_TEST(BackendPropertiesTest, BadObjectStatusFromAnyCallLogsNothing) {
  for (const auto& [name, read] : EveryRead<TypeParam>()) {
    for (SimulatedCallKind kind : CallKindsOf(this->service(), read)) {
      this->service().addFailure(
          SimulatedFailure{.kind = kind, .status = TypeParam::kBadObject, .count = 1});
      read();
      EXPECT_THAT(this->log.lines(), IsEmpty()) << name << ", call kind " << static_cast<int>(kind);
      this->service().clearFailures();
    }
  }
}

TYPED_TEST(BackendPropertiesTest, AnyOtherStatusFromACallLogsExactlyOneLine) {
  for (const auto& [name, read] : EveryRead<TypeParam>()) {
    for (SimulatedCallKind kind : CallKindsOf(this->service(), read)) {
      this->log.clear();
      this->service().addFailure(SimulatedFailure{.kind = kind, .status = -50, .count = 1});
      read();
      EXPECT_THAT(this->log.lines(), SizeIs(1)) << name << ", call kind " << static_cast<int>(kind);
      this->service().clearFailures();
    }
  }
}

}  // namespace
}  // namespace harkwell
