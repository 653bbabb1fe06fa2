// How a PipeWire graph becomes devices, without a daemon: which nodes are devices, names, UIDs,
// model UIDs, transport, stream counts, running state over links, meters, monitor captures,
// paused streams and filter halves, input sources from a device's routes (and the route params
// they are read from), and the mirror's IDs and change notes.
#include <gtest/gtest.h>
#include <spa/param/param.h>
#include <spa/param/route.h>
#include <spa/pod/builder.h>
#include <spa/utils/defs.h>

#include <array>

#include "HarkwellFoundation/Platform/DeviceConsumerCoding.h"

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/MappedAudioDeviceMirror.h"
#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireDeviceMapping.h"
#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireRouteParam.h"
#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"

// SPA's pod builder macros are C, with C casts.
#pragma GCC diagnostic ignored "-Wold-style-cast"

namespace harkwell {
namespace {

class GraphBuilder {
 public:
  GraphBuilder& node(std::uint32_t id, PipeWireProperties properties,
                     PipeWireNodeState state = PipeWireNodeState::Suspended) {
    graph_.nodes[id] = PipeWireNode{id, state, std::move(properties)};
    return *this;
  }
  GraphBuilder& device(std::uint32_t id, PipeWireProperties properties,
                       std::vector<PipeWireRoute> routes = {},
                       std::vector<PipeWireRoute> active = {}) {
    graph_.devices[id] =
        PipeWireDevice{id, std::move(properties), std::move(routes), std::move(active)};
    return *this;
  }
  GraphBuilder& link(std::uint32_t id, std::uint32_t from, std::uint32_t to,
                     PipeWireLinkState state = PipeWireLinkState::Active) {
    PipeWireLink link;
    link.id = id;
    link.outputNodeID = from;
    link.inputNodeID = to;
    link.state = state;
    graph_.links[id] = link;
    return *this;
  }
  GraphBuilder& client(std::uint32_t id, PipeWireProperties properties) {
    graph_.clients[id] = PipeWireClient{id, std::move(properties)};
    return *this;
  }
  const PipeWireGraph& graph() const { return graph_; }

