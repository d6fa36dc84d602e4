#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

namespace tidalcrest::sync {

/// Goes through a text that this system wrote itself and that has, byte for byte, a known form: the long
/// files that every process reads at its start. What does not fit is no error here; the caller then reads the
/// text as any JSON.
class TextScanner {
 public:
  explicit TextScanner(std::string_view text) : _rest(text) {}

  std::string_view rest() const noexcept { return _rest; }

  /// Whether the text goes on with `expected`, which is then passed.
  bool take(std::string_view expected) noexcept {
    if (!_rest.starts_with(expected)) return false;
    _rest.remove_prefix(expected.size());
    return true;
  }

  /// A quoted text of plain ASCII without any escape.
  std::optional<std::string_view> take_quoted() noexcept {
    if (!take("\"")) return std::nullopt;
    std::size_t size = 0;
    while (size < _rest.size() && is_plain(_rest[size])) ++size;
    if (size == _rest.size() || _rest[size] != '"') return std::nullopt;
    const std::string_view quoted = _rest.substr(0, size);
    _rest.remove_prefix(size + 1);
    return quoted;
  }

  /// A decimal integer as JSON writes it: no sign but a minus, no leading zero, no fraction.
  std::optional<std::int64_t> take_integer() noexcept {
    std::int64_t value = 0;
    const char* const begin = _rest.data();
    const auto [end, error] = std::from_chars(begin, begin + _rest.size(), value);
    if (error != std::errc()) return std::nullopt;
    const char* const digits = begin + (*begin == '-' ? 1 : 0);
    if (*digits == '0' && (end - digits > 1 || digits != begin)) return std::nullopt;
    _rest.remove_prefix(static_cast<std::size_t>(end - begin));
    return value;
  }

 private:
  static constexpr bool is_plain(char c) noexcept { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; }

  std::string_view _rest;
};

}  // namespace tidalcrest::sync
