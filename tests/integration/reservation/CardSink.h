// A sound card on a test's private pulseaudio daemon: a null sink that says it is an ALSA card, as
// the server lets any property be given to a null sink. Its exclusive access is that card's
// reservation.
#pragma once

#include <cstdint>
#include <string>

#include "tests/support/PrivatePulseServer.h"
#include "tests/support/PulseTestClient.h"

namespace harkwell::testing {

// Loads a null sink `name` with "alsa.card" `card` and `description`. Empty on success; otherwise
// why not.
inline std::string LoadCardSink(const PrivatePulseServer& pulse, const std::string& name,
                                std::uint32_t card, const std::string& description) {
  PulseTestClient client(pulse.address());
  if (!client.isConnected()) return "cannot connect to the private pulseaudio daemon";
  const auto module = client.loadModule("module-null-sink",
                                        "sink_name=" + name +
                                            " sink_properties='alsa.card=" + std::to_string(card) +
                                            " device.description=\"" + description + "\"'");
  return module ? std::string()
                : "the daemon refused a null sink with alsa.card=" + std::to_string(card);
}

}  // namespace harkwell::testing