 private:
  PipeWireGraph graph_;
};

PipeWireProperties Source(const std::string& name) {
  return {{"media.class", "Audio/Source"}, {"node.name", name}, {"node.description", name + " D"}};
}
PipeWireProperties Sink(const std::string& name) {
  return {{"media.class", "Audio/Sink"}, {"node.name", name}};
}
PipeWireProperties Recorder(PipeWireProperties extra = {}) {
  extra["media.class"] = "Stream/Input/Audio";
  return extra;
}

const MappedAudioDevice* Find(const std::vector<MappedAudioDevice>& devices,
                              const std::string& uid) {
  for (const auto& device : devices) {
    if (device.uid == uid) return &device;
  }
  return nullptr;
}

bool Running(const PipeWireGraph& graph, const std::string& uid) {
  const auto devices = MapPipeWireGraph(graph);
  const MappedAudioDevice* device = Find(devices, uid);
  EXPECT_NE(device, nullptr) << uid;
  return device && device->isRunning;
}

constexpr auto kRun = PipeWireNodeState::Running;

TEST(PipeWireMapping, SourcesSinksAndTheirVirtualFormsAreDevicesStreamsAreNot) {
  GraphBuilder builder;
  builder.node(1, Source("mic"))
      .node(2, Sink("speaker"))
      .node(3, {{"media.class", "Audio/Source/Virtual"}, {"node.name", "vmic"}})
      .node(4, {{"media.class", "Audio/Sink/Virtual"}, {"node.name", "vsink"}})
      .node(5, {{"media.class", "Audio/Duplex"}, {"node.name", "duplex"}})
      .node(6, Recorder({{"node.name", "pw-record"}}))
      .node(7, {{"media.class", "Video/Source"}, {"node.name", "camera"}})
      .node(8, {{"node.name", "Dummy-Driver"}})
      .node(9, {{"media.class", "Audio/Source"}});  // no name: no identity
  const auto devices = MapPipeWireGraph(builder.graph());
  std::vector<std::string> uids;
  for (const auto& device : devices) uids.push_back(device.uid);
  EXPECT_EQ(uids, (std::vector<std::string>{"mic", "speaker", "vmic", "vsink", "duplex"}));

  EXPECT_EQ(Find(devices, "mic")->inputStreamCount, 1u);
  EXPECT_EQ(Find(devices, "mic")->outputStreamCount, 0u);
  EXPECT_EQ(Find(devices, "speaker")->inputStreamCount, 0u);
  EXPECT_EQ(Find(devices, "speaker")->outputStreamCount, 1u);
  EXPECT_EQ(Find(devices, "duplex")->inputStreamCount, 1u);
  EXPECT_EQ(Find(devices, "duplex")->outputStreamCount, 1u);
}

TEST(PipeWireMapping, NameFallsBackFromDescriptionToNickToNodeName) {
  GraphBuilder builder;
  builder.node(1, Source("a"))
      .node(2, {{"media.class", "Audio/Source"}, {"node.name", "b"}, {"node.nick", "Bee"}})
      .node(3, {{"media.class", "Audio/Source"}, {"node.name", "c"}});
  const auto devices = MapPipeWireGraph(builder.graph());
  EXPECT_EQ(Find(devices, "a")->name, "a D");
  EXPECT_EQ(Find(devices, "b")->name, "Bee");
  EXPECT_EQ(Find(devices, "c")->name, "c");
}

TEST(PipeWireMapping, ModelUIDComesFromTheNodeElseItsDevice) {
  GraphBuilder builder;
  PipeWireProperties own = Source("own");
  own["device.vendor.id"] = "0x046d";
  own["device.product.id"] = "0x0825";
  PipeWireProperties carded = Source("carded");
  carded["device.id"] = "40";
  builder.node(1, own)
      .node(2, carded)
      .node(3, Source("none"))
      .device(40, {{"device.vendor.id", "0x8086"}, {"device.product.id", "0xa170"}});
  const auto devices = MapPipeWireGraph(builder.graph());
  EXPECT_EQ(Find(devices, "own")->modelUID, "0x046d:0x0825");
  EXPECT_EQ(Find(devices, "carded")->modelUID, "0x8086:0xa170");
  EXPECT_EQ(Find(devices, "none")->modelUID, std::nullopt);
}

TEST(PipeWireMapping, SoundCardComesFromTheNodeElseItsDevice) {
  GraphBuilder builder;
  PipeWireProperties own = Source("own");
  own["api.alsa.card"] = "2";
  PipeWireProperties carded = Sink("carded");
  carded["device.id"] = "40";
  PipeWireProperties wrong = Source("wrong");
  wrong["api.alsa.card"] = "two";
  builder.node(1, own)
      .node(2, carded)
      .node(3, Source("virtual"))
      .node(4, wrong)
      .device(40, {{"alsa.card", "5"}});
  const auto devices = MapPipeWireGraph(builder.graph());
  EXPECT_EQ(Find(devices, "own")->soundCard, 2u);
  EXPECT_EQ(Find(devices, "carded")->soundCard, 5u);
  EXPECT_EQ(Find(devices, "virtual")->soundCard, std::nullopt);
  EXPECT_EQ(Find(devices, "wrong")->soundCard, std::nullopt);
}

TEST(PipeWireMapping, TransportFollowsBusApiFormFactorAndClass) {
  const PipeWireDevice usbCard{1, {{"device.bus", "usb"}, {"device.api", "alsa"}}, {}, {}};
  const PipeWireDevice builtIn{
      2,
      {{"device.bus", "pci"}, {"device.form_factor", "internal"}, {"device.api", "alsa"}},
      {},
      {}};
  const PipeWireDevice pciCard{3, {{"device.bus", "pci"}}, {}, {}};
  const PipeWireDevice headset{4, {{"device.api", "bluez5"}}, {}, {}};
  const PipeWireNode plain{10, PipeWireNodeState::Idle, Source("n")};
  EXPECT_EQ(PipeWireTransportTypeFor(plain, &usbCard), kAudioDeviceTransportTypeUSB);
  EXPECT_EQ(PipeWireTransportTypeFor(plain, &builtIn), kAudioDeviceTransportTypeBuiltIn);
  EXPECT_EQ(PipeWireTransportTypeFor(plain, &pciCard), kAudioDeviceTransportTypePCI);
  EXPECT_EQ(PipeWireTransportTypeFor(plain, &headset), kAudioDeviceTransportTypeBluetooth);
  EXPECT_EQ(PipeWireTransportTypeFor(plain, nullptr), kAudioDeviceTransportTypeVirtual);

  PipeWireNode bluez = plain;
  bluez.properties["device.api"] = "bluez5";
  EXPECT_EQ(PipeWireTransportTypeFor(bluez, nullptr), kAudioDeviceTransportTypeBluetooth);
  PipeWireNode bluetoothBus = plain;
  bluetoothBus.properties["device.bus"] = "bluetooth";
  EXPECT_EQ(PipeWireTransportTypeFor(bluetoothBus, nullptr), kAudioDeviceTransportTypeBluetooth);
  PipeWireNode firewire = plain;
  firewire.properties["device.bus"] = "firewire";
  EXPECT_EQ(PipeWireTransportTypeFor(firewire, nullptr), kAudioDeviceTransportTypeFireWire);
  // A node of a device the graph does not (yet) hold: nothing tells.
  PipeWireNode orphan = plain;
  orphan.properties["device.id"] = "99";
  EXPECT_EQ(PipeWireTransportTypeFor(orphan, nullptr), kAudioDeviceTransportTypeUnknown);
  PipeWireNode virtualNode = orphan;
  virtualNode.properties["node.virtual"] = "true";
  EXPECT_EQ(PipeWireTransportTypeFor(virtualNode, nullptr), kAudioDeviceTransportTypeVirtual);
  PipeWireNode filterClass = orphan;
  filterClass.properties["device.class"] = "filter";
  EXPECT_EQ(PipeWireTransportTypeFor(filterClass, nullptr), kAudioDeviceTransportTypeVirtual);
}

TEST(PipeWireMapping, ARunningRecorderMakesASourceRunningAnIdleOneDoesNot) {
  GraphBuilder builder;
  builder.node(1, Source("mic")).node(2, Recorder(), kRun).link(10, 1, 2);
  EXPECT_TRUE(Running(builder.graph(), "mic"));
  builder.node(2, Recorder(), PipeWireNodeState::Idle);
  EXPECT_FALSE(Running(builder.graph(), "mic")) << "a paused stream takes nothing";
  builder.node(2, Recorder(), kRun).link(10, 1, 2, PipeWireLinkState::Error);
  EXPECT_FALSE(Running(builder.graph(), "mic")) << "a link in error is no flow";
}

TEST(PipeWireMapping, MetersAndMonitorCapturesNeverMakeASourceRunning) {
  GraphBuilder builder;
  builder.node(1, Source("mic"))
      .node(2, Recorder({{"stream.monitor", "true"}}), kRun)
      .node(3, Recorder({{"resample.peaks", "true"}}), kRun)
      .link(10, 1, 2)
      .link(11, 1, 3);
  EXPECT_FALSE(Running(builder.graph(), "mic"));

  // Recording what a sink plays: the sink's producer is not the sink's consumer.
  GraphBuilder monitor;
  monitor.node(1, Sink("speaker"))
      .node(2, {{"media.class", "Stream/Output/Audio"}}, kRun)
      .node(3, Recorder(), kRun)
      .link(10, 2, 1)
      .link(11, 1, 3);
  EXPECT_TRUE(Running(monitor.graph(), "speaker")) << "a player plays to it";
  monitor.node(2, {{"media.class", "Stream/Output/Audio"}}, PipeWireNodeState::Idle);
  EXPECT_FALSE(Running(monitor.graph(), "speaker")) << "only a monitor capture is left";
}

TEST(PipeWireMapping, AFilterRunsItsSourceOnlyWhileItsOutputIsConsumed) {
  // mic -> capture half (link group g) ... output half "filtered" (an Audio/Source) -> recorder
  GraphBuilder builder;
  PipeWireProperties capture = Recorder({{"node.link-group", "g"}});
  PipeWireProperties output = Source("filtered");
  output["node.link-group"] = "g";
  output["node.virtual"] = "true";
  builder.node(1, Source("mic")).node(2, capture, kRun).node(3, output, kRun).link(10, 1, 2);
  EXPECT_FALSE(Running(builder.graph(), "mic"));
  EXPECT_FALSE(Running(builder.graph(), "filtered"));

  builder.node(4, Recorder(), kRun).link(11, 3, 4);
  EXPECT_TRUE(Running(builder.graph(), "mic"));
  EXPECT_TRUE(Running(builder.graph(), "filtered"));

  // Two filters in a chain: the second's output is what a program records.
  GraphBuilder chain;
  PipeWireProperties capture2 = Recorder({{"node.link-group", "h"}});
  PipeWireProperties output2 = Source("filtered2");
  output2["node.link-group"] = "h";
  chain.node(1, Source("mic"))
      .node(2, capture, kRun)
      .node(3, output, kRun)
      .node(5, capture2, kRun)
      .node(6, output2, kRun)
      .link(10, 1, 2)
      .link(11, 3, 5);
  EXPECT_FALSE(Running(chain.graph(), "mic"));
  chain.node(7, Recorder(), kRun).link(12, 6, 7);
  EXPECT_TRUE(Running(chain.graph(), "mic"));
}

TEST(PipeWireMapping, InputSourcesAreTheDevicesInputRoutesForTheNodesProfileDevice) {
  const std::vector<PipeWireRoute> routes{
      {0, PipeWireDirection::Input, {1}, "analog-input-mic", "Microphone"},
      {1, PipeWireDirection::Input, {1}, "analog-input-linein", "Line In"},
      {2, PipeWireDirection::Output, {0}, "analog-output-speaker", "Speakers"},
      {3, PipeWireDirection::Input, {2}, "hdmi-input", "HDMI"},
  };
  const std::vector<PipeWireRoute> active{
      {2, PipeWireDirection::Output, {0}, "analog-output-speaker", "Speakers"},
      {1, PipeWireDirection::Input, {1}, "analog-input-linein", "Line In"},
  };
  PipeWireProperties capture = Source("card.capture");
  capture["device.id"] = "40";
  capture["card.profile.device"] = "1";
  GraphBuilder builder;
  builder.node(1, capture).device(40, {{"device.api", "alsa"}}, routes, active);
  const auto devices = MapPipeWireGraph(builder.graph());
  const MappedAudioDevice* device = Find(devices, "card.capture");
  ASSERT_NE(device, nullptr);
  EXPECT_EQ(device->inputSources,
            (std::vector<MappedInputSource>{{"analog-input-mic", "Microphone"},
                                            {"analog-input-linein", "Line In"}}));
  EXPECT_EQ(device->selectedInputSource, "analog-input-linein");

  // A node without a profile device, or without a device, has none.
  capture.erase("card.profile.device");
  builder.node(1, capture);
  EXPECT_TRUE(Find(MapPipeWireGraph(builder.graph()), "card.capture")->inputSources.empty());
}

// A route param as a device hands it over.
std::vector<std::uint8_t> RouteParam(std::uint32_t paramID, std::int32_t index,
                                     std::uint32_t direction, const char* name,
                                     const char* description, std::optional<std::int32_t> device,
                                     std::vector<std::int32_t> devices) {
  std::vector<std::uint8_t> buffer(1024);
  spa_pod_builder builder =
      SPA_POD_BUILDER_INIT(buffer.data(), static_cast<std::uint32_t>(buffer.size()));
  spa_pod_frame frame;
  spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_ParamRoute, paramID);
  spa_pod_builder_add(&builder, SPA_PARAM_ROUTE_index, SPA_POD_Int(index),
                      SPA_PARAM_ROUTE_direction, SPA_POD_Id(direction), SPA_PARAM_ROUTE_name,
                      SPA_POD_String(name), 0);
  if (description) {
    spa_pod_builder_add(&builder, SPA_PARAM_ROUTE_description, SPA_POD_String(description), 0);
  }
  if (device) spa_pod_builder_add(&builder, SPA_PARAM_ROUTE_device, SPA_POD_Int(*device), 0);
  if (!devices.empty()) {
    spa_pod_builder_prop(&builder, SPA_PARAM_ROUTE_devices, 0);
    spa_pod_builder_array(&builder, sizeof(std::int32_t), SPA_TYPE_Int,
                          static_cast<std::uint32_t>(devices.size()), devices.data());
  }
  spa_pod_builder_pop(&builder, &frame);
  return buffer;
}

TEST(PipeWireRouteParam, ReadsEnumeratedAndChosenRoutes) {
  const auto enumerated = RouteParam(SPA_PARAM_EnumRoute, 3, SPA_DIRECTION_INPUT, "mic",
                                     "Microphone", std::nullopt, {1, 4});
  const auto route = PipeWireRouteFromParam(reinterpret_cast<const spa_pod*>(enumerated.data()));
  ASSERT_TRUE(route);
  EXPECT_EQ(*route, (PipeWireRoute{3, PipeWireDirection::Input, {1, 4}, "mic", "Microphone"}));

  const auto chosen = RouteParam(SPA_PARAM_Route, 5, SPA_DIRECTION_OUTPUT, "spk", nullptr, 0, {});
  const auto active = PipeWireRouteFromParam(reinterpret_cast<const spa_pod*>(chosen.data()));
  ASSERT_TRUE(active);
  EXPECT_EQ(*active, (PipeWireRoute{5, PipeWireDirection::Output, {0}, "spk", "spk"}))
      << "a route without a description is described by its name";
}

TEST(PipeWireRouteParam, RejectsWhatIsNotANamedRoute) {
  EXPECT_FALSE(PipeWireRouteFromParam(nullptr));
  std::array<std::uint8_t, 64> buffer{};
  spa_pod_builder builder =
      SPA_POD_BUILDER_INIT(buffer.data(), static_cast<std::uint32_t>(buffer.size()));
  spa_pod_builder_int(&builder, 7);
  EXPECT_FALSE(PipeWireRouteFromParam(reinterpret_cast<const spa_pod*>(buffer.data())));

  std::vector<std::uint8_t> unnamed(256);
  spa_pod_builder object =
      SPA_POD_BUILDER_INIT(unnamed.data(), static_cast<std::uint32_t>(unnamed.size()));
  spa_pod_frame frame;
  spa_pod_builder_push_object(&object, &frame, SPA_TYPE_OBJECT_ParamRoute, SPA_PARAM_Route);
  spa_pod_builder_add(&object, SPA_PARAM_ROUTE_index, SPA_POD_Int(1), 0);
  spa_pod_builder_pop(&object, &frame);
  EXPECT_FALSE(PipeWireRouteFromParam(reinterpret_cast<const spa_pod*>(unnamed.data())));
}

PropertyAddress Global(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMaster};
}
PropertyAddress Input(std::uint32_t selector) {
  return {selector, kAudioObjectPropertyScopeInput, kAudioObjectPropertyElementMaster};
}

