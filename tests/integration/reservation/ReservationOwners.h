// Programs that own a sound card's reservation on a test's private bus: PipeWire's pw-reserve (a
// real owner that lets the card go to a higher priority), and our test owner that refuses or never
// answers. Each starts with only the bus in its environment; a test that cannot start one fails
// with the reason.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/PrivateSessionBus.h"
#include "tests/support/Waiting.h"

namespace harkwell::testing {

// Starts `pw-reserve -n Audio<card>` with `extra` options. Empty on success; otherwise why not.
inline std::string StartPwReserve(ChildProcess& child, const PrivateSessionBus& bus,
                                  std::uint32_t card, std::vector<std::string> extra = {}) {
  if (!ChildProcess::findProgram("pw-reserve")) {
    return "pw-reserve is not installed (Debian package pipewire-bin)";
  }
  std::vector<std::string> argv{"pw-reserve", "-n", "Audio" + std::to_string(card)};
  argv.insert(argv.end(), extra.begin(), extra.end());
  std::string error;
  if (!child.start(argv,
                   {{"DBUS_SESSION_BUS_ADDRESS", bus.address()},
                    {"PATH", "/usr/local/bin:/usr/bin:/bin"},
                    {"HOME", bus.folder()},
                    {"XDG_RUNTIME_DIR", bus.folder()}},
                   bus.folder() + "/pw-reserve-" + std::to_string(card) + ".log", &error)) {
    return "cannot start pw-reserve: " + error;
  }
  return {};
}

enum class TestOwnerAnswer { Refuse, Silent };

// Starts the test owner of card `card`, which refuses every request or never answers.
inline std::string StartTestOwner(ChildProcess& child, const PrivateSessionBus& bus,
                                  std::uint32_t card, TestOwnerAnswer answer,
                                  const std::string& applicationName) {
  std::string error;
  if (!child.start({HARKWELL_RESERVATION_TEST_OWNER, bus.address(), std::to_string(card),
                    answer == TestOwnerAnswer::Refuse ? "refuse" : "silent", applicationName},
                   {}, bus.folder() + "/test-owner-" + std::to_string(card) + ".log", &error)) {
    return "cannot start the test owner: " + error;
  }
  return {};
}

// Asks `condition` again until it holds or the deadline passes: for states of other processes
// that announce no event we could wait on (who owns a bus name).
inline bool Eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds deadline = kDefaultDeadline) {
  const auto giveUp = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= giveUp) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace harkwell::testing
