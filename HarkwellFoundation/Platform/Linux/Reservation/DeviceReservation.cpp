#include "HarkwellFoundation/Platform/Linux/Reservation/DeviceReservation.h"

#include <errno.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/Reservation/internal/ReservationBusConnection.h"
#include "HarkwellFoundation/Platform/SystemLog.h"

namespace harkwell {
namespace {

constexpr const char* kServicePrefix = "org.freedesktop.ReserveDevice1.";
constexpr const char* kObjectPrefix = "/org/freedesktop/ReserveDevice1/";
constexpr const char* kInterface = "org.freedesktop.ReserveDevice1";
constexpr const char* kNoOwnerError = "org.freedesktop.DBus.Error.NameHasNoOwner";
constexpr const char* kServiceUnknownError = "org.freedesktop.DBus.Error.ServiceUnknown";

// An sd_bus_error that frees itself.
struct BusError {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  BusError() = default;
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;
  ~BusError() { sd_bus_error_free(&error); }
  bool is(const char* name) const { return sd_bus_error_has_name(&error, name) > 0; }
};

// An sd_bus_message reference that drops itself.
struct BusMessage {
  sd_bus_message* message = nullptr;
  BusMessage() = default;
  BusMessage(const BusMessage&) = delete;
  BusMessage& operator=(const BusMessage&) = delete;
  ~BusMessage() { sd_bus_message_unref(message); }
};

std::string ServiceName(std::uint32_t card) {
  return kServicePrefix + DeviceReservation::DeviceName(card);
}

std::string ObjectPath(std::uint32_t card) {
  return kObjectPrefix + DeviceReservation::DeviceName(card);
}

// The pid of the process owning `name`, as the bus knows it; -1 when nobody owns it.
OSStatus BusOwnerPID(sd_bus* bus, const std::string& name, std::int32_t* pid) {
  BusError error;
  BusMessage reply;
  const int status = sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                        "org.freedesktop.DBus", "GetConnectionUnixProcessID",
                                        &error.error, &reply.message, "s", name.c_str());
  if (status < 0) {
    if (error.is(kNoOwnerError)) {
      *pid = -1;
      return kNoErr;
    }
    return kAudioHardwareUnspecifiedError;
  }
  std::uint32_t value = 0;
  if (sd_bus_message_read(reply.message, "u", &value) < 0) return kAudioHardwareUnspecifiedError;
  *pid = static_cast<std::int32_t>(value);
  return kNoErr;
}

std::string StringProperty(sd_bus* bus, std::uint32_t card, const char* property) {
  BusError error;
  char* value = nullptr;
  if (sd_bus_get_property_string(bus, ServiceName(card).c_str(), ObjectPath(card).c_str(),
                                 kInterface, property, &error.error, &value) < 0) {
    return {};
  }
  std::string text(value ? value : "");
  std::free(value);
  return text;
}

std::optional<std::int32_t> PriorityProperty(sd_bus* bus, std::uint32_t card) {
  BusError error;
  std::int32_t value = 0;
  if (sd_bus_get_property_trivial(bus, ServiceName(card).c_str(), ObjectPath(card).c_str(),
                                  kInterface, "Priority", &error.error, 'i', &value) < 0) {
    return std::nullopt;
  }
  return value;
}

// Asks the owner of the card's name to let it go. True only for its explicit yes: an error, no
// answer in time or an owner without the method count as a refusal, as the protocol says.
// `vanished` tells that nobody owned the name any more by the time the call arrived.
bool AskOwnerToRelease(sd_bus* bus, std::uint32_t card, std::int32_t priority, bool* vanished) {
  BusError error;
  BusMessage reply;
  *vanished = false;
  if (sd_bus_call_method(bus, ServiceName(card).c_str(), ObjectPath(card).c_str(), kInterface,
                         "RequestRelease", &error.error, &reply.message, "i", priority) < 0) {
    *vanished = error.is(kServiceUnknownError) || error.is(kNoOwnerError);
    return false;
  }
  int agreed = 0;
  return sd_bus_message_read(reply.message, "b", &agreed) >= 0 && agreed;
}

std::string DefaultApplicationName() {
  return program_invocation_short_name && *program_invocation_short_name
             ? program_invocation_short_name
             : "HarkwellFoundation";
}

}  // namespace

// A card we hold: what we tell others about ourselves, and the object that answers them. Made
// and destroyed under the connection's lock, so the serving thread never sees it half-made.
struct DeviceReservation::HeldCard {
  DeviceReservation* owner = nullptr;
  std::uint32_t card = 0;
  std::int32_t priority = 0;
  std::string applicationName;
  std::string applicationDeviceName;
  sd_bus_slot* object = nullptr;

