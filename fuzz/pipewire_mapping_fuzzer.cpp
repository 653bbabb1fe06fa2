// The PipeWire property mapping on arbitrary graphs. The input is what `pw-dump` prints (the seed
// corpus is the test stack's own dumps): a JSON array of objects whose nodes, devices (with their
// EnumRoute and Route params) and links become a PipeWireGraph, with any properties, states and
// routes. The graph is mapped onto devices, a device mirror is updated with it and then with a
// part of it, and every property of every object is read back with the sizes the mirror reports
// and with sizes that are too small or too big. Nothing may crash or read out of bounds; devices
// must be exactly the named nodes of device classes; running must never be claimed without a link
// leaving or entering the device; and every string reference a read returns must be released
// without a leak.
#include <nlohmann/json.hpp>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/MappedAudioDeviceMirror.h"
#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireDeviceMapping.h"
#include "HarkwellFoundation/Platform/PlatformString.h"

namespace harkwell {
namespace {

using nlohmann::json;

void Require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "broken promise: %s\n", what);
  std::abort();
}

// pw-dump writes property values as JSON strings, numbers and Booleans; the daemon hands them to
// clients as text.
std::string TextOf(const json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_boolean()) return value.get<bool>() ? "true" : "false";
  return value.dump();
}

PipeWireProperties PropertiesOf(const json& info) {
  PipeWireProperties properties;
  auto props = info.find("props");
  if (props == info.end() || !props->is_object()) return properties;
  for (const auto& [key, value] : props->items()) properties[key] = TextOf(value);
  return properties;
}

std::uint32_t NumberOf(const json& object, const char* key) {
  auto found = object.find(key);
  if (found == object.end() || !found->is_number_integer()) return 0;
  return found->get<std::uint32_t>();
}

PipeWireNodeState NodeStateOf(const json& info) {
  auto state = info.find("state");
  if (state == info.end() || !state->is_string()) return PipeWireNodeState::Error;
  const std::string text = state->get<std::string>();
  if (text == "running") return PipeWireNodeState::Running;
  if (text == "idle") return PipeWireNodeState::Idle;
  if (text == "suspended") return PipeWireNodeState::Suspended;
  if (text == "creating") return PipeWireNodeState::Creating;
  return PipeWireNodeState::Error;
}

PipeWireLinkState LinkStateOf(const json& info) {
  auto state = info.find("state");
  if (state == info.end() || !state->is_string()) return PipeWireLinkState::Error;
  const std::string text = state->get<std::string>();
  if (text == "active") return PipeWireLinkState::Active;
  if (text == "paused") return PipeWireLinkState::Paused;
  if (text == "init") return PipeWireLinkState::Init;
  if (text == "negotiating") return PipeWireLinkState::Negotiating;
  if (text == "allocating") return PipeWireLinkState::Allocating;
  if (text == "unlinked") return PipeWireLinkState::Unlinked;
  return PipeWireLinkState::Error;
}

std::vector<PipeWireRoute> RoutesOf(const json& info, const char* param) {
  std::vector<PipeWireRoute> routes;
  auto params = info.find("params");
  if (params == info.end() || !params->is_object()) return routes;
  auto list = params->find(param);
  if (list == params->end() || !list->is_array()) return routes;
  for (const json& entry : *list) {
    if (!entry.is_object()) continue;
    PipeWireRoute route;
    if (auto index = entry.find("index"); index != entry.end() && index->is_number_integer()) {
      route.index = index->get<std::int32_t>();
    }
    route.direction = entry.value("direction", json()) == "Output" ? PipeWireDirection::Output
                                                                   : PipeWireDirection::Input;
    if (auto device = entry.find("device"); device != entry.end() && device->is_number_integer()) {
      route.devices.push_back(device->get<std::int32_t>());
    }
    if (auto devices = entry.find("devices"); devices != entry.end() && devices->is_array()) {
      for (const json& device : *devices) {
        if (device.is_number_integer()) route.devices.push_back(device.get<std::int32_t>());
      }
    }
    if (auto name = entry.find("name"); name != entry.end()) route.name = TextOf(*name);
    if (auto text = entry.find("description"); text != entry.end()) {
      route.description = TextOf(*text);
    }
    routes.push_back(std::move(route));
  }
  return routes;
}

