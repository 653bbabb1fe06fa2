// The gate between the library's threads and the Python interpreter. The controller's queue and
// the services' threads were not started by Python; they may run Python code (a callback, dropping
// the last reference to a callable) only while the interpreter is alive. At exit the module closes
// the gate: it waits for every thread that is inside to leave, and from then on nobody enters, so
// no thread of the library ever takes the GIL of an interpreter that is shutting down.
#pragma once

#include <pybind11/pybind11.h>

#include <functional>

namespace harkwell::python {

class PythonGate {
 public:
  // Runs `work` with the GIL held, if the gate is open; returns whether it ran. Any thread; the
  // caller may or may not hold the GIL already. An exception that `work` lets out as a Python
  // error is reported through sys.unraisablehook with `context`, never passed on.
  static bool runWithGIL(const std::function<void()>& work, const char* context);

  // Closes the gate and waits until no thread is inside. Called once, with the GIL held, from the
  // module's exit hook (on the main thread); the GIL is released while it waits, and the main run
  // loop is served, since a thread inside may be waiting for the main thread.
  static void close();

  static bool isOpen();
};

// Releases the GIL for the scope, like pybind11::gil_scoped_release, while the library works or
// waits; the gate counts the scope as inside. A thread that would enter after the gate has closed
// (a daemon thread still calling into the module at exit) is parked for good without the GIL
// instead: taking the GIL back while the interpreter finalises would end the thread in the middle
// of C++ code. The main thread, which finalises the interpreter itself, goes on as usual.
class ReleasedGIL {
 public:
  ReleasedGIL();
  ~ReleasedGIL();
  ReleasedGIL(const ReleasedGIL&) = delete;
  ReleasedGIL& operator=(const ReleasedGIL&) = delete;

 private:
  const bool counted_;
  PyThreadState* state_;
};

// A reference to a Python object that any thread may drop: dropping it takes the GIL (through the
// gate). Assigned and read only with the GIL held. After the gate has closed, the reference is
// left behind on purpose, as everything is at exit.
class SharedPythonObject {
 public:
  SharedPythonObject() = default;
  explicit SharedPythonObject(pybind11::object object) : object_(std::move(object)) {}
  SharedPythonObject(const SharedPythonObject&) = delete;
  SharedPythonObject& operator=(const SharedPythonObject&) = delete;
  ~SharedPythonObject();

  // GIL held.
  const pybind11::object& get() const { return object_; }
  void set(pybind11::object object) { object_ = std::move(object); }

 private:
  pybind11::object object_;
};

}  // namespace harkwell::python
