#include "units.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>

namespace tidalcrest::cli {

std::string bytes_text(double bytes) {
  static constexpr const char* units[] = {"B", "kB", "MB", "GB", "TB"};
  std::size_t unit = 0;
  while (bytes >= 999.5 && unit + 1 < std::size(units)) {
    bytes /= 1000;
    ++unit;
  }
  return unit == 0 ? fmt::format("{:.0f} B", bytes) : fmt::format("{:.1f} {}", bytes, units[unit]);
}

std::string count_text(std::int64_t count) {
  std::string digits = std::to_string(count);
  const std::size_t first = count < 0 ? 1 : 0;
  for (std::size_t at = digits.size(); at > first + 3; at -= 3) digits.insert(at - 3, ",");
  return digits;
}

std::string counted(std::int64_t count, const std::string& noun) {
  return fmt::format("{} {}{}", count_text(count), noun, count == 1 ? "" : "s");
}

std::string duration_text(double seconds) {
  const auto whole = static_cast<std::int64_t>(std::ceil(std::max(seconds, 0.0)));
  if (whole < 60) return fmt::format("{} s", whole);
  if (whole < 3600) return fmt::format("{} min {} s", whole / 60, whole % 60);
  return fmt::format("{} h {} min", whole / 3600, whole % 3600 / 60);
}

}  // namespace tidalcrest::cli
