#pragma once

#include <pybind11/pybind11.h>

#include <cstdint>
#include <optional>

namespace tidalcrest::sync::python {

namespace py = pybind11;

py::object optional_integer(const std::optional<std::int64_t>& value);

/// The modules that an era transition asks: deployment and search tracking.
void bind_transition_modules(py::module_& module);

}  // namespace tidalcrest::sync::python
