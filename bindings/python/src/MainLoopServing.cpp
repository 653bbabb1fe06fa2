#include "bindings/python/src/MainLoopServing.h"
#include "bindings/python/src/PythonGate.h"

#include <poll.h>

#include <algorithm>
#include <cmath>

#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "bindings/python/src/ScenarioDriver.h"

namespace py = pybind11;

namespace harkwell::python {
namespace {

// How long a wait goes without running Python's signal handlers.
constexpr auto kSignalCheckInterval = std::chrono::milliseconds(100);

// One slice of the wait, without the GIL: serve, then sleep until something may have changed.
bool ServeSlice(const std::function<bool()>& ready, Clock::time_point sliceEnd, int wakeFd,
                bool onMainThread) {
  auto& loop = MainRunLoop::shared();
  for (;;) {
    if (onMainThread) {
      loop.performDueWork();
      ScenarioDriver::PlayDueSteps(Clock::now());
    }
    if (ready()) return true;
    const auto now = Clock::now();
    if (now >= sliceEnd) return false;
    auto until = sliceEnd;
    if (onMainThread) {
      if (const auto step = ScenarioDriver::NextWakeUp()) until = std::min(until, *step);
    }
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(until - now);
    pollfd fds[2];
    nfds_t count = 0;
    if (wakeFd >= 0) fds[count++] = {wakeFd, POLLIN, 0};
    if (onMainThread) fds[count++] = {loop.fileDescriptor(), POLLIN, 0};
    ::poll(fds, count, static_cast<int>(std::max<std::int64_t>(wait.count(), 0)));
  }
}

}  // namespace

bool ServeUntil(const std::function<bool()>& ready, std::optional<Clock::time_point> deadline,
                int wakeFd) {
  const bool onMainThread = IsMainThread();
  for (;;) {
    auto sliceEnd = Clock::now() + kSignalCheckInterval;
    if (deadline) sliceEnd = std::min(sliceEnd, *deadline);
    bool isReady = false;
    {
      ReleasedGIL released;
      isReady = ServeSlice(ready, sliceEnd, wakeFd, onMainThread);
    }
    if (isReady) return true;
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    if (deadline && Clock::now() >= *deadline) return false;
  }
}

std::optional<Clock::time_point> DeadlineAfter(const std::optional<double>& seconds) {
  if (!seconds) return std::nullopt;
  if (std::isnan(*seconds) || *seconds < 0) {
    throw py::value_error("a time in seconds must be 0 or more");
  }
  // Beyond a century is as good as never, and keeps the arithmetic in range.
  const double bounded = std::min(*seconds, 100.0 * 365 * 24 * 3600);
  return Clock::now() +
         std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(bounded));
}

}  // namespace harkwell::python
