#include "bindings/python/src/PythonGate.h"

#include <condition_variable>
#include <mutex>

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

}  // namespace

bool PythonGate::runWithGIL(const std::function<void()>& work, const char* context) {
  auto& state = State();
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.open) return false;
    ++state.inside;
  }
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
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    --state.inside;
  }
  state.left.notify_all();
  return true;
}

void PythonGate::close() {
  auto& state = State();
  py::gil_scoped_release released;
  std::unique_lock<std::mutex> lock(state.mutex);
  state.open = false;
  state.left.wait(lock, [&] { return state.inside == 0; });
}

bool PythonGate::isOpen() {
  auto& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.open;
}

SharedPythonObject::~SharedPythonObject() {
  if (!object_) return;
  py::object* held = &object_;
  const bool dropped = PythonGate::runWithGIL([held] { *held = py::object(); },
                                              "dropping a harkwell callback");
  if (!dropped) object_.release();
}

}  // namespace harkwell::python
