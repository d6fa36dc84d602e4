#include "siblings/deployment/version.hpp"

#include <compare>
#include <cstdint>
#include <limits>
#include <regex>
#include <utility>
#include <vector>

#include "host/integer.hpp"
#include "host/never_destroyed.hpp"
#include "host/text.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::deployment {
namespace {

constexpr std::int64_t BELOW_ALL = -1;
constexpr std::int64_t ABOVE_ALL = std::numeric_limits<std::int64_t>::max();
constexpr std::size_t LONGEST_VERSION = 128;

// Compared member by member, in this order.
struct Version {
  std::vector<std::int64_t> release;                 // without trailing zeros: 1.0 equals 1.0.0
  std::pair<std::int64_t, std::int64_t> prerelease;  // rank of a, b, rc and number
  std::int64_t post = BELOW_ALL;
  std::int64_t dev = ABOVE_ALL;  // none is above every one
  auto operator<=>(const Version&) const = default;
};

Version parse_version(const std::string& given) {
  static const auto& form = never_destroyed<const std::regex>(
      R"(v?([0-9]+(?:\.[0-9]+)*)(?:[._-]?(a|b|rc)[._-]?([0-9]+))?(?:[._-]?post[._-]?([0-9]+))?)"
      R"((?:[._-]?dev[._-]?([0-9]+))?(?:\+[a-z0-9]+(?:[._-][a-z0-9]+)*)?)");
  const std::string text = text::lower(text::strip(given));
  std::smatch match;
  if (text.size() > LONGEST_VERSION || !std::regex_match(text, match, form)) {
    throw ValueError("Invalid version: " + text::repr(given));
  }
  const auto number = [&match](std::size_t group, std::int64_t otherwise) {
    return match[group].matched ? to_int(std::string_view(match[group].str())) : otherwise;
  };
  Version version;
  for (const auto& field : text::split(match[1].str(), ".")) {
    version.release.push_back(to_int(std::string_view(field)));
  }
  while (!version.release.empty() && version.release.back() == 0) version.release.pop_back();
  version.post = number(4, BELOW_ALL);
  version.dev = number(5, ABOVE_ALL);
  if (match[2].matched) {
    version.prerelease = {match[2] == "a" ? 0 : match[2] == "b" ? 1 : 2, number(3, 0)};
  } else {
    // A bare ".dev" comes before every pre-release of its number, everything else without one after them.
    const bool bare_dev = match[5].matched && !match[4].matched;
    version.prerelease = {bare_dev ? BELOW_ALL : ABOVE_ALL, 0};
  }
  return version;
}

}  // namespace

int compare_version_texts(const std::string& first, const std::string& second) {
  const auto order = parse_version(first) <=> parse_version(second);
  return order < 0 ? -1 : order > 0 ? 1 : 0;
}

}  // namespace tidalcrest::sync::deployment
