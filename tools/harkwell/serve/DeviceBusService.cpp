#include "tools/harkwell/serve/DeviceBusService.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

namespace harkwell::cli {
namespace {

constexpr std::string_view kDevicesPrefix = "/org/harkwell/Devices1/devices";

// The device ID at the end of "/org/harkwell/Devices1/devices/<ID>"; empty for any other path.
std::optional<ObjectID> DeviceIDFromPath(const char* path) {
  const std::string_view text(path);
  if (text.size() <= kDevicesPrefix.size() + 1 ||
      text.substr(0, kDevicesPrefix.size()) != kDevicesPrefix ||
      text[kDevicesPrefix.size()] != '/') {
    return std::nullopt;
  }
  const std::string_view digits = text.substr(kDevicesPrefix.size() + 1);
  ObjectID id = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), id);
  if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  return id;
}

std::string Text(const std::optional<std::string>& text) {
  return text.value_or("");
}

// The names and signatures of the device properties, in the record's order, then Consumers.
struct PropertyName {
  const char* name;
  const char* signature;
};
constexpr PropertyName kDeviceProperties[] = {
    {"DeviceID", "u"},        {"MediaType", "s"},         {"DeviceUID", "s"},
    {"ModelUID", "s"},        {"TransportType", "s"},     {"Name", "s"},
    {"InputSourceName", "s"}, {"InputChannelCount", "u"}, {"OutputChannelCount", "u"},
    {"IsConnected", "b"},     {"IsRunning", "b"},         {"UnsupportedReason", "s"},
    {"Consumers", "aa{sv}"}};

int AppendConsumers(sd_bus_message* message, const std::vector<MediaDeviceConsumer>& consumers);

int AppendTextEntry(sd_bus_message* message, const char* key,
                    const std::optional<std::string>& value) {
  if (!value) return 0;
  return sd_bus_message_append(message, "{sv}", key, "s", value->c_str());
}

int AppendConsumer(sd_bus_message* message, const MediaDeviceConsumer& consumer) {
  int status = sd_bus_message_open_container(message, 'a', "{sv}");
  if (status >= 0)
    status = sd_bus_message_append(message, "{sv}", "ProcessID", "i", consumer.processID);
  if (status >= 0) {
    status = sd_bus_message_append(message, "{sv}", "ProcessIDVerified", "b",
                                   static_cast<int>(consumer.isProcessIDVerified));
  }
  if (status >= 0) {
    status = sd_bus_message_append(message, "{sv}", "Kind", "s",
                                   std::string(caseName(consumer.kind)).c_str());
  }
  if (status >= 0) {
    status = sd_bus_message_append(message, "{sv}", "Sandbox", "s",
                                   std::string(caseName(consumer.sandbox)).c_str());
  }
  if (status >= 0) status = AppendTextEntry(message, "ExecutablePath", consumer.executablePath);
  if (status >= 0) status = AppendTextEntry(message, "ProcessName", consumer.processName);
  if (status >= 0) status = AppendTextEntry(message, "ApplicationName", consumer.applicationName);
  if (status >= 0) status = AppendTextEntry(message, "ApplicationID", consumer.applicationID);
  if (status >= 0) {
    status = AppendTextEntry(message, "SandboxApplicationID", consumer.sandboxApplicationID);
  }
  if (status >= 0 && !consumer.feeds.empty()) {
    status = sd_bus_message_open_container(message, 'e', "sv");
    if (status >= 0) status = sd_bus_message_append_basic(message, 's', "Feeds");
    if (status >= 0) status = sd_bus_message_open_container(message, 'v', "aa{sv}");
    if (status >= 0) status = AppendConsumers(message, consumer.feeds);
    if (status >= 0) status = sd_bus_message_close_container(message);
    if (status >= 0) status = sd_bus_message_close_container(message);
  }
  if (status >= 0) status = sd_bus_message_close_container(message);
  return status;
}

