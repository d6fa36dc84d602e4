#include <pybind11/stl.h>

#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <system_error>

#include "carried_exception.hpp"
#include "exceptions.hpp"
#include "module_table.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::python {
namespace {

py::module_ own_classes() { return py::module_::import("tidalcrest.sync._errors"); }

// The general kinds, under the host's own classes. The two that want arguments of their own are their base.
py::object host_class(const std::string& name) {
  static const std::map<std::string, PyObject*> classes = {
      {"ValueError", PyExc_ValueError},
      {"UnicodeDecodeError", PyExc_ValueError},
      {"JSONDecodeError", PyExc_ValueError},
      {"TypeError", PyExc_TypeError},
      {"KeyError", PyExc_KeyError},
      {"RuntimeError", PyExc_RuntimeError},
      {"OSError", PyExc_OSError},
      {"FileNotFoundError", PyExc_FileNotFoundError},
      {"ConnectionError", PyExc_ConnectionError},
      {"TimeoutError", PyExc_TimeoutError},
      {"URLError", PyExc_OSError},
      {"HTTPError", PyExc_OSError},
  };
  const auto known = classes.find(name);
  return py::reinterpret_borrow<py::object>(known == classes.end() ? PyExc_Exception : known->second);
}

py::str text_of(const char* message) {
  PyObject* const text =
      PyUnicode_DecodeUTF8(message, static_cast<Py_ssize_t>(std::strlen(message)), "replace");
  if (text == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(text);
}

py::object unavailable(const SyncUnavailableError& failure) {
  return exception_class("SyncUnavailableError")(
      failure.url, failure.attempts, py::arg("statuses") = failure.statuses,
      py::arg("failures") = failure.failures, py::arg("server_error_code") = failure.server_error_code,
      py::arg("dependency") = failure.dependency, py::arg("retryable") = failure.retryable,
      py::arg("recovery") = failure.recovery, py::arg("reason") = failure.reason,
      py::arg("typed_details") = failure.typed_details);
}

py::object made(const Failure& failure) {
  if (const auto* known = dynamic_cast<const SyncUnavailableError*>(&failure)) return unavailable(*known);
  if (const auto* known = dynamic_cast<const PermanentDownloadError*>(&failure)) {
    return exception_class("PermanentDownloadError")(
        text_of(failure.what()), py::arg("file_path") = known->file_path, py::arg("status") = known->status);
  }
  const py::object own = exception_class(failure.type_name());
  const py::object exception = (own ? own : host_class(failure.type_name()))(text_of(failure.what()));
  const auto* os_error = dynamic_cast<const OSError*>(&failure);
  if (os_error != nullptr && os_error->error_number() != 0)
    exception.attr("errno") = os_error->error_number();
  return exception;
}

py::object with_cause(py::object exception, const std::exception_ptr& cause) {
  if (py::object cause_object = as_python_exception(cause)) {
    PyException_SetCause(exception.ptr(), cause_object.release().ptr());
  }
  return exception;
}

void raise(const py::object& exception) {
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exception.ptr())), exception.ptr());
}

void translate(std::exception_ptr failure) {
  if (!failure) return;
  if (const py::object exception = as_python_exception(failure)) return raise(exception);
  std::rethrow_exception(failure);
}

}  // namespace

py::object exception_class(const std::string& name) {
  static const std::map<std::string, const char*> sibling_modules = {
      {"AuthError", "tidalcrest.auth"},
      {"LibraryUpdateRequired", "tidalcrest.deployment"},
      {"SyncBackoffCancelled", "tidalcrest.distribution.sync_backoff"},
  };
  if (const auto sibling = sibling_modules.find(name); sibling != sibling_modules.end()) {
    if (const py::object module = loaded_module(sibling->second)) {
      py::object type = py::getattr(module, name.c_str(), py::none());
      if (PyExceptionClass_Check(type.ptr())) return type;
    }
  }
  py::object type = py::getattr(own_classes(), name.c_str(), py::none());
  return type.is_none() ? py::object() : type;
}

py::object as_python_exception(const std::exception_ptr& failure) {
  if (!failure) return {};
  try {
    std::rethrow_exception(failure);
  } catch (const PythonExit& exit) {
    return exit.exception.get();
  } catch (const CarriedException& carried) {
    return carried.exception().get();
  } catch (const Failure& known) {
    return with_cause(made(known), known.cause());
  } catch (const std::system_error& known) {  // file system failures of the standard library too
    const auto type = py::reinterpret_borrow<py::object>(PyExc_OSError);
    const py::object exception = type(text_of(known.what()));
    exception.attr("errno") = known.code().value();
    return exception;
  } catch (const nlohmann::json::exception& known) {
    return py::reinterpret_borrow<py::object>(PyExc_ValueError)(text_of(known.what()));
  } catch (...) {
    return {};
  }
}

void register_exceptions() { py::register_local_exception_translator(translate); }

}  // namespace tidalcrest::sync::python
