#include "transport/http_types.hpp"

#include <algorithm>

#include "host/text.hpp"

namespace tidalcrest::sync {
namespace {

std::string utf8_from_latin1(std::string_view bytes) {
  std::string utf8;
  utf8.reserve(bytes.size());
  for (const char byte : bytes) {
    const auto code = static_cast<unsigned char>(byte);
    if (code < 0x80) {
      utf8 += byte;
    } else {
      utf8 += static_cast<char>(0xC0 | (code >> 6));
      utf8 += static_cast<char>(0x80 | (code & 0x3F));
    }
  }
  return utf8;
}

}  // namespace

bool is_header_name(std::string_view name, std::string_view lower_case_name) noexcept {
  return std::equal(
      name.begin(), name.end(), lower_case_name.begin(), lower_case_name.end(),
      [](char a, char b) { return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b; });
}

void HeaderMap::set(std::string name, std::string value) {
  const auto known =
      std::find_if(_items.begin(), _items.end(), [&name](const auto& item) { return item.first == name; });
  if (known != _items.end()) {
    known->second = std::move(value);
  } else {
    _items.emplace_back(std::move(name), std::move(value));
  }
}

void HeaderMap::add_line(std::string_view line) {
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return;
  set(text::strip(utf8_from_latin1(line.substr(0, colon))),
      text::strip(utf8_from_latin1(line.substr(colon + 1))));
}

const std::string* HeaderMap::find_any_case(std::string_view name) const noexcept {
  for (const auto& [known, value] : _items) {
    if (known.size() == name.size() && is_header_name(known, text::lower(name))) return &value;
  }
  return nullptr;
}

HTTPError::HTTPError(std::string url, std::int64_t code, const std::string& message, HeaderMap headers,
                     std::string body)
    : Failure(message), url(std::move(url)), code(code), headers(std::move(headers)), body(std::move(body)) {}

}  // namespace tidalcrest::sync
