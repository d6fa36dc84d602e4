#pragma once

#include <pybind11/pybind11.h>

#include <memory>
#include <optional>

#include "tidalcrest/sync/sync_manager.hpp"

namespace tidalcrest::sync::python {

namespace py = pybind11;

/// A `with` block around a pinned cohort. The locks are taken on entry; leaving normally ends with the
/// readback, leaving with an exception lets the exception pass.
class PinScope {
 public:
  explicit PinScope(std::shared_ptr<SyncManager> manager) : _manager(std::move(manager)) {}
  PinScope(PinScope&&) = default;
  ~PinScope();
  py::object enter();
  void exit(bool normally);

 private:
  std::shared_ptr<SyncManager> _manager;
  std::optional<ActiveCohortPin> _pin;
};

}  // namespace tidalcrest::sync::python
