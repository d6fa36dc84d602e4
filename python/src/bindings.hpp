#pragma once

#include <pybind11/pybind11.h>

/// One function for each part of the module, in the order of their calls.
namespace tidalcrest::sync::python {

namespace py = pybind11;

void bind_manifest(py::module_& module);
void bind_pin(py::module_& module);
void bind_manager(py::module_& module);
void bind_era_thread(py::module_& module);
void bind_rotation(py::module_& module);
void bind_siblings(py::module_& module);

}  // namespace tidalcrest::sync::python
