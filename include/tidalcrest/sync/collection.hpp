#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tidalcrest::sync {

/// What a collection of old generations did, or with `dry_run` would do.
struct CollectionReport {
  struct Entry {
    std::string relative_path;  ///< below the data directory
    std::string why;         ///< "old generation", "failed staging", "abandoned repair", "unfinished removal"
    std::int64_t bytes = 0;  ///< of its regular files
  };
  std::vector<Entry> removed;
  std::int64_t bytes_freed = 0;
  std::vector<std::string> kept;  ///< relative paths of the generation roots that stay
};

}  // namespace tidalcrest::sync
