#pragma once

#include <pybind11/pybind11.h>

#include <string>

#include "tidalcrest/sync/document.hpp"

/// Documents and Python values. Order is kept, booleans stay booleans, and text that is no valid Unicode
/// keeps its surrogates in both directions. All of it needs the GIL.
namespace tidalcrest::sync::python {

namespace py = pybind11;

py::object to_python(const Document& value);
/// Text of the core, which may hold any bytes.
py::str text_to_python(const std::string& text);
/// A path: bytes that are no UTF-8 become surrogates, as everywhere in the host.
py::str path_to_python(const std::string& path);

/// `argument` names the value in failures. Raises `TypeError` for a value that JSON does not know and
/// `ValueError` for an integer beyond 64 bits.
Document to_document(const py::handle& value, const char* argument);
std::string text_from_python(const py::handle& text);

}  // namespace tidalcrest::sync::python
