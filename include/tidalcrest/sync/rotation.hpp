#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tidalcrest/sync/document.hpp"
#include "tidalcrest/sync/path_list.hpp"

namespace tidalcrest::sync {

/// The feature subset that a data directory holds, and what is needed to choose the next one.
struct RotationState {
  PathList active_relative_paths = {};  ///< mandatory files too; empty where nothing rotates
  std::int64_t generation = 0;          ///< grows by one with each new candidate that was promoted
  std::int64_t seed = 0;                ///< seed of the selection
  std::string rng_state = {};           ///< continues the generator where the selection left it
  std::string algorithm = "uniform";
  std::string reason = {};  ///< why the candidate was made
  friend bool operator==(const RotationState&, const RotationState&) = default;
};

/// `feature-rotation-state.json` in the data directory.
std::string feature_rotation_state_path(const std::string& data_dir);
/// Absent when there is no file. Throws `FeatureRotationStateError` for a file that cannot be read or parsed.
std::optional<RotationState> load_feature_rotation_state(const std::string& data_dir);
/// Writes the file whole and gives its path. Throws `FeatureRotationStateError` or `SyncError`.
std::string write_feature_rotation_state(const std::string& data_dir, const RotationState& state);
/// The rotation's condition as one object, from the data directory alone: no network, no manager.
///
/// - "state": "uninitialized" (no state file), "incomplete" (active files are missing from disk) or "active"
/// - "manifest_available", "era_number", "manifest_version"; the numbers null without a manifest
/// - "generation", "seed", "rng_state": of the state file, null without one
/// - "active_relative_paths", "selected_relative_paths", "skipped_relative_paths",
///   "departed_relative_paths" (no longer in the manifest), "missing_active_relative_paths"
/// - "active_path_count", "eligible_feature_count", "selected_feature_count", "skipped_feature_count",
///   "departed_feature_count", "missing_active_path_count", and these six once more below "status_accounting"
/// - "next_rotation_at" (UTC, "%Y-%m-%dT%H:%M:%SZ") and "next_rotation_due", null when none is planned
///
/// `settings_payload` is an object with the settings file's keys. With anything else no scope restricts what
/// is eligible and no next rotation is known. Throws `FeatureRotationStateError`, `ManifestError`, `OSError`.
Document feature_rotation_status_payload(const std::string& data_dir,
                                         const Document& settings_payload = nullptr);

}  // namespace tidalcrest::sync
