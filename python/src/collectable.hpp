#pragma once

#include <pybind11/pybind11.h>

namespace tidalcrest::sync::python {

namespace py = pybind11;

/// Takes objects of a class with attributes of their own from the garbage collector before they are
/// destroyed. The binding library of this generation leaves them there: a collection on another thread, or in
/// code that the destruction runs, would find a dying object and destroy it again.
void hide_dying_from_collector(const py::object& type);

}  // namespace tidalcrest::sync::python
