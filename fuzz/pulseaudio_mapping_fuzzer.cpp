// The PulseAudio property mapping on arbitrary server states: the input describes libpulse's
// records (sources, sinks, cards, recording and playback streams with any names, states, owners,
// ports and proplists), which go through the conversions from libpulse's structs, the mapping
// onto devices, and a device mirror that is updated with each state in turn. Every property of
// every object is then read back with the sizes the mirror reports and with sizes that are too
// small or too big. Nothing may crash or read out of bounds; the mirror must list exactly the
// mapped devices under IDs of the audio space; a device runs only when the server runs it; and
// every string reference a read returns must be released without a leak.
#include <fuzzer/FuzzedDataProvider.h>
#include <pulse/pulseaudio.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/DeviceConsumerCoding.h"
#include "HarkwellFoundation/Platform/Linux/MappedAudioDeviceMirror.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioDeviceMapping.h"
#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"
#include "HarkwellFoundation/Platform/PlatformString.h"

namespace harkwell {
namespace {

void Require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "broken promise: %s\n", what);
  std::abort();
}

// The proplist keys the mapping looks at, and one it does not.
constexpr const char* kKeys[] = {
    "device.bus",         "device.api",
    "device.form_factor", "device.class",
    "device.vendor.id",   "device.product.id",
    "node.link-group",    "device.master_device",
    "stream.monitor",     "resample.peaks",
    "device.description", "media.name",
    "pipewire.sec.pid",   "application.process.id",
    "application.name",   "client.api",
};
constexpr std::size_t kKeyCount = sizeof kKeys / sizeof kKeys[0];

constexpr const char* kValues[] = {
    "usb",     "bluetooth", "pci",  "alsa", "bluez", "internal",      "headset", "webcam",
    "monitor", "sound",     "046d", "0825", "",      "bluez5",        "true",    "filter",
    "group-a", "group-b",   "1",    "4242", "-7",    "pipewire-pulse"};
constexpr std::size_t kValueCount = sizeof kValues / sizeof kValues[0];

struct ProplistDeleter {
  void operator()(pa_proplist* list) const { pa_proplist_free(list); }
};
using Proplist = std::unique_ptr<pa_proplist, ProplistDeleter>;

// Either a known word or arbitrary bytes, so both the mapping's rules and its edges are reached.
std::string Text(FuzzedDataProvider& input) {
  if (input.ConsumeBool())
    return kValues[input.ConsumeIntegralInRange<std::size_t>(0, kValueCount - 1)];
  return input.ConsumeRandomLengthString(24);
}

Proplist MakeProplist(FuzzedDataProvider& input) {
  if (input.ConsumeIntegralInRange(0, 7) == 0) return nullptr;
  Proplist list(pa_proplist_new());
  const int count = input.ConsumeIntegralInRange(0, 6);
  for (int i = 0; i < count; ++i) {
    const std::string key = input.ConsumeBool()
                                ? kKeys[input.ConsumeIntegralInRange<std::size_t>(0, kKeyCount - 1)]
                                : input.ConsumeRandomLengthString(16);
    const std::string value = Text(input);
    if (input.ConsumeIntegralInRange(0, 9) == 0) {
      // A binary entry, which has no text form.
      pa_proplist_set(list.get(), key.c_str(), value.data(), value.size());
    } else {
      pa_proplist_sets(list.get(), key.c_str(), value.c_str());
    }
  }
  return list;
}

std::uint32_t IndexOrInvalid(FuzzedDataProvider& input) {
  return input.ConsumeBool() ? PA_INVALID_INDEX : input.ConsumeIntegralInRange<std::uint32_t>(0, 4);
}

// One source or sink record, with the storage its pointers point into.
template <class Info, class PortInfo>
struct Record {
  Info info{};
  std::string name, description;
  std::vector<std::string> portNames, portDescriptions;
  std::vector<PortInfo> ports;
  std::vector<PortInfo*> portPointers;
  Proplist proplist;

  void fill(FuzzedDataProvider& input) {
    name = Text(input);
    description = Text(input);
    info.index = input.ConsumeIntegralInRange<std::uint32_t>(0, 8);
    info.name = input.ConsumeIntegralInRange(0, 15) == 0 ? nullptr : name.c_str();
    info.description = input.ConsumeIntegralInRange(0, 15) == 0 ? nullptr : description.c_str();
    info.card = IndexOrInvalid(input);
    info.owner_module = IndexOrInvalid(input);
    // Every state libpulse defines, from PA_SOURCE_UNLINKED (-3) to PA_SOURCE_SUSPENDED (2).
    info.state = static_cast<decltype(info.state)>(input.ConsumeIntegralInRange(-3, 2));
    const std::size_t portCount = input.ConsumeIntegralInRange<std::size_t>(0, 3);
    for (std::size_t i = 0; i < portCount; ++i) {
      portNames.push_back(Text(input));
      portDescriptions.push_back(Text(input));
    }
    ports.resize(portCount);
    for (std::size_t i = 0; i < portCount; ++i) {
      ports[i].name = input.ConsumeIntegralInRange(0, 15) == 0 ? nullptr : portNames[i].c_str();
      ports[i].description = portDescriptions[i].c_str();
      portPointers.push_back(&ports[i]);
    }
    info.n_ports = static_cast<std::uint32_t>(portCount);
    info.ports = portCount == 0 && input.ConsumeBool() ? nullptr : portPointers.data();
    if (portCount > 0 && input.ConsumeBool()) {
      info.active_port = &ports[input.ConsumeIntegralInRange<std::size_t>(0, portCount - 1)];
    }
    proplist = MakeProplist(input);
    info.proplist = proplist.get();
  }
};

