#include "host/text.hpp"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace tidalcrest::sync::text {
namespace {

// Length of the well-formed UTF-8 sequence at the start of `bytes`, 0 when there is none; `point` gets the
// code point.
std::size_t decode_one(std::string_view bytes, char32_t& point) noexcept {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const auto continues = [&](std::size_t i) { return i < bytes.size() && (byte(i) & 0xC0u) == 0x80u; };
  const unsigned char lead = byte(0);
  if (lead < 0x80) {
    point = lead;
    return 1;
  }
  if (lead >= 0xC2 && lead <= 0xDF && continues(1)) {
    point = static_cast<char32_t>((lead & 0x1Fu) << 6 | (byte(1) & 0x3Fu));
    return 2;
  }
  if (lead >= 0xE0 && lead <= 0xEF && continues(1) && continues(2)) {
    point = static_cast<char32_t>((lead & 0x0Fu) << 12 | (byte(1) & 0x3Fu) << 6 | (byte(2) & 0x3Fu));
    return point >= 0x800 && (point < 0xD800 || point > 0xDFFF) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4 && continues(1) && continues(2) && continues(3)) {
    point = static_cast<char32_t>((lead & 0x07u) << 18 | (byte(1) & 0x3Fu) << 12 | (byte(2) & 0x3Fu) << 6 |
                                  (byte(3) & 0x3Fu));
    return point >= 0x10000 && point <= 0x10FFFF ? 4 : 0;
  }
  return 0;
}

// How many bytes at the start are ASCII for sure, told eight at a time: nearly all text is.
std::size_t ascii_prefix(std::string_view bytes) noexcept {
  constexpr std::uint64_t HIGH_BITS = 0x8080808080808080u;
  std::size_t checked = 0;
  for (std::uint64_t word = 0; bytes.size() - checked >= sizeof word; checked += sizeof word) {
    std::memcpy(&word, bytes.data() + checked, sizeof word);
    if ((word & HIGH_BITS) != 0) break;
  }
  return checked;
}

// What the host's quoted form escapes: controls, separators other than the blank, surrogates, private use.
bool is_printable(char32_t point) noexcept {
  if (point < 0x20 || (point >= 0x7F && point <= 0xA0) || point == 0xAD) return false;
  if (point == 0x1680 || (point >= 0x2000 && point <= 0x200F) || (point >= 0x2028 && point <= 0x202F))
    return false;
  if ((point >= 0x205F && point <= 0x206F) || point == 0x3000 || point == 0xFEFF) return false;
  if ((point >= 0xE000 && point <= 0xF8FF) || (point >= 0xFFF0 && point <= 0xFFFB)) return false;
  return point < 0xE0000;
}

bool is_space(char32_t point) noexcept {
  return point == 0x20 || (point >= 0x09 && point <= 0x0D) || (point >= 0x1C && point <= 0x1F) ||
         point == 0x85 || point == 0xA0 || point == 0x1680 || (point >= 0x2000 && point <= 0x200A) ||
         point == 0x2028 || point == 0x2029 || point == 0x202F || point == 0x205F || point == 0x3000;
}

std::string escaped(char32_t point) {
  if (point == '\n') return "\\n";
  if (point == '\r') return "\\r";
  if (point == '\t') return "\\t";
  const auto number = static_cast<std::uint32_t>(point);
  if (number < 0x100) return fmt::format("\\x{:02x}", number);
  if (number < 0x10000) return fmt::format("\\u{:04x}", number);
  return fmt::format("\\U{:08x}", number);
}

template <class Value, class Form>
std::string bracketed(const Value& values, Form form) {
  std::string out = "[";
  for (const auto& value : values) {
    if (out.size() > 1) out += ", ";
    out += form(value);
  }
  return out + "]";
}

}  // namespace

std::string repr(std::string_view value) {
  const bool has_single = value.find('\'') != std::string_view::npos;
  const bool has_double = value.find('"') != std::string_view::npos;
  const char quote = has_single && !has_double ? '"' : '\'';
  std::string out(1, quote);
  while (!value.empty()) {
    char32_t point = 0;
    const std::size_t length = decode_one(value, point);
    if (length == 0) {
      out += fmt::format("\\x{:02x}", static_cast<unsigned char>(value[0]));
      value.remove_prefix(1);
      continue;
    }
    if (point == static_cast<char32_t>(quote) || point == '\\') {
      out += '\\';
      out += static_cast<char>(point);
    } else if (is_printable(point)) {
      out += value.substr(0, length);
    } else {
      out += escaped(point);
    }
    value.remove_prefix(length);
  }
  return out + quote;
}