MappedAudioDevice Microphone(const std::string& uid) {
  MappedAudioDevice device;
  device.uid = uid;
  device.name = "Microphone " + uid;
  device.inputStreamCount = 1;
  return device;
}

TEST(MappedAudioDeviceMirror, DevicesGetTheirStableIDsAndKeepThemWhenTheyComeBack) {
  MappedAudioDeviceMirror mirror;
  const ObjectID a = StableDeviceIDHome(StableIDSpace::Audio, "a");
  const ObjectID b = StableDeviceIDHome(StableIDSpace::Audio, "b");
  using Change = MappedAudioDeviceMirror::Change;
  const Change listChanged{kAudioObjectSystemObject, Global(kAudioHardwarePropertyDevices)};
  EXPECT_EQ(mirror.update({Microphone("a"), Microphone("b")}), std::vector<Change>{listChanged});
  std::vector<ObjectID> expected{a, b};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(mirror.deviceIDs(), expected);
  EXPECT_EQ(mirror.update({Microphone("b")}), std::vector<Change>{listChanged});
  EXPECT_EQ(mirror.update({Microphone("b"), Microphone("a")}), std::vector<Change>{listChanged});
  EXPECT_EQ(mirror.deviceIDs(), expected);
}

TEST(MappedAudioDeviceMirror, OnlyValuesThatReallyChangedAreNoted) {
  MappedAudioDeviceMirror mirror;
  MappedAudioDevice device = Microphone("a");
  device.inputSources = {{"mic", "Microphone"}, {"line", "Line In"}};
  device.selectedInputSource = "mic";
  mirror.update({device});
  const ObjectID id = StableDeviceIDHome(StableIDSpace::Audio, "a");
  EXPECT_TRUE(mirror.update({device}).empty()) << "the same state again changes nothing";

  device.isRunning = true;
  device.selectedInputSource = "line";
  using Change = MappedAudioDeviceMirror::Change;
  EXPECT_EQ(mirror.update({device}),
            (std::vector<Change>{{id, Global(kAudioDevicePropertyDeviceIsRunningSomewhere)},
                                 {id, Input(kAudioDevicePropertyDataSource)}}));
  std::uint32_t selected = 0;
  std::uint32_t size = sizeof selected;
  ASSERT_EQ(mirror.getPropertyData(id, Input(kAudioDevicePropertyDataSource), &size, &selected),
            kNoErr);
  EXPECT_EQ(selected, 2u) << "input source IDs count from 1 in the order first seen";
}

