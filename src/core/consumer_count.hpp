#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace tidalcrest::sync {

inline constexpr const char* CONSUMER_COUNT_FILENAME = ".consumer_count";

/// The record of a manager's consumers in `.consumer_count`: one decimal integer, for restarts. It is taken
/// at face value and does not count consumers across processes. Reading is thread-safe; the caller guards the
/// changes (the manager's consumer lock).
class ConsumerCount {
 public:
  /// Reads the file; one that cannot be read counts as 0 and is a warning.
  explicit ConsumerCount(const std::string& data_dir);
  std::int64_t value() const noexcept { return _consumer_count; }
  /// Changes the number and rewrites the file; a failed write is a warning and changes nothing else.
  void set(std::int64_t count);

 private:
  void _persist_consumer_count() const;

  const std::string _data_dir;
  std::atomic<std::int64_t> _consumer_count = 0;
};

}  // namespace tidalcrest::sync
