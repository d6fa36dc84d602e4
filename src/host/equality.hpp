#pragma once

#include <cstdint>

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

/// The host's `==`: numbers by value whatever their type (7 equals 7.0, true equals 1, nothing is rounded),
/// strings by their text, containers member by member. A number never equals a string.
bool host_equal(const Document& a, const Document& b);
bool host_equal(const Document& a, std::int64_t b);

}  // namespace tidalcrest::sync