TEST(MappedAudioDeviceMirror, HogModeOfADeviceWithACardNamesTheCard) {
  MappedAudioDeviceMirror mirror;
  MappedAudioDevice withCard = Microphone("a");
  withCard.soundCard = 4;
  mirror.update({withCard, Microphone("b")});
  const ObjectID a = StableDeviceIDHome(StableIDSpace::Audio, "a");
  const ObjectID b = StableDeviceIDHome(StableIDSpace::Audio, "b");
  std::uint32_t card = 0;
  EXPECT_EQ(mirror.hogModeSoundCard(a, Global(kAudioDevicePropertyHogMode), &card), kNoErr);
  EXPECT_EQ(card, 4u);
  EXPECT_EQ(mirror.hogModeSoundCard(b, Global(kAudioDevicePropertyHogMode), &card),
            kAudioHardwareUnknownPropertyError);
  EXPECT_EQ(
      mirror.hogModeSoundCard(kAudioObjectSystemObject, Global(kAudioDevicePropertyHogMode), &card),
      kAudioHardwareUnknownPropertyError);
  EXPECT_EQ(mirror.hogModeSoundCard(a + 1, Global(kAudioDevicePropertyHogMode), &card),
            kAudioHardwareBadObjectError);
  EXPECT_FALSE(mirror.hasProperty(a, Global(kAudioDevicePropertyHogMode)))
      << "the mirror leaves exclusive access to the service";
}

