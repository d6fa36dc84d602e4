#include "host/json.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "host/never_destroyed.hpp"
#include "host/plain_json.hpp"
#include "host/text.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

constexpr std::size_t STRICT_DEPTH_LIMIT = 64;  // levels of nesting in strict JSON
constexpr std::size_t PLAIN_DEPTH_LIMIT = 990;  // where the host's own parser gives up

// Builds a document from parser events; knows the two rules that the library does not have: the depth limit
// and the refusal of duplicate keys.
class DocumentBuilder {
 public:
  using number_integer_t = Document::number_integer_t;
  using number_unsigned_t = Document::number_unsigned_t;
  using number_float_t = Document::number_float_t;
  using string_t = Document::string_t;
  using binary_t = Document::binary_t;

  DocumentBuilder(bool strict, std::size_t depth_limit) : _strict(strict), _depth_limit(depth_limit) {}

  bool null() { return put(nullptr); }
  bool boolean(bool value) { return put(value); }
  bool number_integer(number_integer_t value) { return put(value); }
  bool number_unsigned(number_unsigned_t value) { return put(value); }
  bool number_float(number_float_t value, const string_t&) { return put(value); }
  bool string(string_t& value) { return put(std::move(value)); }
  bool binary(binary_t&) { return false; }
  bool start_object(std::size_t) {
    Document object = Document::object();
    object.get_ref<Document::object_t&>().reserve(_likely_members);
    return open(std::move(object));
  }
  bool start_array(std::size_t) { return open(Document::array()); }
  bool end_object() {
    const std::size_t members = _open.back()->size();
    if (members <= SMALL_OBJECT) _likely_members = members;
    return close();
  }
  bool end_array() { return close(); }

  bool key(string_t& name) {
    auto& object = _open.back()->get_ref<Document::object_t&>();
    const auto [member, fresh] = object.emplace(name);
    if (!fresh && _strict) throw JSONDecodeError("duplicate key " + text::repr(std::string_view(name)));
    _member = &member->second;
    return true;
  }

  bool parse_error(std::size_t position, const std::string&, const nlohmann::detail::exception& failure) {
    // The library's text is "[json.exception.parse_error.101] parse error at line 1, column 2: why"; its tag
    // is of no use to the reader.
    std::string why = failure.what();
    if (const auto end = why.find("] "); end != std::string::npos) why.erase(0, end + 2);
    throw JSONDecodeError(fmt::format("{} (byte {})", why, position));
  }

  Document take() { return std::move(_root); }

 private:
  template <class Value>
  Document* place(Value&& value) {
    if (_open.empty()) {
      _root = std::forward<Value>(value);
      return &_root;
    }
    if (_open.back()->is_object()) {
      *_member = std::forward<Value>(value);
      return _member;
    }
    auto& array = _open.back()->get_ref<Document::array_t&>();
    array.emplace_back(std::forward<Value>(value));
    return &array.back();
  }

  template <class Value>
  bool put(Value&& value) {
    place(Document(std::forward<Value>(value)));
    return true;
  }

  bool open(Document container) {
    if (_open.size() >= _depth_limit) {
      throw JSONDecodeError(fmt::format("nested more than {} levels deep", _depth_limit));
    }
    _open.push_back(place(std::move(container)));
    return true;
  }

  bool close() {
    _open.pop_back();
    return true;
  }

  static constexpr std::size_t SMALL_OBJECT = 8;  // members

  const bool _strict;
  const std::size_t _depth_limit;
  std::size_t _likely_members = 0;  // as many as the last small object: entries of one map look alike
  Document _root;
  std::vector<Document*> _open;  // a parent does not grow while its child is open, so these stay valid
  Document* _member = nullptr;
};

Document parse(std::string_view bytes, bool strict) {
  if (!text::is_valid_utf8(bytes)) throw UnicodeDecodeError("'utf-8' codec can't decode the bytes");
  if (bytes.starts_with("\xEF\xBB\xBF")) throw JSONDecodeError("unexpected UTF-8 byte order mark (byte 0)");
  if (auto document = read_plain_json(bytes)) return *std::move(document);
  DocumentBuilder builder(strict, strict ? STRICT_DEPTH_LIMIT : PLAIN_DEPTH_LIMIT);
  Document::sax_parse(bytes.begin(), bytes.end(), &builder);
  return builder.take();
}

void write(std::string& out, const Document& value, JsonStyle style) {
  const char* const comma = style.compact ? "," : ", ";
  const char* const colon = style.compact ? ":" : ": ";
  if (value.is_array()) {
    out += '[';
    bool first = true;
    for (const auto& item : value) {
      if (!std::exchange(first, false)) out += comma;
      write(out, item, style);
    }
    out += ']';
  } else if (value.is_object()) {
    std::vector<const Document::object_t::value_type*> members;
    for (const auto& member : value.get_ref<const Document::object_t&>()) members.push_back(&member);
    if (style.sort_keys) {
      std::sort(members.begin(), members.end(),
                [](const auto* a, const auto* b) { return a->first < b->first; });
    }
    out += '{';
    bool first = true;
    for (const auto* member : members) {
      if (!std::exchange(first, false)) out += comma;
      out += Document(member->first).dump(-1, ' ', true) + colon;
      write(out, member->second, style);
    }
    out += '}';
  } else if (value.is_number_float()) {
    out += text::float_text(value.get<double>());
  } else {
    out += value.dump(-1, ' ', true, Document::error_handler_t::replace);
  }
}

}  // namespace

Document parse_json(std::string_view bytes) { return parse(bytes, false); }

Document parse_strict_json(std::string_view bytes) { return parse(bytes, true); }

std::string dump_json(const Document& value, JsonStyle style) {
  std::string out;
  write(out, value, style);
  return out;
}

const Document* find_member(const Document& value, std::string_view key) {
  if (!value.is_object()) return nullptr;
  const auto& object = value.get_ref<const Document::object_t&>();
  const auto member = object.find(key);
  return member == object.end() ? nullptr : &member->second;
}

const Document& member_or_null(const Document& value, std::string_view key) {
  static const auto& null = never_destroyed<const Document>();
  const Document* member = find_member(value, key);
  return member != nullptr ? *member : null;
}

std::string member_text(const Document& value, std::string_view key, std::string_view otherwise) {
  const Document& member = member_or_null(value, key);
  return text::truthy(member) ? text::str(member) : std::string(otherwise);
}

}  // namespace tidalcrest::sync
