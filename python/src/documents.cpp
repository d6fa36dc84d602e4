#include "documents.hpp"

#include <utility>

namespace tidalcrest::sync::python {
namespace {

py::object checked(PyObject* fresh) {
  if (fresh == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(fresh);
}

[[noreturn]] void raise_type(const char* argument, const char* what, const py::handle& value) {
  PyErr_Format(PyExc_TypeError, "%s: %s, not %s", argument, what, Py_TYPE(value.ptr())->tp_name);
  throw py::error_already_set();
}

// Values may hold each other in a circle.
class RecursionGuard {
 public:
  RecursionGuard() {
    if (Py_EnterRecursiveCall(" while converting a document") != 0) throw py::error_already_set();
  }
  RecursionGuard(const RecursionGuard&) = delete;
  RecursionGuard& operator=(const RecursionGuard&) = delete;
  ~RecursionGuard() { Py_LeaveRecursiveCall(); }
};

Document integer_from_python(const py::handle& value, const char* argument) {
  const py::object index = checked(PyNumber_Index(value.ptr()));
  int overflow = 0;
  const long long number = PyLong_AsLongLongAndOverflow(index.ptr(), &overflow);
  if (overflow == 0) return Document(static_cast<std::int64_t>(number));
  if (overflow > 0) {
    const unsigned long long large = PyLong_AsUnsignedLongLong(index.ptr());
    if (PyErr_Occurred() == nullptr) return Document(static_cast<std::uint64_t>(large));
    PyErr_Clear();
  }
  PyErr_Format(PyExc_ValueError, "%s: integer out of the 64-bit range", argument);
  throw py::error_already_set();
}

void add_member(Document::object_t& object, const py::handle& key, const py::handle& value,
                const char* argument) {
  if (!PyUnicode_Check(key.ptr())) raise_type(argument, "keys must be str", key);
  object[text_from_python(key)] = to_document(value, argument);
}

Document object_from_python(const py::handle& value, const char* argument) {
  Document object = Document::object();
  auto& members = object.get_ref<Document::object_t&>();
  if (PyDict_CheckExact(value.ptr())) {
    for (const auto& [key, item] : py::reinterpret_borrow<py::dict>(value))
      add_member(members, key, item, argument);
    return object;
  }
  for (const py::handle& pair : py::iter(value.attr("items")())) {
    const auto member = py::reinterpret_borrow<py::sequence>(pair);
    const py::object key = member[0];
    const py::object item = member[1];
    add_member(members, key, item, argument);
  }
  return object;
}

Document array_from_python(const py::handle& value, const char* argument) {
  Document array = Document::array();
  for (const py::handle& item : py::iter(value)) array.push_back(to_document(item, argument));
  return array;
}

bool is_mapping(const py::handle& value) {
  return PyDict_Check(value.ptr()) ||
         (PyMapping_Check(value.ptr()) != 0 && py::hasattr(value, "items") && py::hasattr(value, "keys"));
}

py::object object_to_python(const Document::object_t& members) {
  py::dict dict;
  for (const auto& [key, value] : members) {
    if (PyDict_SetItem(dict.ptr(), text_to_python(key).ptr(), to_python(value).ptr()) != 0) {
      throw py::error_already_set();
    }
  }
  return dict;
}

py::object array_to_python(const Document::array_t& items) {
  py::list list(items.size());
  Py_ssize_t index = 0;
  for (const auto& item : items) PyList_SET_ITEM(list.ptr(), index++, to_python(item).release().ptr());
  return list;
}

}  // namespace

py::str text_to_python(const std::string& text) {
  PyObject* const decoded =
      PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogatepass");
  if (decoded != nullptr) return py::reinterpret_steal<py::str>(decoded);
  PyErr_Clear();
  return checked(PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogateescape"));
}

py::str path_to_python(const std::string& path) {
  return checked(PyUnicode_DecodeFSDefaultAndSize(path.data(), static_cast<Py_ssize_t>(path.size())));
}

py::object to_python(const Document& value) {
  switch (value.type()) {
    case Document::value_t::boolean:
      return py::bool_(value.get<bool>());
    case Document::value_t::number_integer:
      return py::int_(value.get<std::int64_t>());
    case Document::value_t::number_unsigned:
      return py::int_(value.get<std::uint64_t>());
    case Document::value_t::number_float:
      return py::float_(value.get<double>());
    case Document::value_t::string:
      return text_to_python(value.get_ref<const std::string&>());
    case Document::value_t::array:
      return array_to_python(value.get_ref<const Document::array_t&>());
    case Document::value_t::object:
      return object_to_python(value.get_ref<const Document::object_t&>());
    default:
      return py::none();
  }
}

std::string text_from_python(const py::handle& text) {
  Py_ssize_t size = 0;
  const char* const utf8 = PyUnicode_AsUTF8AndSize(text.ptr(), &size);
  if (utf8 != nullptr) return {utf8, static_cast<std::size_t>(size)};
  PyErr_Clear();
  const py::object bytes = checked(PyUnicode_AsEncodedString(text.ptr(), "utf-8", "surrogatepass"));
  return py::reinterpret_borrow<py::bytes>(bytes);
}

Document to_document(const py::handle& value, const char* argument) {
  const RecursionGuard guard;
  PyObject* const object = value.ptr();
  if (value.is_none()) return nullptr;
  if (PyBool_Check(object)) return object == Py_True;
  if (PyFloat_Check(object)) return PyFloat_AS_DOUBLE(object);
  if (PyUnicode_Check(object)) return text_from_python(value);
  if (PyIndex_Check(object)) return integer_from_python(value, argument);
  if (PyList_Check(object) || PyTuple_Check(object)) return array_from_python(value, argument);
  if (is_mapping(value)) return object_from_python(value, argument);
  raise_type(argument, "expected a JSON value", value);
}

}  // namespace tidalcrest::sync::python
