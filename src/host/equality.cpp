#include "host/equality.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>

namespace tidalcrest::sync {
namespace {

bool is_number(const Document& value) { return value.is_number() || value.is_boolean(); }

// Calls `use` with the value of a whole number in its own type, so that nothing is rounded or wrapped.
template <class Use>
bool with_whole(const Document& value, Use use) {
  if (value.is_boolean()) return use(std::int64_t{value.get<bool>()});
  if (value.is_number_unsigned()) return use(value.get<std::uint64_t>());
  return use(value.get<std::int64_t>());
}

constexpr double LOWEST_WHOLE = -9223372036854775808.0;  // -2^63
constexpr double WHOLE_LIMIT = 18446744073709551616.0;   // 2^64

bool float_equals_whole(double a, const Document& whole) {
  if (std::trunc(a) != a || a < LOWEST_WHOLE || a >= WHOLE_LIMIT) return false;
  return with_whole(whole, [a](auto b) {
    return a < 0 ? std::cmp_equal(static_cast<std::int64_t>(a), b)
                 : std::cmp_equal(static_cast<std::uint64_t>(a), b);
  });
}

bool numbers_equal(const Document& a, const Document& b) {
  if (a.is_number_float() && b.is_number_float()) return a.get<double>() == b.get<double>();
  if (a.is_number_float()) return float_equals_whole(a.get<double>(), b);
  if (b.is_number_float()) return float_equals_whole(b.get<double>(), a);
  return with_whole(a, [&b](auto x) { return with_whole(b, [x](auto y) { return std::cmp_equal(x, y); }); });
}

bool objects_equal(const Document::object_t& a, const Document::object_t& b) {
  return a.size() == b.size() && std::all_of(a.begin(), a.end(), [&b](const auto& member) {
           const auto other = b.find(member.first);
           return other != b.end() && host_equal(member.second, other->second);
         });
}

}  // namespace

bool host_equal(const Document& a, const Document& b) {
  if (is_number(a) && is_number(b)) return numbers_equal(a, b);
  if (a.is_array() && b.is_array()) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const Document& x, const Document& y) { return host_equal(x, y); });
  }
  if (a.is_object() && b.is_object()) {
    return objects_equal(a.get_ref<const Document::object_t&>(), b.get_ref<const Document::object_t&>());
  }
  return a.type() == b.type() && a == b;
}

bool host_equal(const Document& a, std::int64_t b) { return host_equal(a, Document(b)); }

}  // namespace tidalcrest::sync
