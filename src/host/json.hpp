#pragma once

#include <string>
#include <string_view>

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

/// Parses one UTF-8 JSON value as the host does: the last of two equal keys wins. Throws
/// `UnicodeDecodeError` or `JSONDecodeError`, each with a position.
Document parse_json(std::string_view bytes);

/// Parses strict JSON: UTF-8 without a byte order mark, one value, no duplicate key in any object, no NaN or
/// Infinity, nothing after the value but white space, at most 64 levels deep. A duplicate key is refused
/// because two parsers could read two different documents from the same bytes. Throws as `parse_json`.
Document parse_strict_json(std::string_view bytes);

struct JsonStyle {
  bool sort_keys = false;  ///< at every level
  bool compact = false;    ///< separators "," and ":" in place of ", " and ": "
};

/// JSON text as the host writes it by default: ASCII only, separators ", " and ": ", shortest floats.
std::string dump_json(const Document& value, JsonStyle style = {});

/// The member of an object, or null when `value` is no object or has no such key.
const Document* find_member(const Document& value, std::string_view key);
/// The same, with a null value for null.
const Document& member_or_null(const Document& value, std::string_view key);
/// The plain text of a member; `otherwise` when the host takes the member for false, as what is missing.
std::string member_text(const Document& value, std::string_view key, std::string_view otherwise = {});

}  // namespace tidalcrest::sync
