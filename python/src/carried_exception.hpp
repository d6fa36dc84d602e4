#pragma once

#include <utility>

#include "object_ref.hpp"

namespace tidalcrest::sync::python {

/// The side of a C++ failure that remembers the Python exception it stands for.
class CarriedException {
 public:
  explicit CarriedException(ObjectRef exception) : _exception(std::move(exception)) {}
  virtual ~CarriedException() = default;
  const ObjectRef& exception() const noexcept { return _exception; }

 private:
  ObjectRef _exception;
};

}  // namespace tidalcrest::sync::python
