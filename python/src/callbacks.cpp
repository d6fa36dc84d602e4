#include "callbacks.hpp"

#include "documents.hpp"
#include "exceptions.hpp"
#include "interpreter.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::python {

std::function<std::string()> token_supplier(const py::object& get_token) {
  if (get_token.is_none()) return {};
  return [function = ObjectRef(get_token)] {
    const Locked locked;
    return calling_python([&] {
      const py::object token = function.get()();
      if (PyUnicode_Check(token.ptr())) return text_from_python(token);
      PyErr_Format(PyExc_TypeError, "get_token must return str, not %s", Py_TYPE(token.ptr())->tp_name);
      throw py::error_already_set();
    });
  };
}

std::function<std::optional<std::string>()> wallet_secret_supplier(const py::object& get_wallet_secret) {
  if (get_wallet_secret.is_none()) return {};
  return [function = ObjectRef(get_wallet_secret)] {
    const Locked locked;
    return calling_python([&]() -> std::optional<std::string> {
      const py::object secret = function.get()();
      if (!PyBytes_Check(secret.ptr())) return std::nullopt;
      return py::reinterpret_borrow<py::bytes>(secret);
    });
  };
}

std::function<void()> plain_callback(const py::object& function) {
  if (function.is_none()) return {};
  return [function = ObjectRef(function)] {
    const Locked locked;
    calling_python([&] { function.get()(); });
  };
}

std::function<void(const std::string&, std::int64_t)> era_callback(const py::object& callback) {
  return [function = ObjectRef(callback)](const std::string& event_type, std::int64_t era_number) {
    const Locked locked;
    calling_python([&] { function.get()(text_to_python(event_type), era_number); });
  };
}

void PythonFreshnessGuard::record_sync_update(const std::string& relative_path, const std::string& kind,
                                              const std::string& sha256) {
  const Locked locked;
  calling_python([&] {
    _guard.get().attr("record_sync_update")(py::arg("relative_path") = path_to_python(relative_path),
                                            py::arg("kind") = text_to_python(kind),
                                            py::arg("sha256") = text_to_python(sha256));
  });
}

}  // namespace tidalcrest::sync::python
