#pragma once

#include <pybind11/pybind11.h>

#include "tidalcrest/sync/collection.hpp"
#include "tidalcrest/sync/records.hpp"
#include "tidalcrest/sync/rotation.hpp"

/// The records, which are plain Python classes on that side. All of it needs the GIL.
namespace tidalcrest::sync::python {

namespace py = pybind11;

py::object to_python(const SyncResult& result);
py::object to_python(const VerifyResult& result);
py::object to_python(const VerifiedActiveCohortSnapshot& snapshot);
py::object to_python(const RotationState& state);
py::object to_python(const CollectionReport& report);
/// A list of local paths.
py::list paths_to_python(const std::vector<std::string>& paths);

/// Any object with the attributes of a rotation state.
RotationState rotation_state_argument(const py::handle& value, const char* name);

}  // namespace tidalcrest::sync::python
