#include "object_ref.hpp"

#include <atomic>

#include "interpreter.hpp"

namespace tidalcrest::sync::python {
namespace {

struct Released {
  PyObject* object;
  Released* next;
};

std::atomic<Released*> released{nullptr};  // a stack; taken whole by who drops

int drop_as_pending_call(void*) {
  drop_released_objects();
  return 0;
}

void release(PyObject* object) noexcept {
  Released* below = released.load();
  auto* const entry = new Released{object, below};
  while (!released.compare_exchange_weak(below, entry)) entry->next = below;
  // The first entry asks for attention; should the interpreter's queue be full, the next call into the module
  // or out of it does the work.
  if (below == nullptr && !stopping()) Py_AddPendingCall(drop_as_pending_call, nullptr);
}

}  // namespace

ObjectRef::ObjectRef(const py::object& object)
    : _object(py::object(object).release().ptr(), [](PyObject* owned) { release(owned); }) {}

void drop_released_objects() {
  Released* entry = released.exchange(nullptr);
  while (entry != nullptr) {
    Released* const next = entry->next;
    Py_DECREF(entry->object);
    delete entry;
    entry = next;
  }
}

}  // namespace tidalcrest::sync::python
