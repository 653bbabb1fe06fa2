// Waiting from Python without starving the main run loop. The library's main run loop (main-queue
// work, the polling timer) must keep running on the main thread; a Python program has no loop of
// the library's, so whenever it waits in this module on the main thread (run_main_loop(), the next
// event of controller.events()) the wait serves that loop, and plays the scenarios that are
// running. Waits release the GIL, so Python threads and the controller's callbacks run meanwhile,
// and wake every 100 ms to run Python's signal handlers: Ctrl-C raises KeyboardInterrupt.
#pragma once

#include <pybind11/pybind11.h>

#include <chrono>
#include <functional>
#include <optional>

namespace harkwell::python {

using Clock = std::chrono::steady_clock;

// Serves until `ready()` (checked without the GIL) returns true, or `deadline` has passed; returns
// whether it became ready. `wakeFd`, when not -1, is a descriptor that turns readable when `ready`
// may have changed. Called with the GIL held. Off the main thread it only waits. A signal handler
// that raises ends the wait with that exception (pybind11::error_already_set).
bool ServeUntil(const std::function<bool()>& ready, std::optional<Clock::time_point> deadline,
                int wakeFd);

// The deadline `seconds` from now; none for None. Negative or NaN seconds raise ValueError.
std::optional<Clock::time_point> DeadlineAfter(const std::optional<double>& seconds);

}  // namespace harkwell::python