// The graph of the objects of `dump` whose position passes `keep`.
template <class Keep>
PipeWireGraph GraphOf(const json& dump, Keep keep) {
  PipeWireGraph graph;
  std::size_t position = 0;
  for (const json& object : dump) {
    if (!keep(position++) || !object.is_object()) continue;
    const std::uint32_t id = NumberOf(object, "id");
    const std::string type = object.value("type", json()).is_string()
                                 ? object.value("type", json()).get<std::string>()
                                 : std::string();
    const json info = object.value("info", json::object());
    if (!info.is_object()) continue;
    if (type == "PipeWire:Interface:Node") {
      graph.nodes[id] = PipeWireNode{id, NodeStateOf(info), PropertiesOf(info)};
    } else if (type == "PipeWire:Interface:Device") {
      graph.devices[id] = PipeWireDevice{id, PropertiesOf(info), RoutesOf(info, "EnumRoute"),
                                         RoutesOf(info, "Route")};
    } else if (type == "PipeWire:Interface:Link") {
      PipeWireLink link;
      link.id = id;
      link.outputNodeID = NumberOf(info, "output-node-id");
      link.outputPortID = NumberOf(info, "output-port-id");
      link.inputNodeID = NumberOf(info, "input-node-id");
      link.inputPortID = NumberOf(info, "input-port-id");
      link.state = LinkStateOf(info);
      graph.links[id] = link;
    }
  }
  return graph;
}

constexpr PropertyAddress Address(std::uint32_t selector, std::uint32_t scope) {
  return {selector, scope, kAudioObjectPropertyElementMaster};
}

constexpr std::array<PropertyAddress, 11> kAddresses{
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
  if (isString && ioSize == sizeof(PlatformStringRef)) {
    PlatformStringRef string;
    std::memcpy(&string, buffer.data(), sizeof string);
    if (string) PlatformStringRelease(string);
  }
}

void CheckDevices(const PipeWireGraph& graph, const std::vector<MappedAudioDevice>& devices) {
  std::size_t named = 0;
  for (const auto& [id, node] : graph.nodes) {
    const PipeWireNodeRole role = PipeWireNodeRoleOf(node);
    const bool device = role == PipeWireNodeRole::SourceDevice ||
                        role == PipeWireNodeRole::SinkDevice ||
                        role == PipeWireNodeRole::DuplexDevice;
    auto name = node.properties.find("node.name");
    if (device && name != node.properties.end() && !name->second.empty()) ++named;
  }
  Require(devices.size() == named, "not one device per named node of a device class");
  for (const MappedAudioDevice& device : devices) {
    Require(device.inputStreamCount <= 1 && device.outputStreamCount <= 1,
            "a device with more than one stream in a direction");
    Require(device.inputStreamCount + device.outputStreamCount >= 1, "a device without streams");
    if (device.inputStreamCount == 0) {
      Require(device.inputSources.empty(), "a sink with input sources");
    }
    if (device.selectedInputSource) {
      bool listed = false;
      for (const auto& source : device.inputSources) {
        listed = listed || source.name == *device.selectedInputSource;
      }
      Require(listed, "a selected input source that is not listed");
    }
  }
  // Running needs a flow: without links (or link groups), nothing runs.
  bool groups = false;
  for (const auto& [id, node] : graph.nodes) {
    groups = groups || node.properties.count("node.link-group") != 0;
  }
  if (graph.links.empty() && !groups) {
    for (const MappedAudioDevice& device : devices) {
      Require(!device.isRunning, "a device runs without any link");
    }
  }
}

void ReadEverything(const MappedAudioDeviceMirror& mirror, std::uint32_t salt) {
  std::vector<ObjectID> objects = mirror.deviceIDs();
  objects.push_back(kAudioObjectSystemObject);
  objects.push_back(salt);
  for (ObjectID object : objects) {
    for (const auto& address : kAddresses) {
      std::uint32_t reported = 0;
      if (mirror.getPropertyDataSize(object, address, &reported) != kNoErr) continue;
      Require(reported < (1u << 20), "an absurd data size");
      const std::uint32_t sourceID = salt % 5;
      Read(mirror, object, address, reported, sourceID);
      Read(mirror, object, address, salt % 41, sourceID);
    }
  }
}

}  // namespace
}  // namespace harkwell

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace harkwell;
  const json dump = json::parse(data, data + size, nullptr, false);
  if (!dump.is_array()) return 0;
  std::uint32_t salt = 0;
  for (std::size_t i = 0; i < size; ++i) salt = salt * 31 + data[i];

  const std::size_t liveStrings = PlatformStringLiveCount();
  {
    MappedAudioDeviceMirror mirror;
    // The whole graph, then a part of it (objects gone), then the whole again (objects back).
    const std::size_t stride = 2 + salt % 3;
    for (int round = 0; round < 3; ++round) {
      const PipeWireGraph graph =
          GraphOf(dump, [&](std::size_t position) { return round != 1 || position % stride != 0; });
      const auto devices = MapPipeWireGraph(graph);
      CheckDevices(graph, devices);
      mirror.update(devices);
      Require(mirror.deviceIDs().size() == devices.size(), "the mirror lost or made a device");
      ReadEverything(mirror, salt);
    }
  }
  Require(PlatformStringLiveCount() == liveStrings, "a string reference leaked");
  return 0;
}