std::vector<MediaDeviceConsumer> ConsumersOf(const PipeWireGraph& graph, const std::string& uid) {
  const auto devices = MapPipeWireGraph(graph);
  const MappedAudioDevice* device = Find(devices, uid);
  EXPECT_NE(device, nullptr) << uid;
  return device ? device->consumers : std::vector<MediaDeviceConsumer>{};
}

TEST(PipeWireConsumers, ARecorderIsItsClientsVerifiedProcessPausedOrNot) {
  GraphBuilder builder;
  builder.node(1, Source("mic"))
      .client(40, {{"pipewire.sec.pid", "4242"},
                   {"application.process.id", "1"},
                   {"application.name", "Recorder"},
                   {"application.id", "org.example.Recorder"}})
      .node(10, Recorder({{"client.id", "40"}}), PipeWireNodeState::Idle)
      .link(20, 1, 10);
  const auto consumers = ConsumersOf(builder.graph(), "mic");
  ASSERT_EQ(consumers.size(), 1u);
  EXPECT_EQ(consumers[0].processID, 4242);
  EXPECT_TRUE(consumers[0].isProcessIDVerified);
  EXPECT_EQ(consumers[0].applicationName, "Recorder");
  EXPECT_EQ(consumers[0].applicationID, "org.example.Recorder");
  EXPECT_EQ(consumers[0].kind, MediaDeviceConsumerKind::Application);
  EXPECT_FALSE(Running(builder.graph(), "mic")) << "listed, but an idle stream takes nothing";
}