int AppendConsumers(sd_bus_message* message, const std::vector<MediaDeviceConsumer>& consumers) {
  int status = sd_bus_message_open_container(message, 'a', "a{sv}");
  for (const auto& consumer : consumers) {
    if (status >= 0) status = AppendConsumer(message, consumer);
  }
  if (status >= 0) status = sd_bus_message_close_container(message);
  return status;
}

// Appends the value of the property `name` (one of kDeviceProperties) of `entry`.
int AppendProperty(sd_bus_message* message, std::string_view name,
                   const DeviceBusService::Entry& entry) {
  const MediaDevice& device = entry.device;
  const auto text = [message](const std::string& value) {
    return sd_bus_message_append_basic(message, 's', value.c_str());
  };
  const auto unsignedNumber = [message](std::uint32_t value) {
    return sd_bus_message_append_basic(message, 'u', &value);
  };
  const auto boolean = [message](bool value) {
    const int number = value ? 1 : 0;
    return sd_bus_message_append_basic(message, 'b', &number);
  };
  if (name == "DeviceID") return unsignedNumber(device.deviceID);
  if (name == "MediaType") return text(std::string(caseName(device.mediaType)));
  if (name == "DeviceUID") return text(device.deviceUID);
  if (name == "ModelUID") return text(Text(device.modelUID));
  if (name == "TransportType") return text(std::string(caseName(device.transportType)));
  if (name == "Name") return text(device.name);
  if (name == "InputSourceName") return text(Text(device.inputSourceName));
  if (name == "InputChannelCount") return unsignedNumber(device.inputChannelCount);
  if (name == "OutputChannelCount") return unsignedNumber(device.outputChannelCount);
  if (name == "IsConnected") return boolean(device.isConnected);
  if (name == "IsRunning") return boolean(device.isRunning);
  if (name == "UnsupportedReason") {
    return text(device.unsupportedReason ? std::string(caseName(*device.unsupportedReason)) : "");
  }
  if (name == "Consumers") return AppendConsumers(message, entry.consumers);
  return -EINVAL;
}

// Every property of `entry` as a{sv}.
int AppendAllProperties(sd_bus_message* message, const DeviceBusService::Entry& entry) {
  int status = sd_bus_message_open_container(message, 'a', "{sv}");
  for (const auto& property : kDeviceProperties) {
    if (status >= 0) status = sd_bus_message_open_container(message, 'e', "sv");
    if (status >= 0) status = sd_bus_message_append_basic(message, 's', property.name);
    if (status >= 0) status = sd_bus_message_open_container(message, 'v', property.signature);
    if (status >= 0) status = AppendProperty(message, property.name, entry);
    if (status >= 0) status = sd_bus_message_close_container(message);
    if (status >= 0) status = sd_bus_message_close_container(message);
  }
  if (status >= 0) status = sd_bus_message_close_container(message);
  return status;
}

int ReadDeviceProperty(sd_bus*, const char* path, const char*, const char* property,
                       sd_bus_message* reply, void* userdata, sd_bus_error* error) {
  const auto* service = static_cast<const DeviceBusService*>(userdata);
  const auto id = DeviceIDFromPath(path);
  const auto entry = id ? service->entry(*id) : std::nullopt;
  if (!entry) {
    return sd_bus_error_setf(error, SD_BUS_ERROR_UNKNOWN_OBJECT, "No device at %s", path);
  }
  return AppendProperty(reply, property, *entry);
}

int FindDevice(sd_bus*, const char* path, const char*, void* userdata, void** found,
               sd_bus_error*) {
  const auto* service = static_cast<const DeviceBusService*>(userdata);
  const auto id = DeviceIDFromPath(path);
  if (!id || !service->entry(*id)) return 0;
  *found = userdata;
  return 1;
}

