#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tidalcrest/sync/path_list.hpp"

namespace tidalcrest::sync {

/// Result of a sync operation.
struct SyncResult {
  std::int64_t features_downloaded = 0;                 ///< feature files fetched in this sync
  std::int64_t useful_signals_downloaded = 0;           ///< useful-signal files fetched in this sync
  std::int64_t bytes_downloaded = 0;                    ///< bytes fetched in this sync, resumed ones included
  std::int64_t era_number = 0;                          ///< era of the manifest that was synced
  std::int64_t t_signal_is = 0;                         ///< from the vocabulary metadata
  std::int64_t t_strategy_is = 0;                       ///< from the vocabulary metadata
  std::int64_t n_instruments = 0;                       ///< from the vocabulary metadata
  std::int64_t n_features = 0;                          ///< manifest entries of kind "feature"
  std::int64_t n_useful_signals = 0;                    ///< size of the membership section
  std::int64_t n_found_strategies = 0;                  ///< size of the membership section
  std::int64_t pnl_column_count = 0;                    ///< the manifest's `pnl_column_count`
  bool vocabulary_downloaded = false;                   ///< a vocabulary file was fetched
  bool shuffle_seed_downloaded = false;                 ///< the encrypted shuffle seed was fetched
  PathList active_relative_paths;                       ///< feature paths active after this sync
  PathList skipped_relative_paths;                      ///< feature paths left out by rotation
  PathList mandatory_relative_paths;                    ///< paths that the rotation plan required
  std::vector<std::string> found_pnl_paths_downloaded;  ///< local paths of found files fetched
  std::optional<std::int64_t> rotation_seed;            ///< seed of the rotation selection
  std::optional<std::int64_t> feature_budget_bytes;     ///< byte budget of the rotation selection
};

/// Result of a verify operation.
struct VerifyResult {
  bool valid = true;
  std::vector<std::string> corrupted_files;
  std::vector<std::string> missing_files;
};

/// One atomic view of the manifest-selected immutable local cohort. Compared by value.
class VerifiedActiveCohortSnapshot {
 public:
  VerifiedActiveCohortSnapshot(std::string base_dir, std::string root_dir, std::string manifest_bytes)
      : _base_dir(std::move(base_dir)),
        _root_dir(std::move(root_dir)),
        _manifest_bytes(std::move(manifest_bytes)) {}

  /// The manager's data directory, absolute and lexically normalised.
  const std::string& base_dir() const noexcept { return _base_dir; }
  /// The cohort's root directory, absolute and lexically normalised.
  const std::string& root_dir() const noexcept { return _root_dir; }
  /// The exact bytes of the selected cohort's manifest.
  const std::string& manifest_bytes() const noexcept { return _manifest_bytes; }

  friend bool operator==(const VerifiedActiveCohortSnapshot&, const VerifiedActiveCohortSnapshot&) = default;

 private:
  std::string _base_dir;
  std::string _root_dir;
  std::string _manifest_bytes;
};

}  // namespace tidalcrest::sync
