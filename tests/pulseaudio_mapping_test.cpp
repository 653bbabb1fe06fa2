// How a PulseAudio server's records become devices: libpulse's source, sink, card and source
// output records as the server hands them over, copied and mapped without a server.
#include <gtest/gtest.h>
#include <pulse/pulseaudio.h>

#include <memory>
#include <vector>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioDeviceMapping.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioServerState.h"

namespace harkwell {
namespace {

// A proplist built from pairs, freed with the test.
struct Proplist {
  Proplist(std::initializer_list<std::pair<const char*, const char*>> entries)
      : list(pa_proplist_new()) {
    for (const auto& [key, value] : entries) pa_proplist_sets(list, key, value);
  }
  ~Proplist() { pa_proplist_free(list); }
  Proplist(const Proplist&) = delete;
  Proplist& operator=(const Proplist&) = delete;
  pa_proplist* list;
};

// A source record shaped as libpulse delivers it, ports and all.
struct SourceRecord {
  std::vector<pa_source_port_info> ports;
  std::vector<pa_source_port_info*> portPointers;
  pa_source_info info{};

  SourceRecord(std::uint32_t index, const char* name, const char* description) {
    info.index = index;
    info.name = name;
    info.description = description;
    info.card = PA_INVALID_INDEX;
    info.monitor_of_sink = PA_INVALID_INDEX;
    info.state = PA_SOURCE_IDLE;
  }
  void addPort(const char* name, const char* description) {
    pa_source_port_info port{};
    port.name = name;
    port.description = description;
    port.priority = 100;
    port.available = PA_PORT_AVAILABLE_UNKNOWN;
    ports.push_back(port);
  }
  // Points the record at its ports (a null-terminated array, as libpulse gives it).
  const pa_source_info& withActivePort(std::size_t active) {
    portPointers.clear();
    for (auto& port : ports) portPointers.push_back(&port);
    portPointers.push_back(nullptr);
    info.n_ports = static_cast<std::uint32_t>(ports.size());
    info.ports = portPointers.data();
    info.active_port = active < ports.size() ? &ports[active] : nullptr;
    return info;
  }
};

pa_sink_info SinkRecord(std::uint32_t index, const char* name, const char* description) {
  pa_sink_info info{};
  info.index = index;
  info.name = name;
  info.description = description;
  info.card = PA_INVALID_INDEX;
  info.state = PA_SINK_IDLE;
  return info;
}

PulseEndpoint Source(std::uint32_t index, const char* name, PulseEndpointState state) {
  PulseEndpoint endpoint;
  endpoint.kind = PulseEndpointKind::Source;
  endpoint.index = index;
  endpoint.name = name;
  endpoint.description = name;
  endpoint.state = state;
  return endpoint;
}

PulseEndpoint Sink(std::uint32_t index, const char* name, PulseEndpointState state) {
  PulseEndpoint endpoint = Source(index, name, state);
  endpoint.kind = PulseEndpointKind::Sink;
  return endpoint;
}

// --- Copies of libpulse's records
// -----------------------------------------------------------------

TEST(PulseServerStateTest, SourceRecordKeepsPortsAndTheActivePort) {
  SourceRecord record(7, "alsa_input.usb-mic", "USB Microphone");
  record.addPort("analog-input-mic", "Microphone");
  record.addPort("analog-input-linein", "Line In");
  Proplist properties{{"device.bus", "usb"}, {"device.vendor.id", "046d"}};
  record.info.proplist = properties.list;
  record.info.card = 3;
  record.info.state = PA_SOURCE_RUNNING;

  const PulseEndpoint endpoint = PulseEndpointFromSourceInfo(record.withActivePort(1));

  EXPECT_EQ(endpoint.kind, PulseEndpointKind::Source);
  EXPECT_EQ(endpoint.index, 7u);
  EXPECT_EQ(endpoint.name, "alsa_input.usb-mic");
  EXPECT_EQ(endpoint.description, "USB Microphone");
  EXPECT_EQ(endpoint.cardIndex, std::optional<std::uint32_t>(3));
  EXPECT_FALSE(endpoint.isMonitor);
  EXPECT_EQ(endpoint.state, PulseEndpointState::Running);
  EXPECT_EQ(endpoint.ports, (std::vector<PulsePort>{{"analog-input-mic", "Microphone"},
                                                    {"analog-input-linein", "Line In"}}));
  EXPECT_EQ(endpoint.activePortName, std::optional<std::string>("analog-input-linein"));
  EXPECT_EQ(endpoint.properties.at("device.bus"), "usb");
  EXPECT_EQ(endpoint.properties.at("device.vendor.id"), "046d");
}

TEST(PulseServerStateTest, SourceWithoutCardPortsOrPropertiesHasNoneOfThem) {
  SourceRecord record(1, "null", nullptr);
  const PulseEndpoint endpoint = PulseEndpointFromSourceInfo(record.info);
  EXPECT_EQ(endpoint.description, "");
  EXPECT_EQ(endpoint.cardIndex, std::nullopt);
  EXPECT_TRUE(endpoint.ports.empty());
  EXPECT_EQ(endpoint.activePortName, std::nullopt);
  EXPECT_TRUE(endpoint.properties.empty());
  EXPECT_EQ(endpoint.state, PulseEndpointState::Idle);
}

TEST(PulseServerStateTest, MonitorSourceIsMarked) {
  SourceRecord record(2, "speakers.monitor", "Monitor of Speakers");
  record.info.monitor_of_sink = 5;
  EXPECT_TRUE(PulseEndpointFromSourceInfo(record.info).isMonitor);
}

TEST(PulseServerStateTest, SuspendedAndInvalidStatesAreTold) {
  SourceRecord record(2, "mic", "Mic");
  record.info.state = PA_SOURCE_SUSPENDED;
  EXPECT_EQ(PulseEndpointFromSourceInfo(record.info).state, PulseEndpointState::Suspended);
  record.info.state = PA_SOURCE_INVALID_STATE;
  EXPECT_EQ(PulseEndpointFromSourceInfo(record.info).state, PulseEndpointState::Invalid);
}

TEST(PulseServerStateTest, SinkRecordKeepsItsCardAndState) {
  pa_sink_info info = SinkRecord(4, "alsa_output.pci", "Built-in Audio");
  info.card = 0;
  info.state = PA_SINK_RUNNING;
  const PulseEndpoint endpoint = PulseEndpointFromSinkInfo(info);
  EXPECT_EQ(endpoint.kind, PulseEndpointKind::Sink);
  EXPECT_EQ(endpoint.cardIndex, std::optional<std::uint32_t>(0));
  EXPECT_EQ(endpoint.state, PulseEndpointState::Running);
  EXPECT_FALSE(endpoint.isMonitor);
}

TEST(PulseServerStateTest, CardRecordKeepsItsProperties) {
  Proplist properties{{"device.vendor.id", "0d8c"}, {"device.product.id", "0014"}};
  pa_card_info info{};
  info.index = 9;
  info.name = "alsa_card.usb-C-Media";
  info.proplist = properties.list;
  const PulseCard card = PulseCardFromCardInfo(info);
  EXPECT_EQ(card.index, 9u);
  EXPECT_EQ(card.name, "alsa_card.usb-C-Media");
  EXPECT_EQ(card.properties,
            (PulseProperties{{"device.product.id", "0014"}, {"device.vendor.id", "0d8c"}}));
}

TEST(PulseServerStateTest, SourceOutputFedPeaksIsALevelMeter) {
  pa_source_output_info info{};
  info.index = 12;
  info.source = 7;
  info.owner_module = PA_INVALID_INDEX;
  info.client = PA_INVALID_INDEX;
  info.resample_method = "peaks";
  EXPECT_EQ(PulseRecordingStreamFromSourceOutputInfo(info),
            (PulseRecordingStream{12, 7, false, true}));
  info.resample_method = "copy";
  info.corked = 1;
  EXPECT_EQ(PulseRecordingStreamFromSourceOutputInfo(info),
            (PulseRecordingStream{12, 7, true, false}));
  info.resample_method = nullptr;
  EXPECT_FALSE(PulseRecordingStreamFromSourceOutputInfo(info).levelMeter);
}

TEST(PulseServerStateTest, PipeWireMarksLevelMetersByProperties) {
  // pipewire-pulse reports its own resample method for every stream and marks meters instead.
  Proplist monitor{{"stream.monitor", "true"}};
  Proplist peaks{{"resample.peaks", "true"}};
  Proplist neither{{"stream.monitor", "false"}, {"media.name", "Recording"}};
  pa_source_output_info info{};
  info.index = 12;
  info.source = 7;
  info.owner_module = PA_INVALID_INDEX;
  info.resample_method = "PipeWire";
  info.proplist = monitor.list;
  EXPECT_TRUE(PulseRecordingStreamFromSourceOutputInfo(info).levelMeter);
  info.proplist = peaks.list;
  EXPECT_TRUE(PulseRecordingStreamFromSourceOutputInfo(info).levelMeter);
  info.proplist = neither.list;
  EXPECT_FALSE(PulseRecordingStreamFromSourceOutputInfo(info).levelMeter);
}

TEST(PulseServerStateTest, StreamsKeepTheirOwnerModuleAndLinkGroup) {
  Proplist grouped{{"node.link-group", "loopback-1-2"}};
  pa_source_output_info recording{};
  recording.index = 3;
  recording.source = 1;
  recording.owner_module = 9;
  recording.client = PA_INVALID_INDEX;
  recording.proplist = grouped.list;
  EXPECT_EQ(PulseRecordingStreamFromSourceOutputInfo(recording),
            (PulseRecordingStream{3, 1, false, false, 9, "loopback-1-2", std::nullopt,
                                  PulseProperties{{"node.link-group", "loopback-1-2"}}}));
  // A client's stream names the protocol module it came through: that ties nothing together.
  recording.client = 5;
  recording.owner_module = 2;
  recording.proplist = nullptr;
  EXPECT_EQ(PulseRecordingStreamFromSourceOutputInfo(recording),
            (PulseRecordingStream{3, 1, false, false, std::nullopt, std::nullopt, 5u, {}}));

  pa_sink_input_info playback{};
  playback.index = 4;
  playback.sink = 2;
  playback.corked = 1;
  playback.owner_module = PA_INVALID_INDEX;
  playback.client = PA_INVALID_INDEX;
  EXPECT_EQ(PulsePlaybackStreamFromSinkInputInfo(playback),
            (PulsePlaybackStream{4, 2, true, std::nullopt, std::nullopt}));
  playback.proplist = grouped.list;
  playback.owner_module = 9;
  EXPECT_EQ(PulsePlaybackStreamFromSinkInputInfo(playback),
            (PulsePlaybackStream{4, 2, true, 9, "loopback-1-2", std::nullopt,
                                 PulseProperties{{"node.link-group", "loopback-1-2"}}}));
}

TEST(PulseServerStateTest, ClientsAndStreamsKeepWhoTheyAre) {
  Proplist claims{{"application.name", "Recorder"}, {"application.process.id", "4242"}};
  pa_client_info client{};
  client.index = 8;
  client.proplist = claims.list;
  EXPECT_EQ(
      PulseClientFromClientInfo(client),
      (PulseClient{8, {{"application.name", "Recorder"}, {"application.process.id", "4242"}}}));

  pa_source_output_info recording{};
  recording.index = 3;
  recording.source = 1;
  recording.owner_module = 2;
  recording.client = 8;
  recording.proplist = claims.list;
  const PulseRecordingStream stream = PulseRecordingStreamFromSourceOutputInfo(recording);
  EXPECT_EQ(stream.client, 8u);
  EXPECT_EQ(stream.properties.at("application.name"), "Recorder");
}

TEST(PulseServerStateTest, DevicesKeepTheirOwnerModuleAndMonitoredSink) {
  SourceRecord record(5, "null.monitor", "Monitor of Null");
  record.info.monitor_of_sink = 2;
  record.info.owner_module = 7;
  const PulseEndpoint monitor = PulseEndpointFromSourceInfo(record.info);
  EXPECT_TRUE(monitor.isMonitor);
  EXPECT_EQ(monitor.monitoredSink, 2u);
  EXPECT_EQ(monitor.ownerModule, 7u);
  record.info.owner_module = PA_INVALID_INDEX;
  EXPECT_EQ(PulseEndpointFromSourceInfo(record.info).ownerModule, std::nullopt);
}

// --- Devices -----------------------------------------------------------------------------------

TEST(PulseDeviceMappingTest, MonitorSourcesAreLeftOutAndSourcesComeBeforeSinks) {
  PulseServerState state;
  PulseEndpoint monitor = Source(0, "sink.monitor", PulseEndpointState::Idle);
  monitor.isMonitor = true;
  state.sources.emplace(0, monitor);
  state.sources.emplace(3, Source(3, "mic-b", PulseEndpointState::Idle));
  state.sources.emplace(1, Source(1, "mic-a", PulseEndpointState::Idle));
  PulseEndpoint sink = Source(0, "speakers", PulseEndpointState::Idle);
  sink.kind = PulseEndpointKind::Sink;
  state.sinks.emplace(0, sink);

  const auto devices = MapPulseServerState(state);

  ASSERT_EQ(devices.size(), 3u);
  EXPECT_EQ(devices[0].uid, "mic-a");
  EXPECT_EQ(devices[1].uid, "mic-b");
  EXPECT_EQ(devices[2].uid, "speakers");
  EXPECT_EQ(devices[2].kind, PulseEndpointKind::Sink);
}

TEST(PulseDeviceMappingTest, UIDIsTheNameAndNameIsTheDescription) {
  SourceRecord record(1, "alsa_input.pci-0000_00_1f.3.analog-stereo", "Built-in Audio Analog");
  PulseServerState state;
  state.sources.emplace(1, PulseEndpointFromSourceInfo(record.info));
  const auto devices = MapPulseServerState(state);
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(devices[0].uid, "alsa_input.pci-0000_00_1f.3.analog-stereo");
  EXPECT_EQ(devices[0].name, "Built-in Audio Analog");
}

TEST(PulseDeviceMappingTest, SourceHasOneInputStreamAndSinkOneOutputStream) {
  PulseServerState state;
  SourceRecord source(1, "mic", "Mic");
  pa_sink_info sink = SinkRecord(1, "speakers", "Speakers");
  state.sources.emplace(1, PulseEndpointFromSourceInfo(source.info));
  state.sinks.emplace(1, PulseEndpointFromSinkInfo(sink));
  const auto devices = MapPulseServerState(state);
  ASSERT_EQ(devices.size(), 2u);
  EXPECT_EQ(devices[0].inputStreamCount, 1u);
  EXPECT_EQ(devices[0].outputStreamCount, 0u);
  EXPECT_EQ(devices[1].inputStreamCount, 0u);
  EXPECT_EQ(devices[1].outputStreamCount, 1u);
}

TEST(PulseDeviceMappingTest, ActivePortIsTheSelectedInputSource) {
  SourceRecord record(1, "alsa_input.analog", "Analog Input");
  record.addPort("analog-input-internal-mic", "Internal Microphone");
  record.addPort("analog-input-headset-mic", "Headset Microphone");
  PulseServerState state;
  state.sources.emplace(1, PulseEndpointFromSourceInfo(record.withActivePort(0)));

  const auto devices = MapPulseServerState(state);

  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(devices[0].inputSources,
            (std::vector<MappedInputSource>{{"analog-input-internal-mic", "Internal Microphone"},
                                            {"analog-input-headset-mic", "Headset Microphone"}}));
  EXPECT_EQ(devices[0].selectedInputSource,
            std::optional<std::string>("analog-input-internal-mic"));
}

TEST(PulseDeviceMappingTest, SourceWithoutPortsHasNoInputSources) {
  SourceRecord record(1, "null_source", "Null Input");
  PulseServerState state;
  state.sources.emplace(1, PulseEndpointFromSourceInfo(record.info));
  const auto devices = MapPulseServerState(state);
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_TRUE(devices[0].inputSources.empty());
  EXPECT_EQ(devices[0].selectedInputSource, std::nullopt);
}

TEST(PulseDeviceMappingTest, SinkPortsAreNotInputSources) {
  pa_sink_port_info speaker{};
  speaker.name = "analog-output-speaker";
  speaker.description = "Speakers";
  pa_sink_port_info* ports[] = {&speaker, nullptr};
  pa_sink_info info = SinkRecord(1, "speakers", "Speakers");
  info.n_ports = 1;
  info.ports = ports;
  info.active_port = &speaker;
  PulseServerState state;
  state.sinks.emplace(1, PulseEndpointFromSinkInfo(info));

  const auto devices = MapPulseServerState(state);

  ASSERT_EQ(devices.size(), 1u);
  EXPECT_TRUE(devices[0].inputSources.empty());
  EXPECT_EQ(devices[0].selectedInputSource, std::nullopt);
}

TEST(PulseDeviceMappingTest, ModelUIDComesFromTheCardsVendorAndProductIDs) {
  Proplist cardProperties{{"device.vendor.id", "046d"}, {"device.product.id", "0825"}};
  pa_card_info cardInfo{};
  cardInfo.index = 2;
  cardInfo.name = "alsa_card.usb-webcam";
  cardInfo.proplist = cardProperties.list;
  SourceRecord record(5, "alsa_input.usb-webcam", "Webcam Microphone");
  record.info.card = 2;
  PulseServerState state;
  state.cards.emplace(2, PulseCardFromCardInfo(cardInfo));
  state.sources.emplace(5, PulseEndpointFromSourceInfo(record.info));

  const auto devices = MapPulseServerState(state);

  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(devices[0].modelUID, std::optional<std::string>("046d:0825"));
}

TEST(PulseDeviceMappingTest, DevicesOwnVendorAndProductComeBeforeTheCards) {
  PulseEndpoint endpoint = Source(1, "mic", PulseEndpointState::Idle);
  endpoint.properties = {{"device.vendor.id", "1111"}, {"device.product.id", "2222"}};
  PulseCard card{0, "card", {{"device.vendor.id", "aaaa"}, {"device.product.id", "bbbb"}}};
  EXPECT_EQ(PulseModelUIDFor(endpoint, &card), std::optional<std::string>("1111:2222"));
}

TEST(PulseDeviceMappingTest, ModelUIDIsAbsentUnlessVendorAndProductAreKnown) {
  PulseEndpoint endpoint = Source(1, "mic", PulseEndpointState::Idle);
  EXPECT_EQ(PulseModelUIDFor(endpoint, nullptr), std::nullopt);
  PulseCard card{0, "card", {{"device.vendor.id", "046d"}}};
  EXPECT_EQ(PulseModelUIDFor(endpoint, &card), std::nullopt);
  card.properties["device.product.id"] = "";
  EXPECT_EQ(PulseModelUIDFor(endpoint, &card), std::nullopt);
}

// --- Sound card behind exclusive access ----------------------------------------------------------

TEST(PulseDeviceMappingTest, SoundCardComesFromTheDeviceThenItsCard) {
  PulseEndpoint endpoint = Source(1, "mic", PulseEndpointState::Idle);
  PulseCard card{0, "card", {{"alsa.card", "3"}}};
  EXPECT_EQ(PulseSoundCardFor(endpoint, &card), 3u);
  endpoint.properties = {{"alsa.card", "1"}};
  EXPECT_EQ(PulseSoundCardFor(endpoint, &card), 1u);
}

TEST(PulseDeviceMappingTest, SoundCardIsReadFromPipeWiresNameToo) {
  PulseEndpoint endpoint = Source(1, "mic", PulseEndpointState::Idle);
  endpoint.properties = {{"api.alsa.card", "2"}};
  EXPECT_EQ(PulseSoundCardFor(endpoint, nullptr), 2u);
}

TEST(PulseDeviceMappingTest, ADeviceWithoutANumericCardHasNone) {
  PulseEndpoint endpoint = Source(1, "null", PulseEndpointState::Idle);
  EXPECT_EQ(PulseSoundCardFor(endpoint, nullptr), std::nullopt);
  for (const char* text : {"", "x", "-1", "3a", "99999999999"}) {
    endpoint.properties = {{"alsa.card", text}};
    EXPECT_EQ(PulseSoundCardFor(endpoint, nullptr), std::nullopt) << text;
  }
}

// --- Transport
// -------------------------------------------------------------------------------------

struct TransportCase {
  const char* label;
  PulseProperties device;
  std::optional<PulseProperties> card;  // absent: the device has no card
  std::uint32_t expected;
};

class PulseTransportMappingTest : public ::testing::TestWithParam<TransportCase> {};

TEST_P(PulseTransportMappingTest, MapsBusApiFormFactorAndClass) {
  const TransportCase& example = GetParam();
  PulseEndpoint endpoint = Source(1, "device", PulseEndpointState::Idle);
  endpoint.properties = example.device;
  std::optional<PulseCard> card;
  if (example.card) {
    card = PulseCard{0, "card", *example.card};
    endpoint.cardIndex = 0;
  }
  EXPECT_EQ(PulseTransportTypeFor(endpoint, card ? &*card : nullptr), example.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, PulseTransportMappingTest,
    ::testing::Values(
        TransportCase{
            "UsbCard", {}, PulseProperties{{"device.bus", "usb"}}, kAudioDeviceTransportTypeUSB},
        TransportCase{
            "UsbDevice", {{"device.bus", "usb"}}, std::nullopt, kAudioDeviceTransportTypeUSB},
        TransportCase{"BluetoothBus",
                      {{"device.bus", "bluetooth"}},
                      PulseProperties{},
                      kAudioDeviceTransportTypeBluetooth},
        TransportCase{"BluezApi",
                      {{"device.api", "bluez"}},
                      PulseProperties{},
                      kAudioDeviceTransportTypeBluetooth},
        TransportCase{"Bluez5Api",
                      {{"device.api", "bluez5"}},
                      std::nullopt,
                      kAudioDeviceTransportTypeBluetooth},
        TransportCase{"FireWire",
                      {},
                      PulseProperties{{"device.bus", "firewire"}},
                      kAudioDeviceTransportTypeFireWire},
        TransportCase{"Ieee1394",
                      {},
                      PulseProperties{{"device.bus", "ieee1394"}},
                      kAudioDeviceTransportTypeFireWire},
        TransportCase{"InternalOnPci",
                      {{"device.form_factor", "internal"}},
                      PulseProperties{{"device.bus", "pci"}},
                      kAudioDeviceTransportTypeBuiltIn},
        TransportCase{"InternalUsbIsStillUsb",
                      {{"device.form_factor", "internal"}},
                      PulseProperties{{"device.bus", "usb"}},
                      kAudioDeviceTransportTypeUSB},
        TransportCase{
            "Pci", {}, PulseProperties{{"device.bus", "pci"}}, kAudioDeviceTransportTypePCI},
        TransportCase{"AbstractClass",
                      {{"device.class", "abstract"}},
                      std::nullopt,
                      kAudioDeviceTransportTypeVirtual},
        TransportCase{"FilterClassWithCard",
                      {{"device.class", "filter"}},
                      PulseProperties{},
                      kAudioDeviceTransportTypeVirtual},
        TransportCase{"NoBusNoCard", {}, std::nullopt, kAudioDeviceTransportTypeVirtual},
        TransportCase{"CardWithUnknownBus",
                      {},
                      PulseProperties{{"device.bus", "isa"}},
                      kAudioDeviceTransportTypeUnknown},
        TransportCase{"CardWithoutBus",
                      {{"device.class", "sound"}},
                      PulseProperties{},
                      kAudioDeviceTransportTypeUnknown},
        TransportCase{"DeviceBusBeforeCardBus",
                      {{"device.bus", "usb"}},
                      PulseProperties{{"device.bus", "pci"}},
                      kAudioDeviceTransportTypeUSB}),
    [](const ::testing::TestParamInfo<TransportCase>& example) { return example.param.label; });

TEST(PulseDeviceMappingTest, TransportComesFromTheCardRecordAsTheServerSendsIt) {
  Proplist cardProperties{{"device.bus", "usb"}, {"device.form_factor", "headset"}};
  pa_card_info cardInfo{};
  cardInfo.index = 4;
  cardInfo.name = "alsa_card.usb-headset";
  cardInfo.proplist = cardProperties.list;
  SourceRecord record(8, "alsa_input.usb-headset", "Headset");
  record.info.card = 4;
  PulseServerState state;
  state.cards.emplace(4, PulseCardFromCardInfo(cardInfo));
  state.sources.emplace(8, PulseEndpointFromSourceInfo(record.info));
  const auto devices = MapPulseServerState(state);
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(devices[0].transportType, kAudioDeviceTransportTypeUSB);
}

// --- Running -------------------------------------------------------------------------------------

TEST(PulseRunningMappingTest, RunningSinkIsRunningWhileAProgramPlaysToIt) {
  PulseServerState state;
  PulseEndpoint sink = Sink(0, "speakers", PulseEndpointState::Running);
  EXPECT_FALSE(PulseEndpointIsRunning(sink, state)) << "nobody plays";
  state.playbackStreams.emplace(30, PulsePlaybackStream{30, 0});
  EXPECT_TRUE(PulseEndpointIsRunning(sink, state));
  sink.state = PulseEndpointState::Suspended;
  EXPECT_FALSE(PulseEndpointIsRunning(sink, state));
}

TEST(PulseRunningMappingTest, CorkedPlaybackDoesNotMakeASinkRunning) {
  PulseServerState state;
  state.playbackStreams.emplace(30, PulsePlaybackStream{30, 0, true});
  EXPECT_FALSE(PulseEndpointIsRunning(Sink(0, "speakers", PulseEndpointState::Running), state));
}

TEST(PulseRunningMappingTest, RunningSourceWithARecordingIsRunning) {
  PulseServerState state;
  state.recordingStreams.emplace(20, PulseRecordingStream{20, 1, false, false});
  EXPECT_TRUE(PulseEndpointIsRunning(Source(1, "mic", PulseEndpointState::Running), state));
}

TEST(PulseRunningMappingTest, LevelMeterAloneDoesNotMakeASourceRunning) {
  PulseServerState state;
  state.recordingStreams.emplace(20, PulseRecordingStream{20, 1, false, true});
  EXPECT_FALSE(PulseEndpointIsRunning(Source(1, "mic", PulseEndpointState::Running), state));
  state.recordingStreams.emplace(21, PulseRecordingStream{21, 1, false, false});
  EXPECT_TRUE(PulseEndpointIsRunning(Source(1, "mic", PulseEndpointState::Running), state));
}

TEST(PulseRunningMappingTest, CorkedRecordingDoesNotMakeASourceRunning) {
  PulseServerState state;
  state.recordingStreams.emplace(20, PulseRecordingStream{20, 1, true, false});
  EXPECT_FALSE(PulseEndpointIsRunning(Source(1, "mic", PulseEndpointState::Running), state));
}

TEST(PulseRunningMappingTest, RecordingOnAnotherSourceDoesNotCount) {
  PulseServerState state;
  state.recordingStreams.emplace(20, PulseRecordingStream{20, 2, false, false});
  EXPECT_FALSE(PulseEndpointIsRunning(Source(1, "mic", PulseEndpointState::Running), state));
}

TEST(PulseRunningMappingTest, SuspendedSourceIsNotRunningWhateverItsStreams) {
  PulseServerState state;
  state.recordingStreams.emplace(20, PulseRecordingStream{20, 1, false, false});
  EXPECT_FALSE(PulseEndpointIsRunning(Source(1, "mic", PulseEndpointState::Suspended), state));
  EXPECT_FALSE(PulseEndpointIsRunning(Source(1, "mic", PulseEndpointState::Invalid), state));
}

TEST(PulseRunningMappingTest, ARecordingOnAnIdleSourceCountsBeforeTheServerSaysRunning) {
  // The server reports a new stream before the state it puts the source in.
  PulseServerState state;
  state.recordingStreams.emplace(20, PulseRecordingStream{20, 1, false, false});
  EXPECT_TRUE(PulseEndpointIsRunning(Source(1, "mic", PulseEndpointState::Idle), state));
}

TEST(PulseRunningMappingTest, IdleToSuspendedMapsToTheSameDevice) {
  PulseServerState idle;
  idle.sources.emplace(1, Source(1, "mic", PulseEndpointState::Idle));
  PulseServerState suspended;
  suspended.sources.emplace(1, Source(1, "mic", PulseEndpointState::Suspended));
  EXPECT_EQ(MapPulseServerState(idle), MapPulseServerState(suspended));
}

// --- Filters and the shared rule ----------------------------------------------------------------

constexpr std::uint32_t kMic = 1;
constexpr std::uint32_t kFilterSource = 2;
constexpr std::uint32_t kMonitor = 3;
constexpr std::uint32_t kSpeakers = 0;
constexpr std::uint32_t kFilterModule = 40;

// Whether the device named `uid` is mapped as running.
bool MappedRunning(const PulseServerState& state, const std::string& uid) {
  for (const PulseMappedDevice& device : MapPulseServerState(state)) {
    if (device.uid == uid) return device.isRunning;
  }
  ADD_FAILURE() << "no device " << uid;
  return false;
}

// A running microphone and a null sink with its monitor; the server states are as
// module-null-source and module-null-sink leave them without suspend-on-idle.
PulseServerState MicrophoneAndSpeakers() {
  PulseServerState state;
  state.sources.emplace(kMic, Source(kMic, "mic", PulseEndpointState::Running));
  PulseEndpoint monitor = Source(kMonitor, "speakers.monitor", PulseEndpointState::Running);
  monitor.isMonitor = true;
  monitor.monitoredSink = kSpeakers;
  state.sources.emplace(kMonitor, monitor);
  state.sinks.emplace(kSpeakers, Sink(kSpeakers, "speakers", PulseEndpointState::Running));
  return state;
}

// module-virtual-source master=mic: the module owns the source it offers and the stream that
// records the master; the source names its master.
PulseServerState VirtualSourceOnTheMicrophone() {
  PulseServerState state = MicrophoneAndSpeakers();
  PulseEndpoint offered = Source(kFilterSource, "vmic", PulseEndpointState::Running);
  offered.ownerModule = kFilterModule;
  offered.properties = {{"device.master_device", "mic"}, {"device.class", "filter"}};
  state.sources.emplace(kFilterSource, offered);
  state.recordingStreams.emplace(
      10, PulseRecordingStream{10, kMic, false, false, kFilterModule, std::nullopt});
  return state;
}

TEST(PulseRunningMappingTest, AVirtualSourceThatNobodyRecordsLeavesTheMicrophoneIdle) {
  const PulseServerState state = VirtualSourceOnTheMicrophone();
  EXPECT_FALSE(MappedRunning(state, "mic"));
  EXPECT_FALSE(MappedRunning(state, "vmic"));
}

TEST(PulseRunningMappingTest, RecordingFromAVirtualSourceMakesTheMicrophoneRunning) {
  PulseServerState state = VirtualSourceOnTheMicrophone();
  state.recordingStreams.emplace(11, PulseRecordingStream{11, kFilterSource});
  EXPECT_TRUE(MappedRunning(state, "mic"));
  EXPECT_TRUE(MappedRunning(state, "vmic"));
}

TEST(PulseRunningMappingTest, AMeterOnAVirtualSourceLeavesTheMicrophoneIdle) {
  PulseServerState state = VirtualSourceOnTheMicrophone();
  state.recordingStreams.emplace(11, PulseRecordingStream{11, kFilterSource, false, true});
  EXPECT_FALSE(MappedRunning(state, "mic"));
}

TEST(PulseRunningMappingTest, PipeWireFiltersAreTiedByTheirLinkGroup) {
  // pipewire-pulse shows a pw-loopback source without an owner module: only node.link-group
  // ties the recording stream to the source it offers.
  PulseServerState state = MicrophoneAndSpeakers();
  PulseEndpoint offered = Source(kFilterSource, "loopback-source", PulseEndpointState::Running);
  offered.properties = {{"node.link-group", "loopback-77-1"}};
  state.sources.emplace(kFilterSource, offered);
  state.recordingStreams.emplace(
      10, PulseRecordingStream{10, kMic, false, false, std::nullopt, "loopback-77-1"});
  EXPECT_FALSE(MappedRunning(state, "mic"));
  state.recordingStreams.emplace(11, PulseRecordingStream{11, kFilterSource});
  EXPECT_TRUE(MappedRunning(state, "mic"));
}

TEST(PulseRunningMappingTest, AChainOfTwoFiltersIsFollowed) {
  PulseServerState state = VirtualSourceOnTheMicrophone();
  PulseEndpoint second = Source(5, "remapped-vmic", PulseEndpointState::Running);
  second.ownerModule = kFilterModule + 1;
  second.properties = {{"device.master_device", "vmic"}};
  state.sources.emplace(5, second);
  state.recordingStreams.emplace(
      12, PulseRecordingStream{12, kFilterSource, false, false, kFilterModule + 1, std::nullopt});
  EXPECT_FALSE(MappedRunning(state, "mic"));
  state.recordingStreams.emplace(13, PulseRecordingStream{13, 5});
  EXPECT_TRUE(MappedRunning(state, "mic"));
  EXPECT_TRUE(MappedRunning(state, "vmic"));
}

TEST(PulseRunningMappingTest, AFilterSourceTakesOnlyFromTheMasterItNames) {
  // One module owning two sources (as an echo canceller with two masters might): the stream on
  // the microphone does not feed the source whose master is another device.
  PulseServerState state = VirtualSourceOnTheMicrophone();
  PulseEndpoint other = Source(6, "other-filter", PulseEndpointState::Running);
  other.ownerModule = kFilterModule;
  other.properties = {{"device.master_device", "line-in"}};
  state.sources.emplace(6, other);
  state.recordingStreams.emplace(11, PulseRecordingStream{11, 6});
  EXPECT_FALSE(MappedRunning(state, "mic"));
}

TEST(PulseRunningMappingTest, ALoopbackToASinkWithoutHardwareLeavesTheMicrophoneIdle) {
  PulseServerState state = MicrophoneAndSpeakers();
  state.recordingStreams.emplace(
      10, PulseRecordingStream{10, kMic, false, false, kFilterModule, std::nullopt});
  state.playbackStreams.emplace(20, PulsePlaybackStream{20, kSpeakers, false, kFilterModule});
  EXPECT_FALSE(MappedRunning(state, "mic"));
  EXPECT_FALSE(MappedRunning(state, "speakers")) << "nothing real plays: the microphone is null";
}

TEST(PulseRunningMappingTest, ALoopbackToASoundCardUsesTheMicrophoneAndTheSpeakers) {
  PulseServerState state = MicrophoneAndSpeakers();
  state.cards.emplace(0, PulseCard{0, "card", {{"device.bus", "pci"}}});
  state.sinks.at(kSpeakers).cardIndex = 0;
  state.sources.at(kMic).cardIndex = 0;
  state.recordingStreams.emplace(
      10, PulseRecordingStream{10, kMic, false, false, kFilterModule, std::nullopt});
  state.playbackStreams.emplace(20, PulsePlaybackStream{20, kSpeakers, false, kFilterModule});
  EXPECT_TRUE(MappedRunning(state, "mic")) << "the microphone is heard aloud";
  EXPECT_TRUE(MappedRunning(state, "speakers")) << "a real microphone plays";
}

TEST(PulseRunningMappingTest, AMonitorCaptureLeavesTheSinkAsItIs) {
  PulseServerState state = MicrophoneAndSpeakers();
  state.recordingStreams.emplace(10, PulseRecordingStream{10, kMonitor});
  EXPECT_FALSE(MappedRunning(state, "speakers"));
  EXPECT_FALSE(MappedRunning(state, "mic"));
}

TEST(PulseRunningMappingTest, AFilterSinkInFrontOfTheSpeakersCountsWhileSomethingPlaysToIt) {
  // module-remap-sink master=speakers: the module owns its sink and the stream into the master.
  PulseServerState state = MicrophoneAndSpeakers();
  PulseEndpoint remap = Sink(7, "remapped-speakers", PulseEndpointState::Running);
  remap.ownerModule = kFilterModule;
  state.sinks.emplace(7, remap);
  state.playbackStreams.emplace(20, PulsePlaybackStream{20, kSpeakers, false, kFilterModule});
  EXPECT_FALSE(MappedRunning(state, "speakers"));
  state.playbackStreams.emplace(21, PulsePlaybackStream{21, 7});
  EXPECT_TRUE(MappedRunning(state, "speakers"));
  EXPECT_TRUE(MappedRunning(state, "remapped-speakers"));
}

TEST(PulseRunningMappingTest, AnEchoCancellerKeepsItsTwoSidesApart) {
  // module-echo-cancel owns a source on the microphone and a sink on the speakers; what is played
  // to its sink never reaches the microphone's side.
  PulseServerState state = MicrophoneAndSpeakers();
  state.cards.emplace(0, PulseCard{0, "card", {{"device.bus", "pci"}}});
  state.sinks.at(kSpeakers).cardIndex = 0;
  PulseEndpoint cancelledSource = Source(8, "ec-source", PulseEndpointState::Running);
  cancelledSource.ownerModule = kFilterModule;
  cancelledSource.properties = {{"device.master_device", "mic"}};
  state.sources.emplace(8, cancelledSource);
  PulseEndpoint cancelledSink = Sink(9, "ec-sink", PulseEndpointState::Running);
  cancelledSink.ownerModule = kFilterModule;
  cancelledSink.properties = {{"device.master_device", "speakers"}};
  state.sinks.emplace(9, cancelledSink);
  state.recordingStreams.emplace(
      10, PulseRecordingStream{10, kMic, false, false, kFilterModule, std::nullopt});
  state.playbackStreams.emplace(20, PulsePlaybackStream{20, kSpeakers, false, kFilterModule});
  EXPECT_FALSE(MappedRunning(state, "mic")) << "the canceller's playback half is no consumer";
  EXPECT_FALSE(MappedRunning(state, "speakers"));

  state.playbackStreams.emplace(21, PulsePlaybackStream{21, 9});
  EXPECT_FALSE(MappedRunning(state, "mic"));
  EXPECT_TRUE(MappedRunning(state, "speakers"));
  state.recordingStreams.emplace(11, PulseRecordingStream{11, 8});
  EXPECT_TRUE(MappedRunning(state, "mic"));
}

TEST(PulseRunningMappingTest, ACorkedFilterStreamPassesNothingOn) {
  PulseServerState state = VirtualSourceOnTheMicrophone();
  state.recordingStreams.at(10).corked = true;
  state.recordingStreams.emplace(11, PulseRecordingStream{11, kFilterSource});
  EXPECT_FALSE(MappedRunning(state, "mic"));
}

std::vector<MediaDeviceConsumer> MappedConsumers(const PulseServerState& state,
                                                 const std::string& uid) {
  for (const PulseMappedDevice& device : MapPulseServerState(state)) {
    if (device.uid == uid) return device.consumers;
  }
  ADD_FAILURE() << "no device " << uid;
  return {};
}

PulseRecordingStream RecordingBy(std::uint32_t index, std::uint32_t source, std::uint32_t client) {
  PulseRecordingStream stream{index, source};
  stream.client = client;
  return stream;
}

TEST(PulseConsumerMappingTest, ARecordingNamesItsClientsClaimedProcessPausedOrNot) {
  PulseServerState state = MicrophoneAndSpeakers();
  state.clients.emplace(
      8, PulseClient{8, {{"application.name", "Recorder"}, {"application.process.id", "4242"}}});
  state.recordingStreams.emplace(20, RecordingBy(20, kMic, 8));
  state.recordingStreams.at(20).corked = true;
  const auto consumers = MappedConsumers(state, "mic");
  ASSERT_EQ(consumers.size(), 1u);
  EXPECT_EQ(consumers[0].processID, 4242);
  EXPECT_FALSE(consumers[0].isProcessIDVerified);
  EXPECT_EQ(consumers[0].applicationName, "Recorder");
  EXPECT_EQ(consumers[0].kind, MediaDeviceConsumerKind::Application);
  EXPECT_FALSE(MappedRunning(state, "mic"));
}

TEST(PulseConsumerMappingTest, OnPipeWirePulseTheBridgesOwnPIDIsNotTheClients) {
  PulseServerState state = MicrophoneAndSpeakers();
  state.clients.emplace(1, PulseClient{1, {{"pipewire.sec.pid", "900"}}});
  state.clients.emplace(8, PulseClient{8,
                                       {{"pipewire.sec.pid", "900"},
                                        {"client.api", "pipewire-pulse"},
                                        {"application.process.id", "1"}}});
  state.clients.emplace(9, PulseClient{9, {{"pipewire.sec.pid", "4321"}}});
  state.recordingStreams.emplace(20, RecordingBy(20, kMic, 8));
  state.recordingStreams.emplace(21, RecordingBy(21, kMic, 9));
  const auto consumers = MappedConsumers(state, "mic");
  ASSERT_EQ(consumers.size(), 2u);
  EXPECT_EQ(consumers[0].processID, 1);
  EXPECT_FALSE(consumers[0].isProcessIDVerified);
  EXPECT_EQ(consumers[1].processID, 4321) << "a native PipeWire client keeps its socket's PID";
  EXPECT_TRUE(consumers[1].isProcessIDVerified);
}

TEST(PulseConsumerMappingTest, AVirtualSourceIsAFilterFeedingItsRecorder) {
  PulseServerState state = VirtualSourceOnTheMicrophone();
  state.clients.emplace(8, PulseClient{8, {{"application.process.id", "4242"}}});
  state.recordingStreams.emplace(11, RecordingBy(11, kFilterSource, 8));
  const auto consumers = MappedConsumers(state, "mic");
  ASSERT_EQ(consumers.size(), 1u);
  EXPECT_EQ(consumers[0].kind, MediaDeviceConsumerKind::Filter);
  EXPECT_EQ(consumers[0].processID, -1) << "the module's stream has no client";
  ASSERT_EQ(consumers[0].feeds.size(), 1u);
  EXPECT_EQ(consumers[0].feeds[0].processID, 4242);
  EXPECT_EQ(MappedConsumers(state, "vmic").size(), 1u);
}

TEST(PulseConsumerMappingTest, MetersAndMonitorCapturesHaveTheirKinds) {
  PulseServerState state = MicrophoneAndSpeakers();
  state.recordingStreams.emplace(20, PulseRecordingStream{20, kMic, false, true});
  state.recordingStreams.emplace(21, PulseRecordingStream{21, kMonitor});
  state.playbackStreams.emplace(30, PulsePlaybackStream{30, kSpeakers});
  const auto microphone = MappedConsumers(state, "mic");
  ASSERT_EQ(microphone.size(), 1u);
  EXPECT_EQ(microphone[0].kind, MediaDeviceConsumerKind::LevelMeter);
  const auto speakers = MappedConsumers(state, "speakers");
  ASSERT_EQ(speakers.size(), 2u);
  EXPECT_EQ(speakers[0].kind, MediaDeviceConsumerKind::Application) << "the player first";
  EXPECT_EQ(speakers[1].kind, MediaDeviceConsumerKind::Monitor);
}

}  // namespace
}  // namespace harkwell
