#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

/// The host's `int()`: integers as they stand, booleans as 0 and 1, floats truncated, decimal text with
/// surrounding white space, a sign and single underscores between digits. Everything else is a
/// `TypeError` (wrong type) or a `ValueError` (bad text, not a number, out of the 64-bit range).
std::int64_t to_int(const Document& value);
std::int64_t to_int(std::string_view value);

/// The same, 0 for what the host takes for false: null, an empty text.
std::int64_t int_or_zero(const Document& value);

/// The same, absent where `to_int` throws.
std::optional<std::int64_t> try_int(const Document& value) noexcept;

}  // namespace tidalcrest::sync
