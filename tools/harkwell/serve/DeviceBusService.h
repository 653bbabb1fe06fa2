// The devices on the session bus, as `harkwell serve` offers them. The names are versioned: a
// change that breaks clients gets new names ending in 2, and these stay as they are.
//
//   bus name    org.harkwell.Devices1
//   /org/harkwell/Devices1                 org.freedesktop.DBus.ObjectManager, and
//                                          org.harkwell.Devices1: GetDevices() -> ao; signals
//                                          DeviceEvent(s event, o device, a{sv} properties) for
//                                          every event and UpdatingDevices(b finished) around
//                                          each batch
//   /org/harkwell/Devices1/devices/<ID>    org.harkwell.Devices1.Device, one object per connected
//                                          device, with the record's twelve fields as properties
//                                          (DeviceID, MediaType, DeviceUID, ModelUID,
//                                          TransportType, Name, InputSourceName,
//                                          InputChannelCount, OutputChannelCount, IsConnected,
//                                          IsRunning, UnsupportedReason) and Consumers (aa{sv})
//
// Enumerations are their case names; an absent text is the empty string. IsRunning,
// InputSourceName and Consumers announce their changes with
// org.freedesktop.DBus.Properties.PropertiesChanged; the others never change while the object
// exists. A device appearing or going is also announced with the object manager's
// InterfacesAdded and InterfacesRemoved. The same interfaces are described in
// org.harkwell.Devices1.xml, installed under share/dbus-1/interfaces.
//
// A consumer is a dictionary with ProcessID (i), ProcessIDVerified (b), Kind (s), Sandbox (s),
// the texts ExecutablePath, ProcessName, ApplicationName, ApplicationID and SandboxApplicationID
// when known, and for a filter or media server Feeds (aa{sv}, the consumers at the end of its
// chains).
//
// Threads: the note...() calls come from the controller's queue, one at a time; the connection's
// serving thread answers other programs' calls from the state they leave (under a lock of its own,
// taken inside the connection's). Sending never waits for the bus to read.
// Lifetime: made and destroyed while its connection is alive; destroy it only once the
// controller's handlers that call it are cleared and its queue has drained. Destroying it removes
// the objects from the bus.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Platform/Linux/Reservation/internal/ReservationBusConnection.h"
#include "HarkwellFoundation/Platform/Mutex.h"
#include "HarkwellFoundation/Platform/PropertyAddress.h"

struct sd_bus_slot;

namespace harkwell::cli {

constexpr const char* kDevicesBusName = "org.harkwell.Devices1";
constexpr const char* kDevicesRootPath = "/org/harkwell/Devices1";
constexpr const char* kDevicesInterface = "org.harkwell.Devices1";
constexpr const char* kDeviceInterface = "org.harkwell.Devices1.Device";

// "/org/harkwell/Devices1/devices/65537"
std::string DeviceObjectPath(ObjectID deviceID);

class DeviceBusService {
 public:
  // Exports the objects on `connection` (nothing is there yet, and the name is not requested).
  // Empty with the reason in `why` when sd-bus refused.
  static std::unique_ptr<DeviceBusService> create(ReservationBusConnection& connection,
                                                  std::string* why);
  ~DeviceBusService();
  DeviceBusService(const DeviceBusService&) = delete;
  DeviceBusService& operator=(const DeviceBusService&) = delete;

  void noteUpdating(bool finished);
  void noteEvent(MediaDeviceEvent event, const MediaDevice& device);
  void noteConsumers(const MediaDevice& device, const std::vector<MediaDeviceConsumer>& consumers);

  // For the bus callbacks (serving thread, connection lock held).
  struct Entry {
    MediaDevice device;
    std::vector<MediaDeviceConsumer> consumers;
  };
  std::optional<Entry> entry(ObjectID deviceID) const;
  std::vector<ObjectID> deviceIDs() const;

 private:
  explicit DeviceBusService(ReservationBusConnection& connection) : connection_(connection) {}

  ReservationBusConnection& connection_;
  std::vector<sd_bus_slot*> slots_;  // written only while exporting and when destroyed

  mutable Mutex mutex_;  // a leaf: taken inside bus callbacks, under the connection's lock
  std::map<ObjectID, Entry> devices_ HARKWELL_GUARDED_BY(mutex_);
};

}  // namespace harkwell::cli
