#include "fuzz/targets.hpp"

#include "tidalcrest/sync/errors.hpp"
#include "tidalcrest/sync/log.hpp"

namespace tidalcrest::fuzz {

std::vector<Target>& targets() {
  static std::vector<Target> all;
  return all;
}

void feed(const Target& target, std::string_view bytes) {
  try {
    target.feed(bytes);
  } catch (const sync::Failure&) {
    // Refused, as it should be.
  }
}

std::vector<std::string> parts_of(std::string_view bytes, std::size_t count) {
  std::vector<std::string> parts;
  while (parts.size() + 1 < count) {
    const auto zero = bytes.find('\0');
    parts.emplace_back(bytes.substr(0, zero));
    bytes = zero == std::string_view::npos ? std::string_view() : bytes.substr(zero + 1);
  }
  parts.emplace_back(bytes);
  return parts;
}

}  // namespace tidalcrest::fuzz
