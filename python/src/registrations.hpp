#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "object_ref.hpp"

namespace tidalcrest::sync::python {

/// What Python objects a core list holds, so that they can be found again by Python's equality, without a
/// lock of the core. Guarded by the GIL. `Registered` has `object()`; the core's list owns it.
template <class Registered>
class Registrations {
 public:
  /// The first one whose object equals `object`; null when there is none.
  std::shared_ptr<Registered> find(const py::object& object) {
    std::erase_if(_entries, [](const auto& entry) { return entry.expired(); });
    const auto entries = _entries;  // equality is Python code, which may register
    for (const auto& entry : entries) {
      const auto registered = entry.lock();
      if (!registered) continue;
      const py::object known = registered->object();
      if (known.is(object) || known.equal(object)) return registered;
    }
    return nullptr;
  }
  void add(const std::shared_ptr<Registered>& registered) { _entries.push_back(registered); }
  void remove(const std::shared_ptr<Registered>& registered) {
    std::erase_if(_entries, [&](const auto& entry) { return entry.expired() || entry.lock() == registered; });
  }

 private:
  std::vector<std::weak_ptr<Registered>> _entries;
};

}  // namespace tidalcrest::sync::python
