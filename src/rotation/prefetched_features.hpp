#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/mutex.hpp"
#include "tidalcrest/sync/manifest.hpp"

namespace tidalcrest::sync {

/// The feature files of one era that were fetched on demand, so that rotation cleanup spares them for the
/// rest of it. Kept in `.prefetched-features.json`; a new era starts empty. Thread-safe.
class PrefetchedFeatures {
 public:
  explicit PrefetchedFeatures(std::string data_dir) : _data_dir(std::move(data_dir)) {}
  /// Adds those of the paths that the manifest declares as features, and writes the file. Throws `SyncError`.
  void _remember_prefetched_feature_relative_paths(const Manifest& manifest,
                                                   const std::vector<std::string>& relative_paths);
  /// Sorted.
  std::vector<std::string> _prefetched_feature_keep_paths(const Manifest& manifest);

 private:
  void _switch_era_if_needed(const Manifest& manifest) REQUIRES(_prefetched_feature_lock);
  std::set<std::string> _read_prefetched_feature_relative_paths(const Manifest& manifest) const;
  void _write_prefetched_feature_relative_paths(std::optional<std::int64_t> era_number,
                                                const std::set<std::string>& relative_paths) const;

  const std::string _data_dir;
  Mutex _prefetched_feature_lock;  // guards the file too; a leaf
  std::optional<std::int64_t> _prefetched_feature_era_number GUARDED_BY(_prefetched_feature_lock);
  std::set<std::string> _prefetched_feature_relative_paths GUARDED_BY(_prefetched_feature_lock);
};

}  // namespace tidalcrest::sync