PulseServerState MakeState(FuzzedDataProvider& input) {
  PulseServerState state;
  const int sources = input.ConsumeIntegralInRange(0, 5);
  for (int i = 0; i < sources; ++i) {
    Record<pa_source_info, pa_source_port_info> record;
    record.fill(input);
    record.info.monitor_of_sink = IndexOrInvalid(input);
    auto endpoint = PulseEndpointFromSourceInfo(record.info);
    state.sources.insert_or_assign(endpoint.index, std::move(endpoint));
  }
  const int sinks = input.ConsumeIntegralInRange(0, 4);
  for (int i = 0; i < sinks; ++i) {
    Record<pa_sink_info, pa_sink_port_info> record;
    record.fill(input);
    auto endpoint = PulseEndpointFromSinkInfo(record.info);
    state.sinks.insert_or_assign(endpoint.index, std::move(endpoint));
  }
  const int cards = input.ConsumeIntegralInRange(0, 3);
  for (int i = 0; i < cards; ++i) {
    pa_card_info info{};
    const std::string name = Text(input);
    info.index = input.ConsumeIntegralInRange<std::uint32_t>(0, 4);
    info.name = name.c_str();
    Proplist proplist = MakeProplist(input);
    info.proplist = proplist.get();
    auto card = PulseCardFromCardInfo(info);
    state.cards.insert_or_assign(card.index, std::move(card));
  }
  const int clients = input.ConsumeIntegralInRange(0, 3);
  for (int i = 0; i < clients; ++i) {
    pa_client_info info{};
    info.index = input.ConsumeIntegralInRange<std::uint32_t>(0, 4);
    Proplist proplist = MakeProplist(input);
    info.proplist = proplist.get();
    auto client = PulseClientFromClientInfo(info);
    state.clients.insert_or_assign(client.index, std::move(client));
  }
  const int streams = input.ConsumeIntegralInRange(0, 4);
  for (int i = 0; i < streams; ++i) {
    pa_source_output_info info{};
    info.index = input.ConsumeIntegralInRange<std::uint32_t>(0, 8);
    info.source = input.ConsumeIntegralInRange<std::uint32_t>(0, 8);
    info.corked = input.ConsumeBool();
    info.owner_module = IndexOrInvalid(input);
    info.client = IndexOrInvalid(input);
    const std::string method = input.ConsumeBool() ? "peaks" : Text(input);
    info.resample_method = input.ConsumeBool() ? method.c_str() : nullptr;
    Proplist proplist = MakeProplist(input);
    info.proplist = proplist.get();
    auto stream = PulseRecordingStreamFromSourceOutputInfo(info);
    state.recordingStreams.insert_or_assign(stream.index, stream);
  }
  const int playbacks = input.ConsumeIntegralInRange(0, 4);
  for (int i = 0; i < playbacks; ++i) {
    pa_sink_input_info info{};
    info.index = input.ConsumeIntegralInRange<std::uint32_t>(0, 8);
    info.sink = input.ConsumeIntegralInRange<std::uint32_t>(0, 8);
    info.corked = input.ConsumeBool();
    info.owner_module = IndexOrInvalid(input);
    info.client = IndexOrInvalid(input);
    Proplist proplist = MakeProplist(input);
    info.proplist = proplist.get();
    auto stream = PulsePlaybackStreamFromSinkInputInfo(info);
    state.playbackStreams.insert_or_assign(stream.index, stream);
  }
  return state;
}

constexpr PropertyAddress Address(std::uint32_t selector, std::uint32_t scope) {
  return {selector, scope, kAudioObjectPropertyElementMaster};
}

constexpr std::array<PropertyAddress, 12> kAddresses{
    Address(kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal),
    Address(kAudioObjectPropertyName, kAudioObjectPropertyScopeGlobal),
    Address(kAudioDevicePropertyDeviceUID, kAudioObjectPropertyScopeGlobal),
    Address(kAudioDevicePropertyModelUID, kAudioObjectPropertyScopeGlobal),
    Address(kAudioDevicePropertyTransportType, kAudioObjectPropertyScopeGlobal),
    Address(kAudioDevicePropertyStreams, kAudioObjectPropertyScopeInput),
    Address(kAudioDevicePropertyStreams, kAudioObjectPropertyScopeOutput),
    Address(kAudioDevicePropertyDeviceIsRunningSomewhere, kAudioObjectPropertyScopeGlobal),
    Address(kAudioDevicePropertyDataSource, kAudioObjectPropertyScopeInput),
    Address(kAudioDevicePropertyDataSourceNameForIDCFString, kAudioObjectPropertyScopeInput),
    Address(kAudioDevicePropertyHogMode, kAudioObjectPropertyScopeGlobal),
    Address(kAudioDevicePropertyConsumers, kAudioObjectPropertyScopeGlobal),
};

