#pragma once

#include <pybind11/pybind11.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tidalcrest/sync/document.hpp"

/// What callers hand in. Every failure names the argument. All of it needs the GIL.
namespace tidalcrest::sync::python {

namespace py = pybind11;

[[noreturn]] void raise_argument_type(const char* name, const char* expected, const py::handle& given);

/// The attribute, or `otherwise` where there is none. A property that fails in another way is no missing one.
py::object attribute_or(const py::handle& value, const char* attribute_name, const py::object& otherwise);

/// `str` or `os.PathLike` of `str`.
std::string path_argument(const py::handle& value, const char* name);
/// The same for the data directory of a manager: `ValueError` in the contract's words for a NUL.
std::string data_dir_argument(const py::handle& value);
std::string text_argument(const py::handle& value, const char* name);
std::optional<std::string> optional_text_argument(const py::handle& value, const char* name);
double number_argument(const py::handle& value, const char* name);
/// An integer of 64 bits, and no truth value.
std::int64_t integer_argument(const py::handle& value, const char* name);
/// Anything that has a truth value.
bool flag_argument(const py::handle& value);
/// Any iterable of texts, but no text itself.
std::vector<std::string> texts_argument(const py::handle& value, const char* name);
/// A callable; `None` too where `or_none`.
py::object callable_argument(const py::object& value, const char* name, bool or_none);
/// What converts to an integer goes on as such; for the rest `ValueError` in the contract's words.
Document market_id_argument(const py::object& value);
/// What is no JSON value goes on as its text, which the core refuses in the contract's words.
Document knob_argument(const py::object& value);

}  // namespace tidalcrest::sync::python
