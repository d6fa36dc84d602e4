#pragma once

#include <pybind11/pybind11.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "host/module_seam.hpp"
#include "object_ref.hpp"

/// The interpreter's table of loaded modules, as the core looks siblings up in it.
///
/// A look takes the GIL, and the core asks at every wait and every piece of a transfer. So an answer counts
/// until Python code is known to have run through this module, and for a tenth of a second at most.
namespace tidalcrest::sync::python {

namespace py = pybind11;

/// The entry of that name; null when there is none. Needs the GIL.
py::object loaded_module(const char* name);

/// Python code is about to run, and may change the table.
void note_python_runs() noexcept;

/// The host's backoff module is in place; its contexts are then its own affair. Needs the GIL.
bool backoff_module_is_replaced();

/// What the core's looks for one module have in common.
class ModuleLookup {
 public:
  /// `names` is what the core uses of the module; one that lacks any of them is none.
  ModuleLookup(const char* module, std::vector<const char*> names)
      : _module(module), _names(std::move(names)) {}
  /// The host's own module: null for none, for one that lacks a name, and for the one that this face offers
  /// as long as nobody has changed it. Needs the GIL.
  py::object find() const;

 private:
  const char* const _module;
  const std::vector<const char*> _names;
};

/// Number of times that `note_python_runs` was called, and whether no callback may enter any more.
unsigned long long python_runs() noexcept;
bool no_more_python() noexcept;

/// A resolver for a seam: gives an `Adaptor` on the host's module while there is one.
template <class Module, class Adaptor>
class SeamResolver {
 public:
  SeamResolver(const char* module, std::vector<const char*> names) : _lookup(module, std::move(names)) {}

  std::shared_ptr<Module> operator()() {
    {
      const std::lock_guard lock(_mutex);
      if (_runs == python_runs() && Clock::now() < _expires) return _answer;
    }
    return _look();
  }

 private:
  using Clock = std::chrono::steady_clock;

  std::shared_ptr<Module> _look();

  const ModuleLookup _lookup;
  std::mutex _mutex;  // guards what follows; never held while the GIL is waited for
  unsigned long long _runs = ~0ULL;
  Clock::time_point _expires;
  PyObject* _object = nullptr;  // what `_answer` stands for; compared only
  std::shared_ptr<Module> _answer;
};

/// Lets the host's module of that name take the place of the built-in one.
template <class Adaptor, class Module>
void look_up_in_table(ModuleSeam<Module>& seam, const char* module, std::vector<const char*> names) {
  auto resolver = std::make_shared<SeamResolver<Module, Adaptor>>(module, std::move(names));
  seam.set_resolver([resolver] { return (*resolver)(); });
}

}  // namespace tidalcrest::sync::python

#include "module_table_inline.hpp"