std::string repr(const Document& value) {
  switch (value.type()) {
    case Document::value_t::null:
      return "None";
    case Document::value_t::boolean:
      return bool_text(value.get<bool>());
    case Document::value_t::number_integer:
      return std::to_string(value.get<std::int64_t>());
    case Document::value_t::number_unsigned:
      return std::to_string(value.get<std::uint64_t>());
    case Document::value_t::number_float:
      return float_text(value.get<double>());
    case Document::value_t::string:
      return repr(std::string_view(value.get_ref<const std::string&>()));
    case Document::value_t::array:
      return bracketed(value, [](const Document& item) { return repr(item); });
    case Document::value_t::object: {
      std::string out = "{";
      for (const auto& [key, item] : value.get_ref<const Document::object_t&>()) {
        if (out.size() > 1) out += ", ";
        out += repr(std::string_view(key)) + ": " + repr(item);
      }
      return out + "}";
    }
    default:
      return "<binary>";
  }
}

std::string str(const Document& value) { return value.is_string() ? value.get<std::string>() : repr(value); }

std::string list_text(const std::vector<std::string>& values) {
  return bracketed(values, [](const std::string& value) { return repr(std::string_view(value)); });
}

std::string list_text(const std::vector<std::int64_t>& values) {
  return bracketed(values, [](std::int64_t value) { return std::to_string(value); });
}

const char* bool_text(bool value) noexcept { return value ? "True" : "False"; }

std::string float_text(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  // Shortest digits, then the host's layout: an exponent below -4 or from 16 on, a point otherwise.
  char digits[64];
  const auto end = std::to_chars(digits, digits + sizeof digits, value, std::chars_format::scientific).ptr;
  const std::string_view scientific(digits, static_cast<std::size_t>(end - digits));
  const auto e = scientific.find('e');
  const int exponent = std::stoi(std::string(scientific.substr(e + 1)));
  if (exponent < -4 || exponent >= 16) return std::string(scientific);
  char fixed[400];
  const auto fixed_end = std::to_chars(fixed, fixed + sizeof fixed, value, std::chars_format::fixed).ptr;
  std::string out(fixed, fixed_end);
  if (out.find('.') == std::string::npos) out += ".0";
  return out;
}

std::string general_text(double value) { return fmt::format("{:g}", value); }

const char* type_name(const Document& value) noexcept {
  switch (value.type()) {
    case Document::value_t::null:
      return "NoneType";
    case Document::value_t::boolean:
      return "bool";
    case Document::value_t::number_integer:
    case Document::value_t::number_unsigned:
      return "int";
    case Document::value_t::number_float:
      return "float";
    case Document::value_t::string:
      return "str";
    case Document::value_t::array:
      return "list";
    case Document::value_t::object:
      return "dict";
    default:
      return "bytes";
  }
}

bool truthy(const Document& value) {
  switch (value.type()) {
    case Document::value_t::null:
      return false;
    case Document::value_t::boolean:
      return value.get<bool>();
    case Document::value_t::number_integer:
      return value.get<std::int64_t>() != 0;
    case Document::value_t::number_unsigned:
      return value.get<std::uint64_t>() != 0;
    case Document::value_t::number_float:
      return value.get<double>() != 0.0;
    case Document::value_t::string:
      return !value.get_ref<const std::string&>().empty();
    default:
      return !value.empty();
  }
}

std::string strip(std::string_view value) {
  while (!value.empty()) {
    char32_t point = 0;
    const std::size_t length = decode_one(value, point);
    if (length == 0 || !is_space(point)) break;
    value.remove_prefix(length);
  }
  while (!value.empty()) {
    std::size_t start = value.size() - 1;
    while (start > 0 && (static_cast<unsigned char>(value[start]) & 0xC0u) == 0x80u) --start;
    char32_t point = 0;
    const std::size_t length = decode_one(value.substr(start), point);
    if (length != value.size() - start || !is_space(point)) break;
    value.remove_suffix(length);
  }
  return std::string(value);
}

std::string lower(std::string_view value) {
  std::string out(value);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::vector<std::string> split(std::string_view value, std::string_view separator) {
  std::vector<std::string> parts;
  for (;;) {
    const auto at = value.find(separator);
    parts.emplace_back(value.substr(0, at));
    if (at == std::string_view::npos) return parts;
    value.remove_prefix(at + separator.size());
  }
}

std::string join(const std::vector<std::string>& values, std::string_view separator) {
  return fmt::format("{}", fmt::join(values, separator));
}

std::string hex(std::string_view bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    out += digits[byte >> 4];
    out += digits[byte & 15];
  }
  return out;
}

bool is_valid_utf8(std::string_view bytes) noexcept {
  while (!bytes.empty()) {
    bytes.remove_prefix(ascii_prefix(bytes));
    if (bytes.empty()) return true;
    char32_t point = 0;
    const std::size_t length = decode_one(bytes, point);
    if (length == 0) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

std::string utf8_with_replacement(std::string_view bytes) {
  std::string out;
  while (!bytes.empty()) {
    char32_t point = 0;
    const std::size_t length = decode_one(bytes, point);
    out += length == 0 ? std::string_view("\xEF\xBF\xBD") : bytes.substr(0, length);
    bytes.remove_prefix(length == 0 ? 1 : length);
  }
  return out;
}

}  // namespace tidalcrest::sync::text
