#pragma once

#include <pybind11/pybind11.h>

#include <memory>

namespace tidalcrest::sync::python {

namespace py = pybind11;

/// A shared reference to a Python object that C++ may copy and destroy on any thread, without the GIL and
/// under any lock. The last one to go hands the object back to the interpreter, which drops it at its next
/// opportunity.
class ObjectRef {
 public:
  ObjectRef() = default;
  /// Needs the GIL.
  explicit ObjectRef(const py::object& object);
  explicit operator bool() const noexcept { return _object != nullptr; }
  /// Needs the GIL.
  py::object get() const { return py::reinterpret_borrow<py::object>(_object.get()); }

 private:
  std::shared_ptr<PyObject> _object;
};

/// Drops what `ObjectRef`s have let go of. Needs the GIL; may run Python code.
void drop_released_objects();

}  // namespace tidalcrest::sync::python
