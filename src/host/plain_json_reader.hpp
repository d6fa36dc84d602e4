#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

/// Reads plain JSON from left to right: strings without any escape, integers of at most 18 digits, true,
/// false and null, no duplicate key, at most 64 levels deep. Whatever else stands there ends the reading with
/// false or absent. Refers to the text, which must be valid UTF-8.
class PlainJsonReader {
 public:
  static constexpr char END = '\0';  ///< no JSON text holds it outside a string

  explicit PlainJsonReader(std::string_view text)
      : _begin(text.data()), _at(text.data()), _end(text.data() + text.size()) {}

  /// The first character that is no white space; the reader stands on it.
  char next();
  /// Passes the character when it is the next.
  bool take(char expected);
  bool at_end() { return next() == END && _at == _end; }
  /// Bytes before the reader.
  std::size_t position() const noexcept { return static_cast<std::size_t>(_at - _begin); }

  /// One value that lies `depth` levels deep.
  bool value(Document& value, int depth);
  /// The same where nobody wants it.
  bool skip_value(int depth);
  /// What stands between two quotes; the reader stands on the first.
  std::optional<std::string_view> text();
  /// An object whose member values `read_member(name)` reads; false of it ends the reading. Equal names are
  /// its concern. The reader stands on the brace.
  template <class ReadMember>
  bool members(ReadMember read_member) {
    ++_at;
    if (take('}')) return true;
    do {
      const auto name = next() == '"' ? text() : std::nullopt;
      if (!name || !take(':') || !read_member(*name)) return false;
    } while (take(','));
    return take('}');
  }

 private:
  bool _object(Document& value, int depth);
  bool _array(Document& value, int depth);
  bool _string(Document& value);
  template <class Meaning>
  bool _word(std::string_view word, Document& value, Meaning meaning);
  bool _integer(Document& value);

  const char* const _begin;
  const char* _at;
  const char* const _end;
  std::size_t _likely_members = 0;  // as many as the last small object: entries of one map look alike
};

}  // namespace tidalcrest::sync
