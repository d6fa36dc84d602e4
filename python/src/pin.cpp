#include "pin.hpp"

#include <optional>

#include "bindings.hpp"
#include "blocking_call.hpp"
#include "records.hpp"

namespace tidalcrest::sync::python {

PinScope::~PinScope() {
  if (!_pin) return;
  if (!_made.is_here() || stopping()) {  // the locks belong to another process, or go with this one
    new ActiveCohortPin(std::move(*_pin));
    return;
  }
  const Unlocked unlocked;
  _pin.reset();
}

py::object PinScope::enter() {
  _pin.emplace(without_gil([this] { return _manager.get()->pin_active_cohort_snapshot(); }));
  return to_python(_pin->snapshot());
}

void PinScope::exit(bool normally) {
  if (!_pin || !_made.is_here()) return;
  without_gil([this, normally] {
    ActiveCohortPin pin = std::move(*_pin);
    _pin.reset();
    if (normally) pin.release();
  });
}

void bind_pin(py::module_& module) {
  py::class_<PinScope>(module, "ActiveCohortPin",
                       "The scope in which one cohort is pinned; yields its VerifiedActiveCohortSnapshot.")
      .def("__enter__", &PinScope::enter)
      .def("__exit__", [](PinScope& scope, const py::object& type, const py::object&, const py::object&) {
        scope.exit(type.is_none());
        return false;
      });
}

}  // namespace tidalcrest::sync::python
