#pragma once

#include <pybind11/pybind11.h>

#include <memory>
#include <utility>

#include "blocking_call.hpp"
#include "manager_side.hpp"
#include "records.hpp"
#include "shared_holder.hpp"
#include "tidalcrest/sync/sync_manager.hpp"

namespace tidalcrest::sync::python {

using ManagerHolder = SharedHolder<SyncManager>;
using ManagerClass = py::class_<SyncManager, ManagerHolder>;

void bind_manager_state(ManagerClass& manager);
void bind_manager_listeners(ManagerClass& manager);

/// The owner behind a `self`.
inline std::shared_ptr<SyncManager> shared(const py::object& self) {
  return self.cast<ManagerHolder>().shared();
}

/// Binds a member that may wait, and turns its result.
template <class Result>
auto waiting(Result (SyncManager::*member)()) {
  return [member](const py::object& self) {
    return to_python(without_gil([&, manager = shared(self)] { return ((*manager).*member)(); }));
  };
}
template <class Result>
auto waiting(Result (SyncManager::*member)() const) {
  return [member](const py::object& self) {
    return to_python(without_gil([&, manager = shared(self)] { return ((*manager).*member)(); }));
  };
}
inline auto waiting(void (SyncManager::*member)()) {
  return [member](const py::object& self) {
    without_gil([&, manager = shared(self)] { ((*manager).*member)(); });
  };
}

}  // namespace tidalcrest::sync::python
