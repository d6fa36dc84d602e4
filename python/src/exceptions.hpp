#pragma once

#include <pybind11/pybind11.h>

#include <exception>
#include <string>

#include "module_table.hpp"
#include "object_ref.hpp"

/// Exceptions on their way between the two languages.
///
/// One raised by a callback passes through C++ as a failure of the matching kind that carries it, so that C++
/// handlers meet what they expect; where none catches it, the same object comes out. A failure of C++ comes
/// out as an exception of the same name, with its causes chained.
namespace tidalcrest::sync::python {

/// Carries an exception that only the interpreter may handle (`KeyboardInterrupt`, `SystemExit`) past
/// handlers for any ordinary failure: it is deliberately no `std::exception`.
struct PythonExit {
  ObjectRef exception;
};

/// Takes the exception, its traceback in place, out of its wrapper, which only a holder of the GIL may
/// destroy.
py::object taken_exception(py::error_already_set& raised);

/// The same exception as a C++ failure. Needs the GIL. Not to be called where the wrapper is being handled: a
/// failure remembers what was being handled when it was made.
[[noreturn]] void throw_as_failure(const py::object& exception);

/// The exception object for a failure; the same one when the failure carries it. Null for none, and for what
/// is not of the failure family. Needs the GIL.
py::object as_python_exception(const std::exception_ptr& failure);

/// Runs a callback's Python code, with the GIL held, and turns what it raises.
template <class Call>
auto calling_python(Call call) {
  note_python_runs();
  py::object exception;
  try {
    return call();
  } catch (py::error_already_set& raised) {
    exception = taken_exception(raised);
  }
  throw_as_failure(exception);
}

/// Makes failures that leave a bound function exceptions of the interpreter.
void register_exceptions();

/// The exception class of that name, as the host knows it: one that belongs to a sibling module which the
/// host has loaded is that module's. Null when the name is no class of ours.
py::object exception_class(const std::string& name);

}  // namespace tidalcrest::sync::python
