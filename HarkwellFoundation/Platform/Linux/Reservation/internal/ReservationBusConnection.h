// One private connection to a D-Bus message bus, made with sd-bus for the device reservation code,
// with a thread of its own that answers the calls other programs make to us (a request to release
// a card we hold, a read of our properties) for as long as the connection lives.
//
// sd-bus objects are not thread-safe, so every use of the bus goes through withBus(), which holds
// the connection's lock; the serving thread takes the same lock to dispatch incoming messages and
// never holds it while it waits for the socket. Every call made on the bus is bounded by the call
// timeout given to connect(): a bus that stops answering makes calls fail, never hang.
//
// The connection is never the process's default bus (sd_bus_default_user() is per thread and
// shared with whatever else in the process uses sd-bus), so nothing here meets another user of
// sd-bus in the same program.
//
// Thread-safety: every member may be called from any thread. Callbacks registered on the bus
// (object vtables) run on the serving thread with the lock held: they may use the bus they are
// given but must not call withBus() nor run client code.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "HarkwellFoundation/Platform/Mutex.h"

struct sd_bus;

namespace harkwell {

// Where the session bus is: DBUS_SESSION_BUS_ADDRESS, else $XDG_RUNTIME_DIR/bus when that socket
// exists; empty, with the reason in `why`, when there is none.
std::optional<std::string> SessionBusAddress(std::string* why);

class ReservationBusConnection {
 public:
  // Connects to `address` (a D-Bus address, "unix:path=/run/user/1000/bus") and waits at most
  // `timeout` until the bus has accepted us (authentication and Hello). Null when it could not,
  // with the reason in `why`.
  static std::unique_ptr<ReservationBusConnection> connect(const std::string& address,
                                                           std::chrono::milliseconds timeout,
                                                           std::string* why);

  // Stops the serving thread and closes the connection; the bus drops every name we own.
  ~ReservationBusConnection();
  ReservationBusConnection(const ReservationBusConnection&) = delete;
  ReservationBusConnection& operator=(const ReservationBusConnection&) = delete;

  // Runs `work` with the bus under the connection's lock and returns its result. Calls made inside
  // use the connection's bounded call timeout. Whatever the calls leave queued is dispatched by the
  // serving thread afterwards.
  template <class Work>
  auto withBus(Work&& work) {
    struct WakeAfter {
      ReservationBusConnection* connection;
      ~WakeAfter() { connection->wakeServingThread(); }
    } wake{this};
    MutexLock lock(mutex_);
    return work(bus_);
  }

  // False once the bus has closed the connection (the daemon went away); a closed connection
  // stays closed, and every call on it fails.
  bool isOpen();

  // Called once, on the serving thread and with no lock held, when the bus closes the connection
  // (not when the connection is destroyed). It must not destroy the connection.
  void setClosedHandler(std::function<void()> handler);

 private:
  ReservationBusConnection(sd_bus* bus, int wakeFd);
  void serve();
  void wakeServingThread();

  Mutex mutex_;
  sd_bus* bus_ HARKWELL_GUARDED_BY(mutex_);
  bool stopping_ HARKWELL_GUARDED_BY(mutex_) = false;
  std::function<void()> closedHandler_ HARKWELL_GUARDED_BY(mutex_);
  const int wakeFd_;  // an eventfd that interrupts the serving thread's wait
  std::thread thread_;
};

}  // namespace harkwell
