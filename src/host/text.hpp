#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tidalcrest/sync/document.hpp"

/// Text forms of values. They follow the host, which is Python: messages, events and files that hold a
/// `None`, a `True`, a quoted string or a float read the same from every face of the system.
namespace tidalcrest::sync::text {

/// Quoted form of a string: single quotes unless the text holds one and no double quote; control
/// characters, backslashes and non-printable code points escaped.
std::string repr(std::string_view value);
inline std::string repr(const std::string& value) { return repr(std::string_view(value)); }
/// Quoted form of a document value: `None`, `True`, `['a', 1]`, `{'k': 1.0}`.
std::string repr(const Document& value);
/// Plain form: a string as it stands, everything else as `repr`.
std::string str(const Document& value);
/// `['a', 'b']`
std::string list_text(const std::vector<std::string>& values);
/// `[503, 503]`
std::string list_text(const std::vector<std::int64_t>& values);
/// `True` or `False`
const char* bool_text(bool value) noexcept;
/// Shortest form that reads back equal: `0.5`, `30.0`, `1e+16`, `nan`, `inf`.
std::string float_text(double value);
/// The "%g" form: `30`, `2.5`.
std::string general_text(double value);

/// The host's name of a value's type: `NoneType`, `bool`, `int`, `float`, `str`, `list`, `dict`.
const char* type_name(const Document& value) noexcept;
/// The host's truth of a value: null, false, zero and everything empty are false.
bool truthy(const Document& value);

/// Without surrounding white space (the ASCII set and what Unicode adds to it).
std::string strip(std::string_view value);
std::string lower(std::string_view value);  // ASCII letters only
std::vector<std::string> split(std::string_view value, std::string_view separator);
std::string join(const std::vector<std::string>& values, std::string_view separator);
/// Lower-case hexadecimal.
std::string hex(std::string_view bytes);
bool is_valid_utf8(std::string_view bytes) noexcept;
/// Bytes as text: each malformed sequence becomes U+FFFD.
std::string utf8_with_replacement(std::string_view bytes);

}  // namespace tidalcrest::sync::text
