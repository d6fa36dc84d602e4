#include "collectable.hpp"

namespace tidalcrest::sync::python {
namespace {

void destroy_untracked(PyObject* object) {
  PyObject_GC_UnTrack(object);
  py::detail::pybind11_object_dealloc(object);
}

}  // namespace

void hide_dying_from_collector(const py::object& type) {
  reinterpret_cast<PyTypeObject*>(type.ptr())->tp_dealloc = destroy_untracked;
}

}  // namespace tidalcrest::sync::python