int EnumerateDevices(sd_bus*, const char*, void* userdata, char*** nodes, sd_bus_error*) {
  const auto* service = static_cast<const DeviceBusService*>(userdata);
  const auto ids = service->deviceIDs();
  auto** list = static_cast<char**>(std::calloc(ids.size() + 1, sizeof(char*)));
  if (list == nullptr) return -ENOMEM;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    list[i] = strdup(DeviceObjectPath(ids[i]).c_str());
    if (list[i] == nullptr) {
      for (std::size_t j = 0; j < i; ++j) std::free(list[j]);
      std::free(list);
      return -ENOMEM;
    }
  }
  *nodes = list;
  return 1;
}

int GetDevices(sd_bus_message* call, void* userdata, sd_bus_error*) {
  const auto* service = static_cast<const DeviceBusService*>(userdata);
  sd_bus_message* reply = nullptr;
  int status = sd_bus_message_new_method_return(call, &reply);
  if (status >= 0) status = sd_bus_message_open_container(reply, 'a', "o");
  for (const ObjectID id : service->deviceIDs()) {
    if (status >= 0) status = sd_bus_message_append_basic(reply, 'o', DeviceObjectPath(id).c_str());
  }
  if (status >= 0) status = sd_bus_message_close_container(reply);
  if (status >= 0) status = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return status;
}

