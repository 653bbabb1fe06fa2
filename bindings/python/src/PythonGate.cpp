#include "bindings/python/src/PythonGate.h"

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"

namespace py = pybind11;

namespace harkwell::python {
namespace {

// Never destroyed: library threads may still ask at process exit.
struct GateState {
  std::mutex mutex;
  std::condition_variable left;
  bool open = true;
  int inside = 0;
};

GateState& State() {
  static auto* state = new GateState;
  return *state;
}

bool Enter() {
  auto& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (!state.open) return false;
  ++state.inside;
  return true;
}

void Leave() {
  auto& state = State();
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    --state.inside;
  }
  state.left.notify_all();
}

[[noreturn]] void ParkForever() {
  for (;;) pause();
}

}  // namespace

ReleasedGIL::ReleasedGIL() : counted_(Enter()) {
  state_ = PyEval_SaveThread();
  // The main thread finalises the interpreter itself and is never ended by it.
  if (!counted_ && !IsMainThread()) ParkForever();
}

ReleasedGIL::~ReleasedGIL() {
  PyEval_RestoreThread(state_);
  if (counted_) Leave();
}

bool PythonGate::runWithGIL(const std::function<void()>& work, const char* context) {
  if (!Enter()) return false;
  {
    py::gil_scoped_acquire gil;
    try {
      work();
    } catch (py::error_already_set& error) {
      error.discard_as_unraisable(context);
    } catch (const std::exception& error) {
      PyErr_SetString(PyExc_RuntimeError, error.what());
      PyErr_WriteUnraisable(py::str(context).ptr());
    }
  }
  Leave();
  return true;
}

void PythonGate::close() {
  auto& state = State();
  const bool onMainThread = IsMainThread();
  py::gil_scoped_release released;
  std::unique_lock<std::mutex> lock(state.mutex);
  state.open = false;
  while (state.inside != 0) {
    if (onMainThread) {
      lock.unlock();
      MainRunLoop::shared().performDueWork();
      lock.lock();
    }
    state.left.wait_for(lock, std::chrono::milliseconds(10));
  }
}

bool PythonGate::isOpen() {
  auto& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.open;
}

SharedPythonObject::~SharedPythonObject() {
  if (!object_) return;
  py::object* held = &object_;
  const bool dropped =
      PythonGate::runWithGIL([held] { *held = py::object(); }, "dropping a harkwell callback");
  if (!dropped) object_.release();
}

}  // namespace harkwell::python
