#include "arguments.hpp"

#include "documents.hpp"

namespace tidalcrest::sync::python {
namespace {

bool is_number_or_text(const py::handle& value) {
  return PyLong_Check(value.ptr()) || PyFloat_Check(value.ptr()) || PyUnicode_Check(value.ptr());
}

// The host's `int()` for what is neither number nor text (a decimal, an array's scalar).
py::object as_integer(const py::object& value) {
  if (is_number_or_text(value) || PyNumber_Check(value.ptr()) == 0) return value;
  PyObject* const converted = PyNumber_Long(value.ptr());
  if (converted == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(converted);
}

}  // namespace

void raise_argument_type(const char* name, const char* expected, const py::handle& given) {
  PyErr_Format(PyExc_TypeError, "%s must be %s, not %s", name, expected, Py_TYPE(given.ptr())->tp_name);
  throw py::error_already_set();
}

py::object attribute_or(const py::handle& value, const char* attribute_name, const py::object& otherwise) {
  PyObject* const found = PyObject_GetAttrString(value.ptr(), attribute_name);
  if (found != nullptr) return py::reinterpret_steal<py::object>(found);
  if (PyErr_ExceptionMatches(PyExc_AttributeError) == 0) throw py::error_already_set();
  PyErr_Clear();
  return otherwise;
}

std::string path_argument(const py::handle& value, const char* name) {
  PyObject* const plain = PyOS_FSPath(value.ptr());
  if (plain == nullptr) {
    if (PyErr_ExceptionMatches(PyExc_TypeError) == 0) throw py::error_already_set();
    PyErr_Clear();
    raise_argument_type(name, "str or os.PathLike", value);
  }
  const auto path = py::reinterpret_steal<py::object>(plain);
  if (!PyUnicode_Check(path.ptr())) raise_argument_type(name, "str or os.PathLike", path);
  PyObject* const encoded = PyUnicode_EncodeFSDefault(path.ptr());
  if (encoded == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::bytes>(encoded);
}

std::string data_dir_argument(const py::handle& value) {
  std::string path = path_argument(value, "data_dir");
  if (path.find('\0') == std::string::npos) return path;
  PyErr_Format(PyExc_ValueError, "data_dir is not a safe directory: %U", path_to_python(path).ptr());
  throw py::error_already_set();
}

std::string text_argument(const py::handle& value, const char* name) {
  if (!PyUnicode_Check(value.ptr())) raise_argument_type(name, "str", value);
  return text_from_python(value);
}

std::optional<std::string> optional_text_argument(const py::handle& value, const char* name) {
  if (value.is_none()) return std::nullopt;
  return text_argument(value, name);
}

double number_argument(const py::handle& value, const char* name) {
  const double number = PyFloat_AsDouble(value.ptr());
  if (number != -1.0 || PyErr_Occurred() == nullptr) return number;
  if (PyErr_ExceptionMatches(PyExc_TypeError) == 0) throw py::error_already_set();
  PyErr_Clear();
  raise_argument_type(name, "a number", value);
}

std::int64_t integer_argument(const py::handle& value, const char* name) {
  if (PyIndex_Check(value.ptr()) == 0 || PyBool_Check(value.ptr())) raise_argument_type(name, "int", value);
  const Document number = to_document(value, name);
  if (number.is_number_unsigned()) {
    PyErr_Format(PyExc_ValueError, "%s: integer out of the 64-bit range", name);
    throw py::error_already_set();
  }
  return number.get<std::int64_t>();
}

bool flag_argument(const py::handle& value) {
  const int truth = PyObject_IsTrue(value.ptr());
  if (truth < 0) throw py::error_already_set();
  return truth == 1;
}

std::vector<std::string> texts_argument(const py::handle& value, const char* name) {
  if (PyUnicode_Check(value.ptr()) || PyBytes_Check(value.ptr()) || !py::hasattr(value, "__iter__")) {
    raise_argument_type(name, "an iterable of str", value);
  }
  std::vector<std::string> texts;
  for (const py::handle& item : py::iter(value)) {
    if (!PyUnicode_Check(item.ptr())) raise_argument_type(name, "an iterable of str", item);
    texts.push_back(text_from_python(item));
  }
  return texts;
}

py::object callable_argument(const py::object& value, const char* name, bool or_none) {
  if (or_none && value.is_none()) return value;
  if (PyCallable_Check(value.ptr()) == 0) {
    PyErr_Format(PyExc_TypeError, "%s must be callable, got %s", name, Py_TYPE(value.ptr())->tp_name);
    throw py::error_already_set();
  }
  return value;
}

Document market_id_argument(const py::object& value) {
  try {
    return to_document(as_integer(value), "market_id");
  } catch (py::error_already_set&) {
    PyErr_Format(PyExc_ValueError, "market_id must be a positive integer, got %R", value.ptr());
    throw py::error_already_set();
  }
}

Document knob_argument(const py::object& value) {
  try {
    return to_document(value, "knob");
  } catch (py::error_already_set&) {
    return text_from_python(py::str(value));
  }
}

}  // namespace tidalcrest::sync::python
