// Random operation sequences on the simulated services: the input's bytes choose each step of a
// SimulatedFaultWorld (devices plugged, unplugged, started, vanishing mid-read, calls failing with
// any status, IDs reused, observation restarted), and after every step the controller's caches and
// the client's view must keep every rule the fault-injection suite checks. A broken rule aborts
// with its description, so libFuzzer keeps the input that led to it.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "tests/reliability/ChoiceSource.h"
#include "tests/reliability/SimulatedFaultWorld.h"

namespace {
// Enough steps for a device to come, change and go a few times under faults; longer inputs only
// slow the fuzzer down.
constexpr int kMostSteps = 96;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  harkwell::testing::ByteChoices choices(data, size);
  harkwell::testing::SimulatedFaultWorld world;
  for (int step = 1; step <= kMostSteps && !choices.exhausted(); ++step) {
    const std::string done = world.step(choices);
    if (auto problem = world.check()) {
      std::fprintf(stderr, "step %d (%s): %s\n", step, done.c_str(), problem->c_str());
      std::abort();
    }
  }
  return 0;
}
