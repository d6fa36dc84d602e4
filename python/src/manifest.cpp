#include "tidalcrest/sync/manifest.hpp"

#include <pybind11/stl.h>

#include <array>

#include "bindings.hpp"
#include "collectable.hpp"
#include "documents.hpp"

namespace tidalcrest::sync::python {
namespace {

// A member of a manifest that stays as it is until someone asks for all of it.
class DocumentView {
 public:
  DocumentView(std::shared_ptr<const void> owner, const Document& object)
      : _owner(std::move(owner)), _members(object.get_ref<const Document::object_t&>()) {}

  std::size_t size() const noexcept { return _members.size(); }
  bool contains(const py::handle& key) const { return _find(key) != _members.end(); }
  py::object member(const py::object& key) const {
    const auto found = _find(key);
    if (found == _members.end()) {
      PyErr_SetObject(PyExc_KeyError, key.ptr());
      throw py::error_already_set();
    }
    return to_python(found->second);
  }
  py::object first_key() const {
    if (_members.empty()) return py::none();
    return text_to_python(_members.begin()->first);
  }
  py::list keys() const {
    py::list names(_members.size());
    Py_ssize_t index = 0;
    for (const auto& member : _members) {
      PyList_SET_ITEM(names.ptr(), index++, text_to_python(member.first).release().ptr());
    }
    return names;
  }

 private:
  Document::object_t::const_iterator _find(const py::handle& key) const {
    return PyUnicode_Check(key.ptr()) ? _members.find(text_from_python(key)) : _members.end();
  }
  const std::shared_ptr<const void> _owner;
  const Document::object_t& _members;
};

// The same for the files, of which no document need be made.
class FilesView {
 public:
  explicit FilesView(std::shared_ptr<const Manifest> manifest) : _manifest(std::move(manifest)) {}

  std::size_t size() const noexcept { return _files().size(); }
  bool contains(const py::handle& key) const { return _find(key).has_value(); }
  py::object member(const py::object& key) const {
    const auto found = _find(key);
    if (!found) {
      PyErr_SetObject(PyExc_KeyError, key.ptr());
      throw py::error_already_set();
    }
    return to_python(found->document());
  }
  py::object first_key() const {
    if (_files().empty()) return py::none();
    return text_to_python(std::string(_files()[0].first));
  }
  py::list keys() const {
    py::list names(size());
    Py_ssize_t index = 0;
    for (const auto& [path, entry] : _files())
      PyList_SET_ITEM(names.ptr(), index++, text_to_python(std::string(path)).release().ptr());
    return names;
  }

