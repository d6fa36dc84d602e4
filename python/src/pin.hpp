#pragma once

#include <optional>

#include "manager_class.hpp"

namespace tidalcrest::sync::python {

/// A `with` block around a pinned cohort. The locks are taken on entry; leaving normally ends with the
/// readback, leaving with an exception lets the exception pass.
class PinScope {
 public:
  explicit PinScope(ManagerHolder manager) : _manager(std::move(manager)) {}
  PinScope(PinScope&&) = default;
  ~PinScope();
  py::object enter();
  void exit(bool normally);

 private:
  ManagerHolder _manager;
  std::optional<ActiveCohortPin> _pin;
  MadeHere _made;
};

}  // namespace tidalcrest::sync::python