TEST(PipeWireConsumers, MetersMonitorsAndBridgedClientsAreToldApart) {
  GraphBuilder builder;
  builder.node(1, Source("mic"))
      .node(2, Sink("speaker"))
      .client(40, {{"pipewire.sec.pid", "900"}, {"application.name", "pipewire"}})
      .client(41, {{"pipewire.sec.pid", "900"},
                   {"client.api", "pipewire-pulse"},
                   {"application.process.id", "77"}})
      .node(10, Recorder({{"client.id", "41"}, {"stream.monitor", "true"}}), kRun)
      .node(11, Recorder({{"client.id", "41"}}), kRun)
      .link(20, 1, 10)
      .link(21, 2, 11);
  const auto microphone = ConsumersOf(builder.graph(), "mic");
  ASSERT_EQ(microphone.size(), 1u);
  EXPECT_EQ(microphone[0].kind, MediaDeviceConsumerKind::LevelMeter);
  EXPECT_EQ(microphone[0].processID, 77) << "pipewire-pulse's own PID is not the client's";
  EXPECT_FALSE(microphone[0].isProcessIDVerified);
  const auto speaker = ConsumersOf(builder.graph(), "speaker");
  ASSERT_EQ(speaker.size(), 1u);
  EXPECT_EQ(speaker[0].kind, MediaDeviceConsumerKind::Monitor);
}