  // On the serving thread: another program wants the card. We keep it (see the header).
  static int requestRelease(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto* held = static_cast<HeldCard*>(userdata);
    std::int32_t priority = 0;
    if (sd_bus_message_read(message, "i", &priority) < 0) return -EINVAL;
    ReleaseRequest request{held->card, priority, -1};
    if (const char* sender = sd_bus_message_get_sender(message)) {
      std::int32_t pid = -1;
      if (BusOwnerPID(sd_bus_message_get_bus(message), sender, &pid) == kNoErr) request.pid = pid;
    }
    held->owner->reportReleaseRequest(request);
    return sd_bus_reply_method_return(message, "b", 0);
  }

  static int readPriority(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                          void* userdata, sd_bus_error*) {
    return sd_bus_message_append(reply, "i", static_cast<HeldCard*>(userdata)->priority);
  }
  static int readApplicationName(sd_bus*, const char*, const char*, const char*,
                                 sd_bus_message* reply, void* userdata, sd_bus_error*) {
    return sd_bus_message_append(reply, "s",
                                 static_cast<HeldCard*>(userdata)->applicationName.c_str());
  }
  static int readApplicationDeviceName(sd_bus*, const char*, const char*, const char*,
                                       sd_bus_message* reply, void* userdata, sd_bus_error*) {
    return sd_bus_message_append(reply, "s",
                                 static_cast<HeldCard*>(userdata)->applicationDeviceName.c_str());
  }

