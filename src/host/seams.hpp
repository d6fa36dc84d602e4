#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace tidalcrest::sync {

/// What the system asks of the machine and a test may replace. Copied freely; each function is
/// thread-safe.
struct Seams {
  std::function<double()> monotonic_seconds;
  std::function<double()> wall_seconds;  ///< since the epoch
  std::function<void(double seconds)> sleep;
  /// Cryptographic random bytes.
  std::function<std::string(std::size_t count)> random_bytes;
  /// Free bytes of the volume that holds `path`; throws `OSError`.
  std::function<std::int64_t(const std::string& path)> free_bytes;

  /// The machine itself.
  static Seams real();
};

}  // namespace tidalcrest::sync
