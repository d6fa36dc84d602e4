#include "module_table.hpp"

#include <atomic>

#include "interpreter.hpp"

namespace tidalcrest::sync::python {
namespace {

std::atomic<unsigned long long> runs{0};

// The face offers the built-in modules under the SDK's names; this attribute of theirs holds what they began
// with.
constexpr const char* BUILT_IN_NAMES = "_tidalcrest_sync_built_in";

bool is_as_we_made_it(const py::object& module, const std::vector<const char*>& names) {
  const py::object originals = py::getattr(module, BUILT_IN_NAMES, py::none());
  if (originals.is_none()) return false;
  for (const char* name : names) {
    const py::object now = module.attr(name);
    const py::object original = originals[name];
    if (!now.is(original)) return false;
  }
  return true;
}

}  // namespace

void note_python_runs() noexcept { ++runs; }

unsigned long long python_runs() noexcept { return runs; }

bool no_more_python() noexcept { return stopping(); }

py::object loaded_module(const char* name) {
  const auto table = py::reinterpret_borrow<py::dict>(PyImport_GetModuleDict());
  return table.contains(name) ? py::object(table[name]) : py::object();
}

py::object ModuleLookup::find() const {
  py::object module = loaded_module(_module);
  if (!module || module.is_none()) return {};
  for (const char* name : _names) {
    if (!py::hasattr(module, name)) return {};
  }
  return is_as_we_made_it(module, _names) ? py::object() : module;
}

}  // namespace tidalcrest::sync::python
