#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tidalcrest::sync::artifact_rotation {

/// Counter-based generator of 64-bit numbers: number `i` of a seed depends on seed and `i` alone, by unsigned
/// integer arithmetic only, so that every platform draws the same.
///
///     number(seed, i) = mix(mix(seed) + (i + 1) * 0x9E3779B97F4A7C15)        all modulo 2^64
///     mix(z): z ^= z >> 30; z *= 0xBF58476D1CE4E5B9; z ^= z >> 27; z *= 0x94D049BB133111EB; z ^= z >> 31
class CounterGenerator {
 public:
  explicit CounterGenerator(std::int64_t seed, std::uint64_t counter = 0) noexcept;
  /// Continues where `state_text` left a generator of this seed; starts anew for any other text.
  static CounterGenerator continued(std::int64_t seed, const std::string& state_text);

  std::uint64_t next() noexcept;
  /// Even in [0, bound): numbers from the incomplete last range are drawn again. `bound` is not 0.
  std::uint64_t below(std::uint64_t bound) noexcept;
  /// "counter-v1:{seed}:{numbers drawn so far}"
  std::string state_text() const;

  /// From the last place down to the second, each swaps with an even choice among itself and those before it.
  template <class T>
  void shuffle(std::vector<T>& items) noexcept {
    for (std::size_t i = items.size(); i > 1; --i) std::swap(items[i - 1], items[below(i)]);
  }

 private:
  std::int64_t _seed;
  std::uint64_t _key;
  std::uint64_t _counter;
};

}  // namespace tidalcrest::sync::artifact_rotation
