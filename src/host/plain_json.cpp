#include "host/plain_json.hpp"

#include <cstdint>
#include <utility>

namespace tidalcrest::sync {
namespace {

constexpr int DEPTH_LIMIT = 64;             // levels of nesting, as strict JSON allows
constexpr std::ptrdiff_t DIGIT_LIMIT = 18;  // what 64 bits hold with either sign
constexpr std::size_t SMALL_OBJECT = 8;     // members

class PlainReader {
 public:
  explicit PlainReader(std::string_view text) : _at(text.data()), _end(text.data() + text.size()) {}

  std::optional<Document> read() {
    Document root;
    if (!_value(root, 0)) return std::nullopt;
    _next();
    if (_at != _end) return std::nullopt;
    return root;
  }

 private:
  static constexpr char END = '\0';  // no JSON text holds it outside a string

  // The first character that is no white space.
  char _next() {
    while (_at != _end && (*_at == ' ' || *_at == '\n' || *_at == '\r' || *_at == '\t')) ++_at;
    return _at == _end ? END : *_at;
  }

  bool _take(char expected) {
    if (_next() != expected || _at == _end) return false;
    ++_at;
    return true;
  }

  bool _value(Document& value, int depth) {
    switch (_next()) {
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

  bool _object(Document& value, int depth) {
    ++_at;
    value = Document::object();
    auto& members = value.get_ref<Document::object_t&>();
    if (_take('}')) return true;
    members.reserve(_likely_members);
    do {
      const auto name = _next() == '"' ? _text() : std::nullopt;
      if (!name || !_take(':')) return false;
      const auto [member, fresh] = members.emplace(*name);
      // The parent does not grow while its member is read.
      if (!fresh || !_value(member->second, depth)) return false;
    } while (_take(','));
    if (members.size() <= SMALL_OBJECT) _likely_members = members.size();
    return _take('}');
  }

  bool _array(Document& value, int depth) {
    ++_at;
    value = Document::array();
    auto& items = value.get_ref<Document::array_t&>();
    if (_take(']')) return true;
    do {
      if (!_value(items.emplace_back(), depth)) return false;
    } while (_take(','));
    return _take(']');
  }

  bool _string(Document& value) {
    const auto read = _text();
    if (read) value = std::string(*read);
    return read.has_value();
  }

  // What stands between two quotes, when nothing in it is escaped or must have been.
  std::optional<std::string_view> _text() {
    const char* const begin = ++_at;
    while (_at != _end && static_cast<unsigned char>(*_at) >= ' ' && *_at != '"' && *_at != '\\') ++_at;
    if (_at == _end || *_at != '"') return std::nullopt;
    return std::string_view(begin, static_cast<std::size_t>(_at++ - begin));
  }

  template <class Meaning>
  bool _word(std::string_view word, Document& value, Meaning meaning) {
    if (!std::string_view(_at, static_cast<std::size_t>(_end - _at)).starts_with(word)) return false;
    _at += word.size();
    value = meaning;
    return true;
  }

  bool _integer(Document& value) {
    const bool negative = _take('-');
    const char* const begin = _at;
    std::int64_t number = 0;
    while (_at != _end && *_at >= '0' && *_at <= '9' && _at - begin < DIGIT_LIMIT)
      number = number * 10 + (*_at++ - '0');
    const bool leading_zero = _at - begin > 1 && *begin == '0';
    if (_at == begin || leading_zero || (negative && number == 0) || (_at != _end && _goes_on(*_at)))
      return false;
    if (negative) {
      value = -number;
    } else {
      value = static_cast<std::uint64_t>(number);
    }
    return true;
  }

  // Whether a number is longer than its digits so far, or no integer.
  static bool _goes_on(char c) { return (c >= '0' && c <= '9') || c == '.' || c == 'e' || c == 'E'; }

  const char* _at;
  const char* const _end;
  std::size_t _likely_members = 0;  // as many as the last small object: entries of one map look alike
};

}  // namespace

std::optional<Document> read_plain_json(std::string_view text) { return PlainReader(text).read(); }

}  // namespace tidalcrest::sync
