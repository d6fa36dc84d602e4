#include "host/plain_json.hpp"

#include <cstdint>

#include "host/plain_json_reader.hpp"

namespace tidalcrest::sync {
namespace {

constexpr int DEPTH_LIMIT = 64;             // levels of nesting, as strict JSON allows
constexpr std::ptrdiff_t DIGIT_LIMIT = 18;  // what 64 bits hold with either sign
constexpr std::size_t SMALL_OBJECT = 8;     // members

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Whether a number is longer than its digits so far, or no integer.
bool goes_on(char c) { return is_digit(c) || c == '.' || c == 'e' || c == 'E'; }

}  // namespace

char PlainJsonReader::next() {
  while (_at != _end && (*_at == ' ' || *_at == '\n' || *_at == '\r' || *_at == '\t')) ++_at;
  return _at == _end ? END : *_at;
}

bool PlainJsonReader::take(char expected) {
  if (next() != expected || _at == _end) return false;
  ++_at;
  return true;
}

bool PlainJsonReader::value(Document& value, int depth) {
  switch (next()) {
    case '{':
      return depth < DEPTH_LIMIT && _object(value, depth + 1);
    case '[':
      return depth < DEPTH_LIMIT && _array(value, depth + 1);
    case '"':
      return _string(value);
    case 't':
      return _word("true", value, true);
    case 'f':
      return _word("false", value, false);
    case 'n':
      return _word("null", value, nullptr);
    default:
      return _integer(value);
  }
}

bool PlainJsonReader::skip_value(int depth) {
  if (next() == '"') return text().has_value();
  Document unwanted;
  return value(unwanted, depth);
}

std::optional<std::string_view> PlainJsonReader::text() {
  const char* const begin = ++_at;
  while (_at != _end && static_cast<unsigned char>(*_at) >= ' ' && *_at != '"' && *_at != '\\') ++_at;
  if (_at == _end || *_at != '"') return std::nullopt;
  return std::string_view(begin, static_cast<std::size_t>(_at++ - begin));
}

bool PlainJsonReader::_object(Document& value, int depth) {
  value = Document::object();
  auto& read = value.get_ref<Document::object_t&>();
  read.reserve(_likely_members);
  const bool whole = members([&](std::string_view name) {
    const auto [member, fresh] = read.emplace(name);
    // The parent does not grow while its member is read.
    return fresh && this->value(member->second, depth);
  });
  if (!read.empty() && read.size() <= SMALL_OBJECT) _likely_members = read.size();
  return whole;
}

bool PlainJsonReader::_array(Document& value, int depth) {
  ++_at;
  value = Document::array();
  auto& items = value.get_ref<Document::array_t&>();
  if (take(']')) return true;
  do {
    if (!this->value(items.emplace_back(), depth)) return false;
  } while (take(','));
  return take(']');
}

bool PlainJsonReader::_string(Document& value) {
  const auto read = text();
  if (read) value = std::string(*read);
  return read.has_value();
}

template <class Meaning>
bool PlainJsonReader::_word(std::string_view word, Document& value, Meaning meaning) {
  if (!std::string_view(_at, static_cast<std::size_t>(_end - _at)).starts_with(word)) return false;
  _at += word.size();
  value = meaning;
  return true;
}

bool PlainJsonReader::_integer(Document& value) {
  const bool negative = take('-');
  const char* const begin = _at;
  std::int64_t number = 0;
  while (_at != _end && is_digit(*_at) && _at - begin < DIGIT_LIMIT) number = number * 10 + (*_at++ - '0');
  const bool leading_zero = _at - begin > 1 && *begin == '0';
  if (_at == begin || leading_zero || (negative && number == 0) || (_at != _end && goes_on(*_at)))
    return false;
  if (negative) {
    value = -number;
  } else {
    value = static_cast<std::uint64_t>(number);
  }
  return true;
}

std::optional<Document> read_plain_json(std::string_view text) {
  PlainJsonReader reader(text);
  Document root;
  if (!reader.value(root, 0) || !reader.at_end()) return std::nullopt;
  return root;
}

}  // namespace tidalcrest::sync
