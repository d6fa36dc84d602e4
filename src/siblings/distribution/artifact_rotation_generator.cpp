#include "siblings/distribution/artifact_rotation_generator.hpp"

#include <fmt/format.h>

#include <charconv>

namespace tidalcrest::sync::artifact_rotation {
namespace {

std::uint64_t mix(std::uint64_t z) noexcept {
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
  return z ^ (z >> 31);
}

std::string state_prefix(std::int64_t seed) { return fmt::format("counter-v1:{}:", seed); }

}  // namespace

CounterGenerator::CounterGenerator(std::int64_t seed, std::uint64_t counter) noexcept
    : _seed(seed), _key(mix(static_cast<std::uint64_t>(seed))), _counter(counter) {}

CounterGenerator CounterGenerator::continued(std::int64_t seed, const std::string& state_text) {
  const std::string prefix = state_prefix(seed);
  if (!state_text.starts_with(prefix)) return CounterGenerator(seed);
  const char* const end = state_text.data() + state_text.size();
  std::uint64_t counter = 0;
  const auto parsed = std::from_chars(state_text.data() + prefix.size(), end, counter);
  if (parsed.ec != std::errc() || parsed.ptr != end) return CounterGenerator(seed);
  return CounterGenerator(seed, counter);
}

std::uint64_t CounterGenerator::next() noexcept { return mix(_key + ++_counter * 0x9E3779B97F4A7C15u); }

std::uint64_t CounterGenerator::below(std::uint64_t bound) noexcept {
  const std::uint64_t incomplete = (0 - bound) % bound;  // 2^64 modulo bound
  std::uint64_t number = next();
  while (number < incomplete) number = next();
  return number % bound;
}

std::string CounterGenerator::state_text() const { return state_prefix(_seed) + std::to_string(_counter); }

}  // namespace tidalcrest::sync::artifact_rotation
