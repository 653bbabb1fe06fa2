// A controller observing simulated audio and video services that misbehave on purpose. Each step
// does one thing a platform can do, chosen by a ChoiceSource: plug a device in (sometimes under
// an ID that was just in use, sometimes with a name or UID that cannot be read), unplug it, start
// or stop it, switch its input source, change who uses it, make calls fail with any status ("!obj",
// "who?", "!siz", "nope", ...), make a device vanish in the middle of the library's reads of it,
// scramble the device list (duplicates, unknown IDs, odd sizes), garble a device's consumers,
// notify without a change, let the polling timer fire, toggle exclusive access, or switch
// observation off and on. After each step the world waits until the controller's queue is quiet,
// and check() then tells whether anything a client relies on broke (see ClientViewChecker.h): the
// cache holds only whole records, the client's view equals the cache, consumers are reported only
// for devices the client knows, and "!obj" was never logged. The client follows consumers, so their
// reads (failed and garbled ones included) run beside every device event.
//
// The world installs its services, a log sink and the run loop's manual clock process-wide for its
// lifetime, so only one may exist at a time. Main thread only (it serves the main run loop while it
// waits).
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h"
#include "HarkwellFoundation/Platform/SystemLog.h"
#include "tests/reliability/ChoiceSource.h"
#include "tests/reliability/ClientViewChecker.h"
#include "tests/support/ScopedHardwareServices.h"

namespace harkwell::testing {

class SimulatedFaultWorld {
 public:
  SimulatedFaultWorld();
  ~SimulatedFaultWorld();
  SimulatedFaultWorld(const SimulatedFaultWorld&) = delete;
  SimulatedFaultWorld& operator=(const SimulatedFaultWorld&) = delete;

  // Does one thing chosen by `choices` and waits for the queue to be quiet. Returns what it did,
  // for failure messages.
  std::string step(ChoiceSource& choices);
  // The first broken rule, or nothing. Call between steps.
  std::optional<std::string> check() const;

  const ClientViewChecker& client() const { return *checker_; }
  std::uint64_t logLineCount() const { return logLines_.load(); }

 private:
  struct Vanish {
    int callsLeft = 0;
  };

  SimulatedObjectGraph& graph(MediaType mediaType);
  std::vector<ObjectID> deviceList(MediaType mediaType) const;
  void removeDevice(MediaType mediaType, ObjectID deviceID);

  // One change to the simulated platform (or the clock, or exclusive access), chosen by `roll`.
  std::string change(std::uint32_t roll, ChoiceSource& choices, MediaType mediaType);
  std::string plug(ChoiceSource& choices, MediaType mediaType);
  std::string unplug(ChoiceSource& choices, MediaType mediaType);
  std::string setRunning(ChoiceSource& choices, MediaType mediaType);
  std::string changeInputSource(ChoiceSource& choices);
  std::string changeConsumers(ChoiceSource& choices, MediaType mediaType);
  std::string injectFailure(ChoiceSource& choices, MediaType mediaType);
  std::string clearFailures();
  std::string armVanish(ChoiceSource& choices);
  std::string rewriteDeviceList(ChoiceSource& choices, MediaType mediaType);
  std::string notifyWithoutChange(ChoiceSource& choices, MediaType mediaType);
  std::string spoilProperty(ChoiceSource& choices, MediaType mediaType);
  std::string restart();
  void switchOn();
  std::string advanceClock(ChoiceSource& choices);
  std::string toggleHogMode(ChoiceSource& choices);

  // Runs before every call either service answers; makes a device vanish when one is due.
  void beforeCall(MediaType mediaType, const SimulatedCall& call);
  // Catches any line that reports the bad-object status, which must never be logged.
  void onLogLine(std::string_view line);

  const std::shared_ptr<DispatchQueue> queue_;
  const std::shared_ptr<SimulatedAudioHardwareService> audio_;
  const std::shared_ptr<SimulatedVideoHardwareService> video_;
  std::unique_ptr<ClientViewChecker> checker_;
  std::shared_ptr<MediaDeviceController> controller_;

  ScopedHardwareServices services_;
  LogSink previousSink_;

  // The next generation of each (media type, ID), so a reused ID names a new device.
  std::map<std::pair<MediaType, ObjectID>, std::uint32_t> generations_;
  std::map<MediaType, int> failureRules_;
  std::optional<std::string> queueProblem_;

  mutable std::mutex mutex_;  // guards the two members below
  std::optional<Vanish> vanish_;
  std::optional<std::string> logProblem_;
  std::atomic<std::uint64_t> logLines_{0};
  std::atomic<std::uint64_t> vanishes_{0};
};

}  // namespace harkwell::testing
