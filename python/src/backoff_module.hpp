#pragma once

#include <functional>

#include "object_ref.hpp"

namespace tidalcrest::sync::python {

/// A stop signal of Python. Asked by every worker at every piece of a transfer, so an answer counts for 20
/// ms. Empty for what cannot be called.
std::function<bool()> stop_signal(const py::object& stop_requested);

/// Lets a loaded `tidalcrest.distribution.sync_backoff` take the place of the built-in one, and offers the
/// built-in one to Python.
void bind_backoff(py::module_& module);

}  // namespace tidalcrest::sync::python
