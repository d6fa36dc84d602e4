#include "host/integer.hpp"

#include <cmath>
#include <limits>

#include "host/text.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

[[noreturn]] void throw_bad_text(std::string_view value) {
  throw ValueError("invalid literal for int() with base 10: " + text::repr(value));
}

std::int64_t truncate(double value) {
  if (std::isnan(value)) throw ValueError("cannot convert float NaN to integer");
  if (std::isinf(value)) throw ValueError("cannot convert float infinity to integer");
  constexpr double limit = 9223372036854775808.0;  // 2^63
  if (value >= limit || value < -limit) {
    throw ValueError("integer out of the 64-bit range: " + text::float_text(value));
  }
  return static_cast<std::int64_t>(value);
}

}  // namespace

std::int64_t to_int(std::string_view value) {
  const std::string stripped = text::strip(value);
  std::string_view digits = stripped;
  const bool negative = digits.starts_with('-');
  if (negative || digits.starts_with('+')) digits.remove_prefix(1);
  if (digits.empty()) throw_bad_text(value);
  std::uint64_t magnitude = 0;
  bool after_digit = false;
  for (const char c : digits) {
    if (c == '_' && after_digit) {
      after_digit = false;
      continue;
    }
    if (c < '0' || c > '9') throw_bad_text(value);
    after_digit = true;
    const auto digit = static_cast<std::uint64_t>(c - '0');
    constexpr std::uint64_t limit = std::uint64_t{1} << 63;
    if (magnitude > (limit - digit) / 10) {
      throw ValueError("integer out of the 64-bit range: " + text::repr(value));
    }
    magnitude = magnitude * 10 + digit;
  }
  if (!after_digit) throw_bad_text(value);
  if (negative) return static_cast<std::int64_t>(~magnitude + 1);
  if (magnitude > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    throw ValueError("integer out of the 64-bit range: " + text::repr(value));
  }
  return static_cast<std::int64_t>(magnitude);
}

std::int64_t to_int(const Document& value) {
  switch (value.type()) {
    case Document::value_t::boolean:
      return value.get<bool>() ? 1 : 0;
    case Document::value_t::number_integer:
      return value.get<std::int64_t>();
    case Document::value_t::number_unsigned: {
      const auto number = value.get<std::uint64_t>();
      if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        throw ValueError("integer out of the 64-bit range: " + std::to_string(number));
      }
      return static_cast<std::int64_t>(number);
    }
    case Document::value_t::number_float:
      return truncate(value.get<double>());
    case Document::value_t::string:
      return to_int(std::string_view(value.get_ref<const std::string&>()));
    default:
      throw TypeError(
          std::string("int() argument must be a string, a bytes-like object or a real number, not '") +
          text::type_name(value) + "'");
  }
}

std::int64_t int_or_zero(const Document& value) { return text::truthy(value) ? to_int(value) : 0; }

std::optional<std::int64_t> try_int(const Document& value) noexcept {
  try {
    return to_int(value);
  } catch (...) {
    return std::nullopt;
  }
}

}  // namespace tidalcrest::sync