const sd_bus_vtable kDeviceVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("DeviceID", "u", ReadDeviceProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("MediaType", "s", ReadDeviceProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("DeviceUID", "s", ReadDeviceProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("ModelUID", "s", ReadDeviceProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("TransportType", "s", ReadDeviceProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Name", "s", ReadDeviceProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("InputSourceName", "s", ReadDeviceProperty, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("InputChannelCount", "u", ReadDeviceProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("OutputChannelCount", "u", ReadDeviceProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("IsConnected", "b", ReadDeviceProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("IsRunning", "b", ReadDeviceProperty, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("UnsupportedReason", "s", ReadDeviceProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Consumers", "aa{sv}", ReadDeviceProperty, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_VTABLE_END};

const sd_bus_vtable kRootVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("GetDevices", "", SD_BUS_PARAM(), "ao", SD_BUS_PARAM(devices),
                             GetDevices, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_NAMES("DeviceEvent", "soa{sv}",
                             SD_BUS_PARAM(event) SD_BUS_PARAM(device) SD_BUS_PARAM(properties), 0),
    SD_BUS_SIGNAL_WITH_NAMES("UpdatingDevices", "b", SD_BUS_PARAM(finished), 0), SD_BUS_VTABLE_END};

// The DeviceEvent signal for `event` on `entry`.
int EmitDeviceEvent(sd_bus* bus, MediaDeviceEvent event, const DeviceBusService::Entry& entry) {
  sd_bus_message* signal = nullptr;
  int status =
      sd_bus_message_new_signal(bus, &signal, kDevicesRootPath, kDevicesInterface, "DeviceEvent");
  if (status >= 0) {
    status = sd_bus_message_append(signal, "so", std::string(caseName(event)).c_str(),
                                   DeviceObjectPath(entry.device.deviceID).c_str());
  }
  if (status >= 0) status = AppendAllProperties(signal, entry);
  if (status >= 0) status = sd_bus_send(bus, signal, nullptr);
  sd_bus_message_unref(signal);
  return status;
}

}  // namespace

std::string DeviceObjectPath(ObjectID deviceID) {
  return std::string(kDevicesPrefix) + "/" + std::to_string(deviceID);
}

std::unique_ptr<DeviceBusService> DeviceBusService::create(ReservationBusConnection& connection,
                                                           std::string* why) {
  std::unique_ptr<DeviceBusService> service(new DeviceBusService(connection));
  const int status = connection.withBus([&](sd_bus* bus) {
    auto& slots = service->slots_;
    const std::string prefix(kDevicesPrefix);
    void* userdata = service.get();
    sd_bus_slot* slot = nullptr;
    int result = sd_bus_add_object_manager(bus, &slot, kDevicesRootPath);
    if (result >= 0) slots.push_back(slot);
    if (result >= 0) {
      result = sd_bus_add_object_vtable(bus, &slot, kDevicesRootPath, kDevicesInterface,
                                        kRootVtable, userdata);
    }
    if (result >= 0) slots.push_back(slot);
    if (result >= 0) {
      result = sd_bus_add_fallback_vtable(bus, &slot, prefix.c_str(), kDeviceInterface,
                                          kDeviceVtable, FindDevice, userdata);
    }
    if (result >= 0) slots.push_back(slot);
    if (result >= 0) {
      result = sd_bus_add_node_enumerator(bus, &slot, prefix.c_str(), EnumerateDevices, userdata);
    }
    if (result >= 0) slots.push_back(slot);
    return result;
  });
  if (status < 0) {
    *why = std::string("cannot export the devices: ") + std::strerror(-status);
    return nullptr;
  }
  return service;
}

DeviceBusService::~DeviceBusService() {
  connection_.withBus([this](sd_bus*) {
    for (auto* slot : slots_) sd_bus_slot_unref(slot);
    return 0;
  });
}

std::optional<DeviceBusService::Entry> DeviceBusService::entry(ObjectID deviceID) const {
  MutexLock lock(mutex_);
  const auto found = devices_.find(deviceID);
  if (found == devices_.end()) return std::nullopt;
  return found->second;
}

std::vector<ObjectID> DeviceBusService::deviceIDs() const {
  MutexLock lock(mutex_);
  std::vector<ObjectID> ids;
  for (const auto& [id, entry] : devices_) ids.push_back(id);
  return ids;
}

void DeviceBusService::noteUpdating(bool finished) {
  connection_.withBus([finished](sd_bus* bus) {
    return sd_bus_emit_signal(bus, kDevicesRootPath, kDevicesInterface, "UpdatingDevices", "b",
                              static_cast<int>(finished));
  });
}

void DeviceBusService::noteEvent(MediaDeviceEvent event, const MediaDevice& device) {
  const std::string path = DeviceObjectPath(device.deviceID);
  Entry entry{.device = device, .consumers = {}};
  {
    MutexLock lock(mutex_);
    if (event == MediaDeviceEvent::Disconnected) {
      devices_.erase(device.deviceID);
    } else {
      auto& stored = devices_[device.deviceID];
      stored.device = device;
      entry = stored;
    }
  }
  connection_.withBus([&](sd_bus* bus) {
    switch (event) {
      case MediaDeviceEvent::InitialDiscovery:
      case MediaDeviceEvent::Connected:
        sd_bus_emit_interfaces_added(bus, path.c_str(), kDeviceInterface, nullptr);
        break;
      case MediaDeviceEvent::ChangedRunning:
        sd_bus_emit_properties_changed(bus, path.c_str(), kDeviceInterface, "IsRunning", nullptr);
        break;
      case MediaDeviceEvent::ChangedInputSource:
        sd_bus_emit_properties_changed(bus, path.c_str(), kDeviceInterface, "InputSourceName",
                                       nullptr);
        break;
      case MediaDeviceEvent::Disconnected:
        break;
    }
    const int status = EmitDeviceEvent(bus, event, entry);
    if (event == MediaDeviceEvent::Disconnected) {
      sd_bus_emit_interfaces_removed(bus, path.c_str(), kDeviceInterface, nullptr);
    }
    return status;
  });
}

void DeviceBusService::noteConsumers(const MediaDevice& device,
                                     const std::vector<MediaDeviceConsumer>& consumers) {
  {
    MutexLock lock(mutex_);
    const auto found = devices_.find(device.deviceID);
    if (found == devices_.end()) return;
    found->second.device = device;
    found->second.consumers = consumers;
  }
  const std::string path = DeviceObjectPath(device.deviceID);
  connection_.withBus([&](sd_bus* bus) {
    return sd_bus_emit_properties_changed(bus, path.c_str(), kDeviceInterface, "Consumers",
                                          nullptr);
  });
}

}  // namespace harkwell::cli