TEST(PipeWireConsumers, ALoopbackFeedsTheRecorderBehindIt) {
  GraphBuilder builder;
  builder.node(1, Source("mic"))
      .client(40, {{"pipewire.sec.pid", "500"}, {"application.name", "pw-loopback"}})
      .client(41, {{"pipewire.sec.pid", "600"}})
      .node(10, Recorder({{"client.id", "40"}, {"node.link-group", "loop-1"}}), kRun)
      .node(11, {{"media.class", "Audio/Source"},
                 {"node.name", "loop-source"},
                 {"node.link-group", "loop-1"},
                 {"client.id", "40"}})
      .node(12, Recorder({{"client.id", "41"}}), kRun)
      .link(20, 1, 10)
      .link(21, 11, 12);
  const auto consumers = ConsumersOf(builder.graph(), "mic");
  ASSERT_EQ(consumers.size(), 1u);
  EXPECT_EQ(consumers[0].kind, MediaDeviceConsumerKind::Filter);
  EXPECT_EQ(consumers[0].processID, 500);
  ASSERT_EQ(consumers[0].feeds.size(), 1u);
  EXPECT_EQ(consumers[0].feeds[0].processID, 600);
  EXPECT_TRUE(consumers[0].feeds[0].isProcessIDVerified);
}

TEST(MappedAudioDeviceMirror, ConsumersAreAnsweredEncodedAndNotedOnlyWhenTheyChange) {
  MappedAudioDeviceMirror mirror;
  MappedAudioDevice device = Microphone("a");
  mirror.update({device});
  const ObjectID id = StableDeviceIDHome(StableIDSpace::Audio, "a");
  const PropertyAddress address = Global(kAudioDevicePropertyConsumers);
  std::uint32_t size = 0;
  ASSERT_EQ(mirror.getPropertyDataSize(id, address, &size), kNoErr);
  EXPECT_EQ(size, EncodeDeviceConsumers({}).size()) << "nobody: the empty list";

  MediaDeviceConsumer recorder;
  recorder.processID = 4242;
  device.consumers = {recorder};
  using Change = MappedAudioDeviceMirror::Change;
  EXPECT_EQ(mirror.update({device}), (std::vector<Change>{{id, address}}));
  EXPECT_TRUE(mirror.update({device}).empty());
  ASSERT_EQ(mirror.getPropertyDataSize(id, address, &size), kNoErr);
  std::vector<std::uint8_t> bytes(size);
  ASSERT_EQ(mirror.getPropertyData(id, address, &size, bytes.data()), kNoErr);
  EXPECT_EQ(DecodeDeviceConsumers(bytes.data(), size), std::vector<MediaDeviceConsumer>{recorder});
}

}  // namespace
}  // namespace harkwell
