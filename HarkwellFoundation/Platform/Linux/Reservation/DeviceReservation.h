// Exclusive access to sound cards on Linux: the device reservation protocol on the session bus,
// which PulseAudio, PipeWire's session manager and JACK honour. A card's reservation is the bus
// name "org.freedesktop.ReserveDevice1.Audio<card>"; the program that owns the name holds the card.
// Its object "/org/freedesktop/ReserveDevice1/Audio<card>" offers, in the interface
// "org.freedesktop.ReserveDevice1", RequestRelease(i priority) -> b and the properties Priority,
// ApplicationName and ApplicationDeviceName.
//
// Reading: the owner's process is the bus's own answer (GetConnectionUnixProcessID on the name),
// never a value the owner claims about itself: -1 when nobody owns the name, our own pid when we
// do. Taking: ask the bus for the name without queueing; when another program owns it, call its
// RequestRelease with our priority and, when it agrees, take the name over (it must have let it be
// replaced, as the protocol asks). An owner that refuses, does not answer in time, or does not let
// the name go keeps the card. Giving back releases the name.
//
// While we hold a card we answer the protocol ourselves: we hold with priority INT32_MAX (unless
// Options say otherwise), do not let the name be replaced, and answer false to every
// RequestRelease: a hold that another program could take away would not be exclusive. Each request
// is reported to the release-request handler, with the asking program's pid.
//
// Without a session bus (no DBUS_SESSION_BUS_ADDRESS and no $XDG_RUNTIME_DIR/bus, a socket that
// refuses, a bus that does not answer within the call timeout) nothing is an error: every card
// reports nobody holding it, and one log line says why. Taking a card then fails. The connection
// is made on first use and made again after the bus went away.
//
// Threads and waits: every member may be called from any thread; each call waits at most the call
// timeout for each bus call it makes. The bus connection has a thread of its own that answers
// other programs' calls while we hold cards. The release-request handler runs on the queue given
// with it, never on the bus thread nor with a lock held. Log lines are written on the calling
// thread, with no lock held.
//
// Lifetime: destroying the object gives back every card it holds (by closing the connection).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/PropertyAddress.h"

namespace harkwell {

class ReservationBusConnection;

class DeviceReservation {
 public:
  struct Options {
    // A D-Bus address; absent: the session bus (DBUS_SESSION_BUS_ADDRESS, else
    // unix:path=$XDG_RUNTIME_DIR/bus when that socket exists).
    std::optional<std::string> busAddress;
    // The longest wait for any one bus call, connecting included.
    std::chrono::milliseconds callTimeout{1000};
    // What other programs read as our ApplicationName; empty: this program's name.
    std::string applicationName;
    // The priority we ask with and hold with.
    std::int32_t priority = INT32_MAX;
  };

  // Who owns a card's reservation. The pid comes from the bus; the rest is what the owner says
  // about itself (empty when it does not say).
  struct Owner {
    std::int32_t pid = -1;
    std::string applicationName;
    std::string applicationDeviceName;
    std::optional<std::int32_t> priority;
  };

  // Another program asked for a card we hold; we refused.
  struct ReleaseRequest {
    std::uint32_t card = 0;
    std::int32_t priority = 0;
    std::int32_t pid = -1;  // the asking program, -1 when the bus would not tell
  };
  using ReleaseRequestHandler = std::function<void(const ReleaseRequest&)>;

  static std::shared_ptr<DeviceReservation> create(Options options);
  static std::shared_ptr<DeviceReservation> create() { return create(Options()); }
  ~DeviceReservation();
  DeviceReservation(const DeviceReservation&) = delete;
  DeviceReservation& operator=(const DeviceReservation&) = delete;

  // "Audio7" for card 7: the part of the bus name and object path that names the card.
  static std::string DeviceName(std::uint32_t card);

  // The pid of the process owning the card's reservation into `pid`: -1 when nobody does or there
  // is no session bus, getpid() when we do. kAudioHardwareUnspecifiedError when the bus did not
  // answer in time or failed.
  OSStatus ownerPID(std::uint32_t card, std::int32_t* pid);
  // The owner with what it says about itself; absent when nobody owns the card, there is no
  // session bus or the bus failed.
  std::optional<Owner> owner(std::uint32_t card);

  // Takes the card; `applicationDeviceName` is what others read as our ApplicationDeviceName.
  // kNoErr once we hold it (also when we held it already); kAudioDevicePermissionsError when its
  // owner keeps it; kAudioHardwareNotRunningError without a session bus;
  // kAudioHardwareUnspecifiedError when the bus failed or did not answer in time.
  OSStatus take(std::uint32_t card, const std::string& applicationDeviceName);
  // Gives the card back. kNoErr when we no longer hold it (also when we never did).
  OSStatus giveBack(std::uint32_t card);
  // Whether we hold the card, as far as we know (the bus may have gone since).
  bool holds(std::uint32_t card);

  // Installs the handler for release requests (an empty one removes it). It runs on `queue`.
  void setReleaseRequestHandler(std::shared_ptr<DispatchQueue> queue,
                                ReleaseRequestHandler handler);

 private:
  struct HeldCard;
  explicit DeviceReservation(Options options);

  // The connection, made (or made again) when needed; null without a usable bus. Lines to log
  // are appended to `log`, for the caller to write once its locks are released.
  ReservationBusConnection* connectionLocked(std::string* log);
  void dropConnectionLocked();
  void reportReleaseRequest(const ReleaseRequest& request);

  const Options options_;
  std::mutex mutex_;  // serialises connecting and the changes of held cards
  std::unique_ptr<ReservationBusConnection> connection_;     // guarded by mutex_
  std::map<std::uint32_t, std::unique_ptr<HeldCard>> held_;  // guarded by mutex_
  bool reportedNoBus_ = false;  // guarded by mutex_; reset once a connection works

  std::mutex handlerMutex_;                      // a leaf: never held while anything else runs
  std::shared_ptr<DispatchQueue> handlerQueue_;  // guarded by handlerMutex_
  ReleaseRequestHandler handler_;                // guarded by handlerMutex_
};

}  // namespace harkwell
