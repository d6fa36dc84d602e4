#include "origin/byte_range.hpp"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

namespace tidalcrest::origin {
namespace {

std::optional<std::uint64_t> decimal(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

RangeDecision decide_range(const std::string& header, std::uint64_t size) {
  using Kind = RangeDecision::Kind;
  constexpr std::string_view unit = "bytes=";
  const std::string_view text = header;
  if (!text.starts_with(unit)) return {};
  const auto range = text.substr(unit.size());
  const auto dash = range.find('-');
  if (dash == std::string_view::npos) return {};
  const auto first = decimal(range.substr(0, dash));
  const auto last = decimal(range.substr(dash + 1));
  const bool has_first = dash > 0;
  const bool has_last = dash + 1 < range.size();
  if ((has_first && !first) || (has_last && !last) || (!has_first && !has_last)) return {};
  if (!has_first) {
    if (*last == 0 || size == 0) return {Kind::UNSATISFIABLE};
    return {Kind::PART, size - std::min(*last, size), size - 1};
  }
  if (has_last && *last < *first) return {};
  if (*first >= size) return {Kind::UNSATISFIABLE};
  return {Kind::PART, *first, has_last ? std::min(*last, size - 1) : size - 1};
}

}  // namespace tidalcrest::origin
