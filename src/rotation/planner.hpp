#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/mutex.hpp"
#include "host/seams.hpp"
#include "rotation/catalog.hpp"
#include "rotation/search_refresh.hpp"

namespace tidalcrest::sync {

struct PlannedRotation {
  RotationPlan rotation_plan;
  bool explicit_rotation_budget = false;
};

/// Decides when a rotation happens, plans it, refuses what does not fit on the disk, and promotes a finished
/// candidate. A rotation is planned (a candidate in a plan, nothing on disk), then staged by the cohort
/// stager, then promoted: state file first, memory second.
///
/// Everything that plans or promotes runs under the manager's sync lock, which makes it the only writer of
/// the active state; the questions may be asked from any thread.
class RotationPlanner {
 public:
  using ActiveState = std::shared_ptr<const std::optional<RotationState>>;  ///< never null

  /// `prefetched_keep_paths` gives the on-demand files that cleanup spares.
  RotationPlanner(std::string data_dir, std::optional<RotationState> active_rotation_state,
                  const SearchConsumers& consumers,
                  std::function<std::vector<std::string>(const Manifest&)> prefetched_keep_paths,
                  Seams seams = Seams::real());

  std::optional<RotationState> active_rotation_state() const;
  /// Takes over what another process has recorded; absent leaves the state as it is.
  void _adopt_rotation_state(std::optional<RotationState> recorded);

  /// These may throw what the settings file throws (`ValueError`, `OSError`). `artifacts`, here and below, is
  /// what `_rotation_manifest_artifacts` gives for the manifest, for a caller that asks more than once.
  bool _feature_rotation_should_rotate(const Manifest& manifest) const;
  bool _feature_rotation_should_rotate(const Manifest& manifest, const Artifacts& artifacts) const;
  bool _feature_rotation_needs_sync_for_manifest(const Manifest& manifest) const;

  /// Keeps the present subset when `force_new_candidate` is false and there is an active state; a new
  /// candidate otherwise. `SyncError` for an active state that cannot be used,
  /// `MandatoryArtifactsTooLargeError`, and what the settings file throws.
  PlannedRotation _plan_feature_rotation_for_manifest(const Manifest& manifest, std::int64_t free_disk_bytes,
                                                      bool force_new_candidate = true);
  PlannedRotation _plan_feature_rotation_for_manifest(const Manifest& manifest, const Artifacts& artifacts,
                                                      std::int64_t free_disk_bytes, bool force_new_candidate);
  /// The same, with `DiskSpaceError` for mandatory artifacts that are too large.
  PlannedRotation _plan_feature_rotation_for_sync(const Manifest& manifest, std::int64_t free_disk_bytes,
                                                  bool force_new_candidate = true);
  PlannedRotation _plan_feature_rotation_for_sync(const Manifest& manifest, const Artifacts& artifacts,
                                                  std::int64_t free_disk_bytes, bool force_new_candidate);
  /// What a selection wants beyond the given paths, in plan order, with the manifest's entries; an entry that
  /// the manifest lacks is made from the descriptor.
  static std::vector<std::pair<std::string, Document>> _rotation_scoped_files_to_download(
      const Manifest& manifest, const RotationSelection& selection,
      const std::vector<std::string>& existing_relative_paths = {});
  /// Mandatory artifacts may take half of the free space (`MandatoryArtifactsTooLargeError`), and with the
  /// whole feature budget all of it (`DiskSpaceError`). The budget counts in full, even for files already on
  /// disk. The cap holds for an explicit budget too: `enforce_default_cap` does not change it.
  static void _precheck_rotation_disk_budget(const RotationSelection& selection, std::int64_t free_disk_bytes,
                                             bool enforce_default_cap = true);

  RotationState _promote_rotation_candidate(const RotationState& candidate_state,
                                            const PathList& available_relative_paths);
  /// The file comes first, so that a failed write leaves memory at the old state.
  /// `FeatureRotationStateError`, `SyncError`.
  RotationState _write_promoted_rotation_state(RotationState promoted);
  /// Takes paths of retired runtime modules that the manifest no longer has out of the active state, and
  /// gives that.
  ActiveState _normalize_active_rotation_state_for_manifest(const Manifest& manifest);
  void _cleanup_inactive_rotation_artifacts(const Manifest& manifest,
                                            const std::vector<std::string>& active_relative_paths) const;
  /// All of a promotion, after the new data is in place. `vocabulary` null: absent.
  RotationState _complete_rotation_promotion(const RotationState& candidate_state,
                                             const PathList& available_relative_paths,
                                             const Manifest& manifest, const Vocabularies* vocabulary);

 private:
  ActiveState _active() const;
  void _set_active(std::optional<RotationState> state);
  bool _is_due(const Manifest& manifest, const Artifacts& artifacts,
               const std::optional<RotationState>& active) const;
  std::pair<rotation_settings::RotationSettings, artifact_rotation::ArtifactRotationSettings>
  _feature_rotation_settings_for_manifest(const Manifest& manifest, const Artifacts& artifacts,
                                          std::int64_t free_disk_bytes) const;

  const std::string _data_dir;
  const SearchConsumers& _consumers;
  const std::function<std::vector<std::string>(const Manifest&)> _prefetched_keep_paths;
  const Seams _seams;
  mutable Mutex _state_mutex;  // a leaf, held for the copy of one pointer
  ActiveState _active_rotation_state GUARDED_BY(_state_mutex);
};

}  // namespace tidalcrest::sync
