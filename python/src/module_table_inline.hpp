#pragma once

#include "interpreter.hpp"

namespace tidalcrest::sync::python {

template <class Module, class Adaptor>
std::shared_ptr<Module> SeamResolver<Module, Adaptor>::_look() {
  if (no_more_python()) return nullptr;
  const auto runs = python_runs();
  const Locked locked;
  const py::object found = _lookup.find();
  const std::lock_guard lock(_mutex);
  if (found.ptr() != _object) {
    _object = found.ptr();
    _answer =
        found ? std::make_shared<Adaptor>(found) : nullptr;  // keeps the module, so the address is its own
  }
  _runs = runs;
  _expires = Clock::now() + std::chrono::milliseconds(100);
  return _answer;
}

}  // namespace tidalcrest::sync::python