  static const sd_bus_vtable* vtable() {
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("RequestRelease", "i", "b", &HeldCard::requestRelease,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_PROPERTY("Priority", "i", &HeldCard::readPriority, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("ApplicationName", "s", &HeldCard::readApplicationName, 0,
                        SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("ApplicationDeviceName", "s", &HeldCard::readApplicationDeviceName, 0,
                        SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_VTABLE_END};
    return table;
  }
};

std::shared_ptr<DeviceReservation> DeviceReservation::create(Options options) {
  if (options.applicationName.empty()) options.applicationName = DefaultApplicationName();
  return std::shared_ptr<DeviceReservation>(new DeviceReservation(std::move(options)));
}

DeviceReservation::DeviceReservation(Options options) : options_(std::move(options)) {}

DeviceReservation::~DeviceReservation() {
  MutexLock lock(mutex_);
  dropConnectionLocked();
}

std::string DeviceReservation::DeviceName(std::uint32_t card) {
  return "Audio" + std::to_string(card);
}

void DeviceReservation::dropConnectionLocked() {
  if (connection_) {
    connection_->withBus([&](sd_bus*) {
      mutex_.assertHeld();  // withBus runs this before it returns
      for (auto& [card, held] : held_) held->object = sd_bus_slot_unref(held->object);
    });
  }
  // Closing the connection gives every name back at once.
  connection_.reset();
  held_.clear();
}

ReservationBusConnection* DeviceReservation::connectionLocked(std::string* log) {
  if (connection_ && connection_->isOpen()) return connection_.get();
  // The bus went away: our names went with it.
  dropConnectionLocked();
  std::string why;
  std::optional<std::string> address = options_.busAddress;
  if (!address) address = SessionBusAddress(&why);
  if (address)
    connection_ = ReservationBusConnection::connect(*address, options_.callTimeout, &why);
  if (connection_) {
    reportedNoBus_ = false;
    return connection_.get();
  }
  if (!reportedNoBus_) {
    reportedNoBus_ = true;
    *log = "Exclusive access: no session bus (" + why +
           "); every sound card reports nobody holding it";
  }
  return nullptr;
}

OSStatus DeviceReservation::ownerPID(std::uint32_t card, std::int32_t* pid) {
  std::string log;
  OSStatus status = kNoErr;
  {
    MutexLock lock(mutex_);
    ReservationBusConnection* connection = connectionLocked(&log);
    if (!connection) {
      *pid = -1;
    } else {
      status = connection->withBus(
          [&](sd_bus* bus) { return BusOwnerPID(bus, ServiceName(card), pid); });
    }
  }
  if (!log.empty()) SystemLog(log);
  return status;
}

std::optional<DeviceReservation::Owner> DeviceReservation::owner(std::uint32_t card) {
  std::string log;
  std::optional<Owner> found;
  {
    MutexLock lock(mutex_);
    if (ReservationBusConnection* connection = connectionLocked(&log)) {
      found = connection->withBus([&](sd_bus* bus) -> std::optional<Owner> {
        Owner owner;
        if (BusOwnerPID(bus, ServiceName(card), &owner.pid) != kNoErr || owner.pid == -1) {
          return std::nullopt;
        }
        owner.applicationName = StringProperty(bus, card, "ApplicationName");
        owner.applicationDeviceName = StringProperty(bus, card, "ApplicationDeviceName");
        owner.priority = PriorityProperty(bus, card);
        return owner;
      });
    }
  }
  if (!log.empty()) SystemLog(log);
  return found;
}

OSStatus DeviceReservation::take(std::uint32_t card, const std::string& applicationDeviceName) {
  std::string log;
  OSStatus status = kNoErr;
  {
    MutexLock lock(mutex_);
    ReservationBusConnection* connection = connectionLocked(&log);
    if (!connection) {
      status = kAudioHardwareNotRunningError;
    } else if (held_.count(card) == 0) {
      auto held = std::make_unique<HeldCard>();
      held->owner = this;
      held->card = card;
      held->priority = options_.priority;
      held->applicationName = options_.applicationName;
      held->applicationDeviceName = applicationDeviceName;
      status = connection->withBus([&](sd_bus* bus) -> OSStatus {
        const std::string name = ServiceName(card);
        // Never queued, never replaceable: we hold the card until we give it back.
        int requested = sd_bus_request_name(bus, name.c_str(), 0);
        if (requested == -EEXIST) {
          bool vanished = false;
          const bool agreed = AskOwnerToRelease(bus, card, options_.priority, &vanished);
          if (agreed) {
            requested = sd_bus_request_name(bus, name.c_str(), SD_BUS_NAME_REPLACE_EXISTING);
          } else if (vanished) {
            requested = sd_bus_request_name(bus, name.c_str(), 0);
          } else {
            return sd_bus_is_open(bus) > 0 ? kAudioDevicePermissionsError
                                           : kAudioHardwareUnspecifiedError;
          }
        }
        if (requested == -EEXIST) return kAudioDevicePermissionsError;
        if (requested < 0 && requested != -EALREADY) {
          // A request that timed out may still be granted once the bus catches up; a release
          // queued behind it makes sure the name does not end up ours with nobody answering.
          sd_bus_release_name_async(bus, nullptr, name.c_str(), nullptr, nullptr);
          return kAudioHardwareUnspecifiedError;
        }
        if (sd_bus_add_object_vtable(bus, &held->object, ObjectPath(card).c_str(), kInterface,
                                     HeldCard::vtable(), held.get()) < 0) {
          sd_bus_release_name(bus, name.c_str());
          return kAudioHardwareUnspecifiedError;
        }
        return kNoErr;
      });
      if (status == kNoErr) held_.emplace(card, std::move(held));
    }
  }
  if (!log.empty()) SystemLog(log);
  return status;
}

OSStatus DeviceReservation::giveBack(std::uint32_t card) {
  MutexLock lock(mutex_);
  auto found = held_.find(card);
  if (found == held_.end()) return kNoErr;
  if (!connection_ || !connection_->isOpen()) {
    // The bus is gone, and the name with it.
    dropConnectionLocked();
    return kNoErr;
  }
  const OSStatus status = connection_->withBus([&](sd_bus* bus) -> OSStatus {
    found->second->object = sd_bus_slot_unref(found->second->object);
    const int released = sd_bus_release_name(bus, ServiceName(card).c_str());
    // A failed release leaves us holding a name no object answers for; closing the connection is
    // the one sure way to give it back.
    return released < 0 ? kAudioHardwareUnspecifiedError : kNoErr;
  });
  held_.erase(found);
  if (status != kNoErr) dropConnectionLocked();
  return kNoErr;
}

bool DeviceReservation::holds(std::uint32_t card) {
  MutexLock lock(mutex_);
  return held_.count(card) != 0 && connection_ && connection_->isOpen();
}

void DeviceReservation::setReleaseRequestHandler(std::shared_ptr<DispatchQueue> queue,
                                                 ReleaseRequestHandler handler) {
  MutexLock lock(handlerMutex_);
  handlerQueue_ = handler ? std::move(queue) : nullptr;
  handler_ = std::move(handler);
}

void DeviceReservation::reportReleaseRequest(const ReleaseRequest& request) {
  std::shared_ptr<DispatchQueue> queue;
  ReleaseRequestHandler handler;
  {
    MutexLock lock(handlerMutex_);
    queue = handlerQueue_;
    handler = handler_;
  }
  if (queue && handler) queue->async([handler, request] { handler(request); });
}

}  // namespace harkwell