 private:
  const ManifestEntries& _files() const noexcept { return _manifest->entries(); }
  std::optional<FileEntry> _find(const py::handle& key) const {
    return PyUnicode_Check(key.ptr()) ? _files().find(text_from_python(key)) : std::nullopt;
  }
  const std::shared_ptr<const Manifest> _manifest;
};

template <class View>
py::object lazy_dict_of(View view) {
  return py::module_::import("tidalcrest.sync._lazy_dict").attr("LazyDict")(std::move(view));
}

py::object lazy_dict(std::shared_ptr<const void> owner, const Document& value) {
  if (!value.is_object()) return to_python(value);
  return lazy_dict_of(DocumentView(std::move(owner), value));
}

template <class View>
void bind_view(py::module_& module, const char* name) {
  py::class_<View>(module, name)
      .def("__len__", &View::size)
      .def("__contains__", &View::contains)
      .def("__getitem__", &View::member)
      .def("first_key", &View::first_key)
      .def("keys", &View::keys);
}

// Made once for each Python object: asking twice gives the same dict.
template <class Make>
py::object remembered(const py::object& self, const char* name, Make make) {
  const py::dict known = self.attr("__dict__");
  if (known.contains(name)) return known[name];
  const py::object value = make();
  known[name] = value;
  return value;
}

using Attribute = const Document& (Manifest::*)() const;

auto lazy(const char* name, Attribute attribute) {
  return [name, attribute](const py::object& self) {
    return remembered(self, name, [&] {
      auto manifest = self.cast<std::shared_ptr<Manifest>>();
      const Document& value = ((*manifest).*attribute)();
      return lazy_dict(std::move(manifest), value);
    });
  };
}

py::object files_getter(const py::object& self) {
  return remembered(self, "files",
                    [&] { return lazy_dict_of(FilesView(self.cast<std::shared_ptr<Manifest>>())); });
}

auto plain(Attribute attribute) {
  return [attribute](const Manifest& manifest) { return to_python((manifest.*attribute)()); };
}

using Section = Document MembershipSections::*;

auto section_getter(const char* name, Section section) {
  return [name, section](const py::object& self) -> py::object {
    const auto sections = self.cast<Manifest&>().membership();
    if (!sections || ((*sections).*section).is_null()) return py::none();
    return remembered(self, name, [&] { return lazy_dict(sections, (*sections).*section); });
  };
}

auto section_setter(const char* name, Section section) {
  return [name, section](const py::object& self, const py::object& value) {
    const auto& manifest = self.cast<const Manifest&>();
    const auto known = manifest.membership();
    auto sections =
        known ? std::make_shared<MembershipSections>(*known) : std::make_shared<MembershipSections>();
    (*sections).*section = to_document(value, name);
    manifest.install_membership(std::move(sections));
    self.attr("__dict__").attr("pop")(name, py::none());
  };
}

std::shared_ptr<Manifest> manifest_of(const py::object& data) {
  if (!PyMapping_Check(data.ptr()) || PyUnicode_Check(data.ptr()) || !py::hasattr(data, "items")) {
    PyErr_Format(PyExc_TypeError, "data must be a mapping, not %s", Py_TYPE(data.ptr())->tp_name);
    throw py::error_already_set();
  }
  return std::make_shared<Manifest>(to_document(data, "data"));
}

}  // namespace

void bind_manifest(py::module_& module) {
  bind_view<DocumentView>(module, "DocumentView");
  bind_view<FilesView>(module, "FilesView");

  py::class_<Manifest, std::shared_ptr<Manifest>> manifest(
      module, "Manifest", py::dynamic_attr(), "In-memory representation of the server manifest.");
  hide_dying_from_collector(manifest);
  manifest
      .def(py::init(&manifest_of), py::arg("data"),
           "Sanitises and validates a parsed manifest document. Raises ManifestError.")
      .def_static("from_dict", &manifest_of, py::arg("data"), "The same as construction.")
      .def(
          "to_dict", [](const Manifest& manifest) { return to_python(manifest.to_dict()); },
          "A new dict ready to serialise, with the membership sections and a fresh count, or without any of "
          "them.")
      .def_property_readonly("_data", lazy("_data", &Manifest::data), "The sanitised document.")
      .def_property_readonly("era_number", plain(&Manifest::era_number), "The era, as in the document.")
      .def_property_readonly("version", plain(&Manifest::version),
                             "Generation within the era; 0 when missing.")
      .def_property_readonly("market_id", plain(&Manifest::market_id), "Market identity, or None.")
      .def_property_readonly("base_url", plain(&Manifest::base_url), "Public data origin, or None.")
      .def_property_readonly("shuffle_key_generation", plain(&Manifest::shuffle_key_generation),
                             "Generation of the shuffle key, or None.")
      .def_property_readonly("shuffle_key_source", plain(&Manifest::shuffle_key_source),
                             "Source of the shuffle key, or None.")
      .def_property_readonly("pnl_column_count", plain(&Manifest::pnl_column_count), "0 when missing.")
      .def_property_readonly(
          "files", files_getter,
          "Manifest relative path to file entry. A dict whose entries are converted when asked for.")
      .def_property_readonly("signals_index", lazy("signals_index", &Manifest::signals_index),
                             "Declaration of the signals index sidecar, or None.")
      .def_property_readonly("functions", lazy("functions", &Manifest::functions),
                             "Pointer to functions.json, or None.")
      .def_property("found_signals", section_getter("found_signals", &MembershipSections::found_signals),
                    section_setter("found_signals", &MembershipSections::found_signals),
                    "One entry per found signal, or None until the membership is known.")
      .def_property("found_strategies",
                    section_getter("found_strategies", &MembershipSections::found_strategies),
                    section_setter("found_strategies", &MembershipSections::found_strategies),
                    "One entry per found strategy, or None until the membership is known.")
      .def_property("useful_signals", section_getter("useful_signals", &MembershipSections::useful_signals),
                    section_setter("useful_signals", &MembershipSections::useful_signals),
                    "One entry per useful signal, or None until the membership is known.")
      .def("__repr__", [](const Manifest& manifest) {
        return py::str("<Manifest era_number={} version={} files={}>")
            .format(to_python(manifest.era_number()), to_python(manifest.version()),
                    manifest.entries().size());
      });
}

}  // namespace tidalcrest::sync::python
