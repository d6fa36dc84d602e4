#pragma once

#include <string>
#include <string_view>

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

/// The text of the value without surrounding white space; empty for null.
std::string _normalize_named_universe(const Document& value);

/// Whether a universe could not stand as one path segment: `.`, `..`, a leading dot, a slash, a backslash or
/// a control character.
bool _is_unsafe_named_universe(std::string_view named_universe) noexcept;

}  // namespace tidalcrest::sync
