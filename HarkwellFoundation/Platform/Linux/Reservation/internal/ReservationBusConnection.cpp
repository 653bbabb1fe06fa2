#include "HarkwellFoundation/Platform/Linux/Reservation/internal/ReservationBusConnection.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace harkwell {
namespace {

std::uint64_t MonotonicMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000u +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
}

// How long poll() may wait for sd-bus's own next deadline (absolute, CLOCK_MONOTONIC
// microseconds; UINT64_MAX for none), capped at `capMilliseconds` when that is not negative.
int PollTimeout(sd_bus* bus, int capMilliseconds) {
  std::uint64_t deadline = UINT64_MAX;
  if (sd_bus_get_timeout(bus, &deadline) < 0) deadline = UINT64_MAX;
  if (deadline == UINT64_MAX) return capMilliseconds;
  const std::uint64_t now = MonotonicMicroseconds();
  const std::uint64_t wait = deadline > now ? (deadline - now + 999) / 1000 : 0;
  if (capMilliseconds >= 0 && wait > static_cast<std::uint64_t>(capMilliseconds)) {
    return capMilliseconds;
  }
  return static_cast<int>(wait);
}

std::string ErrnoText(int negativeErrno) {
  return std::strerror(-negativeErrno);
}

}  // namespace

std::optional<std::string> SessionBusAddress(std::string* why) {
  if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address) {
    return std::string(address);
  }
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
    const std::string socket = std::string(runtime) + "/bus";
    std::error_code ignored;
    if (std::filesystem::exists(socket, ignored)) return "unix:path=" + socket;
    *why = "DBUS_SESSION_BUS_ADDRESS is not set and " + socket + " does not exist";
    return std::nullopt;
  }
  *why = "neither DBUS_SESSION_BUS_ADDRESS nor XDG_RUNTIME_DIR is set";
  return std::nullopt;
}

std::unique_ptr<ReservationBusConnection> ReservationBusConnection::connect(
    const std::string& address, std::chrono::milliseconds timeout, std::string* why) {
  sd_bus* bus = nullptr;
  int status = sd_bus_new(&bus);
  if (status < 0) {
    *why = "cannot make a bus connection: " + ErrnoText(status);
    return nullptr;
  }
  const auto usec = static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(timeout).count());
  status = sd_bus_set_address(bus, address.c_str());
  if (status >= 0) status = sd_bus_set_bus_client(bus, 1);
  if (status >= 0) status = sd_bus_set_method_call_timeout(bus, usec);
  if (status >= 0) status = sd_bus_start(bus);
  if (status < 0) {
    *why = "cannot connect to " + address + ": " + ErrnoText(status);
    sd_bus_close_unref(bus);
    return nullptr;
  }
  // sd-bus would wait for authentication on its own, for far longer than we may; a bus that
  // accepts the connection and never answers is given up here at the deadline instead.
  const std::uint64_t giveUp = MonotonicMicroseconds() + usec;
  for (;;) {
    status = sd_bus_process(bus, nullptr);
    if (status < 0) {
      *why = "the bus at " + address + " closed the connection: " + ErrnoText(status);
      sd_bus_close_unref(bus);
      return nullptr;
    }
    if (sd_bus_is_ready(bus) > 0) break;
    if (status > 0) continue;
    const std::uint64_t now = MonotonicMicroseconds();
    if (now >= giveUp) {
      *why = "the bus at " + address + " did not answer within " + std::to_string(timeout.count()) +
             " ms";
      sd_bus_close_unref(bus);
      return nullptr;
    }
    sd_bus_wait(bus, giveUp - now);
  }
  const int wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd < 0) {
    *why = std::string("cannot make an eventfd: ") + std::strerror(errno);
    sd_bus_close_unref(bus);
    return nullptr;
  }
  std::unique_ptr<ReservationBusConnection> connection(new ReservationBusConnection(bus, wakeFd));
  connection->thread_ = std::thread([raw = connection.get()] { raw->serve(); });
  return connection;
}

ReservationBusConnection::ReservationBusConnection(sd_bus* bus, int wakeFd)
    : bus_(bus), wakeFd_(wakeFd) {}

ReservationBusConnection::~ReservationBusConnection() {
  {
    MutexLock lock(mutex_);
    stopping_ = true;
  }
  wakeServingThread();
  if (thread_.joinable()) thread_.join();
  // No flush: a bus that does not answer must not hold us here. Closing the socket is enough for
  // the bus to drop our names.
  sd_bus_close_unref(bus_);
  close(wakeFd_);
}

void ReservationBusConnection::setClosedHandler(std::function<void()> handler) {
  MutexLock lock(mutex_);
  closedHandler_ = std::move(handler);
}

bool ReservationBusConnection::isOpen() {
  MutexLock lock(mutex_);
  return sd_bus_is_open(bus_) > 0;
}

void ReservationBusConnection::wakeServingThread() {
  const std::uint64_t one = 1;
  // A full counter already wakes the thread; nothing else can fail here.
  [[maybe_unused]] const ssize_t written = write(wakeFd_, &one, sizeof one);
}

void ReservationBusConnection::serve() {
  for (;;) {
    pollfd fds[2] = {};
    int timeout = -1;
    bool gone = false;
    std::function<void()> closed;
    {
      MutexLock lock(mutex_);
      if (stopping_) return;
      int status = 0;
      // Dispatches everything that is queued: incoming calls reach their vtables here.
      while ((status = sd_bus_process(bus_, nullptr)) > 0) {
      }
      if (status < 0 || sd_bus_is_open(bus_) <= 0) {
        // The bus has gone; callers find the connection closed and make a new one.
        gone = true;
        closed = std::move(closedHandler_);
      } else {
        fds[0].fd = sd_bus_get_fd(bus_);
        const int events = sd_bus_get_events(bus_);
        fds[0].events = static_cast<short>(events < 0 ? POLLIN : events);
        timeout = PollTimeout(bus_, -1);
      }
    }
    if (gone) {
      if (closed) closed();
      return;
    }
    fds[1].fd = wakeFd_;
    fds[1].events = POLLIN;
    if (poll(fds, 2, timeout) < 0 && errno != EINTR) return;
    if (fds[1].revents & POLLIN) {
      std::uint64_t count = 0;
      [[maybe_unused]] const ssize_t read = ::read(wakeFd_, &count, sizeof count);
    }
  }
}

}  // namespace harkwell
