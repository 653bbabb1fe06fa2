// The parts of the extension module harkwell._harkwell, each adding its names to the module.
#pragma once

#include <pybind11/pybind11.h>

namespace harkwell::python {

void BindController(pybind11::module_& module);
void BindSimulatedServices(pybind11::module_& module);
void BindScenario(pybind11::module_& module);

// Stops every controller still observing, so no callback runs while the interpreter finalises.
// The module's exit hook calls it, GIL held, before it closes the gate (PythonGate.h).
void StopAllControllers();

}  // namespace harkwell::python