// Reads one property into a buffer of `size` bytes and releases any string it returns.
void Read(const MappedAudioDeviceMirror& mirror, ObjectID object, const PropertyAddress& address,
          std::uint32_t size, std::uint32_t sourceID) {
  std::vector<std::uint8_t> buffer(size + 1, 0);
  std::uint32_t ioSize = size;
  PlatformStringRef translated = nullptr;
  AudioValueTranslation translation{&sourceID, 4, &translated, sizeof translated};
  if (address.mSelector == kAudioDevicePropertyDataSourceNameForIDCFString &&
      size >= kAudioValueTranslationDataSize) {
    std::memcpy(buffer.data(), &translation, sizeof translation);
  }
  const OSStatus status = mirror.getPropertyData(object, address, &ioSize, buffer.data());
  if (status != kNoErr) return;
  Require(ioSize <= size, "a read wrote more than its buffer");
  if (translated) PlatformStringRelease(translated);
  const bool isString = address.mSelector == kAudioObjectPropertyName ||
                        address.mSelector == kAudioDevicePropertyDeviceUID ||
                        address.mSelector == kAudioDevicePropertyModelUID;
  if (address.mSelector == kAudioDevicePropertyConsumers) {
    Require(DecodeDeviceConsumers(buffer.data(), ioSize).has_value(),
            "a consumers answer that does not decode");
  }
  if (isString && ioSize == sizeof(PlatformStringRef)) {
    PlatformStringRef string;
    std::memcpy(&string, buffer.data(), sizeof string);
    if (string) PlatformStringRelease(string);
  }
}

}  // namespace
}  // namespace harkwell

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace harkwell;
  FuzzedDataProvider input(data, size);
  const std::size_t liveStrings = PlatformStringLiveCount();
  MappedAudioDeviceMirror mirror;
  const int states = input.ConsumeIntegralInRange(1, 3);
  for (int round = 0; round < states; ++round) {
    const PulseServerState state = MakeState(input);
    const auto devices = MapPulseServerState(state);
    std::size_t monitors = 0;
    for (const auto& [index, source] : state.sources) monitors += source.isMonitor ? 1 : 0;
    Require(devices.size() == state.sources.size() - monitors + state.sinks.size(),
            "not one device per source and sink, monitors left out");
    std::set<std::pair<PulseEndpointKind, std::string>> keys;
    for (const auto& device : devices) {
      const bool source = device.kind == PulseEndpointKind::Source;
      Require(device.inputStreamCount == (source ? 1u : 0u) &&
                  device.outputStreamCount == (source ? 0u : 1u),
              "a source has one input stream and a sink one output stream");
      if (!source) Require(device.inputSources.empty(), "a sink with input sources");
      if (device.isRunning) {
        const auto& endpoints = source ? state.sources : state.sinks;
        bool awake = false;
        for (const auto& [index, endpoint] : endpoints) {
          awake = awake ||
                  (endpoint.name == device.uid && (endpoint.state == PulseEndpointState::Running ||
                                                   endpoint.state == PulseEndpointState::Idle));
        }
        Require(awake, "a device running that the server holds suspended");
      }
      for (const MediaDeviceConsumer& consumer : device.consumers) {
        Require(consumer.kind == MediaDeviceConsumerKind::Filter || consumer.feeds.empty(),
                "only a filter feeds anyone");
        Require(consumer.processID == -1 || consumer.processID > 0, "a process ID below 1");
        Require(!consumer.isProcessIDVerified || consumer.processID > 0,
                "a verified process ID that names no process");
        Require(!consumer.executablePath, "the mapping read /proc");
      }
      keys.emplace(device.kind, device.uid);
    }
    mirror.update(DistinctPulseDevices(devices));
    // Two records with one server name are one device to the mirror.
    const auto listed = mirror.deviceIDs();
    Require(listed.size() == keys.size(), "the mirror does not list each device once");
    for (ObjectID id : listed) {
      Require(IsStableDeviceID(StableIDSpace::Audio, id), "an ID outside the audio space");
    }
    std::vector<ObjectID> objects = listed;
    objects.push_back(kAudioObjectSystemObject);
    objects.push_back(input.ConsumeIntegral<ObjectID>());
    for (ObjectID object : objects) {
      for (const auto& address : kAddresses) {
        std::uint32_t reported = 0;
        if (mirror.getPropertyDataSize(object, address, &reported) != kNoErr) continue;
        Require(reported < (1u << 20), "an absurd data size");
        const std::uint32_t sourceID = input.ConsumeIntegralInRange<std::uint32_t>(0, 4);
        Read(mirror, object, address, reported, sourceID);
        Read(mirror, object, address, input.ConsumeIntegralInRange<std::uint32_t>(0, 40), sourceID);
      }
    }
  }
  Require(PlatformStringLiveCount() == liveStrings, "a string reference leaked");
  return 0;
}
