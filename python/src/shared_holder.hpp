#pragma once

#include <pybind11/pybind11.h>

#include <memory>
#include <utility>

#include "interpreter.hpp"

namespace tidalcrest::sync::python {

/// How a Python object holds one of ours. Its destruction may stop threads that want the GIL, so it goes
/// without it. In a forked child, whose threads are the parent's, and at the end of the process it is left
/// alone.
template <class Held>
class SharedHolder {
 public:
  SharedHolder() = default;
  explicit SharedHolder(Held* fresh) : _held(fresh) {}
  SharedHolder(std::shared_ptr<Held> held) : _held(std::move(held)) {}
  SharedHolder(const SharedHolder&) = default;
  SharedHolder(SharedHolder&&) noexcept = default;
  SharedHolder& operator=(const SharedHolder&) = default;
  SharedHolder& operator=(SharedHolder&&) noexcept = default;
  ~SharedHolder() {
    if (!_held) return;
    if (!_made.is_here() || stopping()) {
      new std::shared_ptr<Held>(std::move(_held));
      return;
    }
    const Unlocked unlocked;
    _held.reset();
  }
  Held* get() const noexcept { return _held.get(); }
  const std::shared_ptr<Held>& shared() const noexcept { return _held; }

 private:
  std::shared_ptr<Held> _held;
  MadeHere _made;
};

}  // namespace tidalcrest::sync::python

PYBIND11_DECLARE_HOLDER_TYPE(Held, tidalcrest::sync::python::SharedHolder<Held>)
