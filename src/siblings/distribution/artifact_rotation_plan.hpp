#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "siblings/distribution/artifact_rotation_algorithms.hpp"
#include "siblings/distribution/artifact_rotation_descriptors.hpp"
#include "tidalcrest/sync/document.hpp"
#include "tidalcrest/sync/rotation.hpp"

namespace tidalcrest::sync::artifact_rotation {

/// A feature budget: absent (the default rule applies), the marker for everything, or bytes.
struct FullDownload {
  friend bool operator==(FullDownload, FullDownload) { return true; }
};
inline constexpr FullDownload FULL_DOWNLOAD{};
using FeatureBudget = std::variant<std::monostate, FullDownload, std::int64_t>;

struct ArtifactRotationSettings {
  std::string artifact_kind = "feature";
  std::string algorithm = "uniform";
  std::int64_t seed = 0;
  SelectionScope scope = {};
  FeatureBudget feature_budget_bytes = {};
  std::optional<std::int64_t> free_disk_bytes = {};  ///< absent when the budget is not tied to free space
};

struct Selection {
  Artifacts mandatory_artifacts;
  Artifacts rotatable_artifacts;  ///< the chosen ones
  Artifacts eligible_artifacts;   ///< all that could have been chosen
  std::int64_t seed = 0;
  std::int64_t feature_budget_bytes = 0;
  std::int64_t mandatory_bytes = 0;
  PathList active_relative_paths;  ///< mandatory first, then rotatable, each in row order

  /// In the order of `active_relative_paths`.
  Artifacts selected_artifacts() const;
  PathList mandatory_relative_paths() const;
  /// Eligible, but not active.
  PathList skipped_relative_paths() const;
  /// Brings `active_relative_paths` in step with the two lists; a path in both or twice counts once.
  void rebuild_active_relative_paths();
};

struct RotationPlan {
  Selection selection;
  RotationState candidate_state;

  /// What was decided and why, with the `active_relative_paths`.
  Document rotation_record() const;
};

/// A new candidate: every mandatory artifact, and as many eligible ones as the algorithm fits into the
/// budget. The generator continues where the previous state left it while the seed is the same.
///
/// The budget is what the settings say; everything eligible for `FULL_DOWNLOAD`; by default half of the free
/// bytes less the mandatory bytes, never below 0, and everything where free space is unknown.
///
/// A manifest with nothing to rotate gives a candidate state without active paths: the mandatory files are
/// held in any case, and such a state never comes due.
///
/// Throws `MandatoryArtifactsTooLargeError` when the mandatory artifacts alone exceed known free space,
/// `ValueError` for an unknown algorithm.
RotationPlan plan_rotation(const Artifacts& artifacts, const ArtifactRotationSettings& settings,
                           const std::optional<RotationState>& previous_state,
                           const std::string& reason = "sync");

/// The plan that keeps the present subset: every mandatory artifact, and of the rest what the state names and
/// the manifest still has. New mandatory files are in, departed files are out, generation and generator stay.
/// A state that names nothing the manifest could rotate keeps nothing, and a new candidate takes its place.
///
/// Throws `ActiveRotationStateError` for a state that breaks its own rules (see `rotation_state_fault`).
RotationPlan plan_from_active_rotation_state(const Artifacts& artifacts,
                                             const ArtifactRotationSettings& settings,
                                             const RotationState& active_state);

/// The state to record after publication: the candidate, limited to what is available. A new candidate
/// already carries the next generation; the recorded generation never goes back.
RotationState promote_rotation_candidate(const std::optional<RotationState>& active_state,
                                         const RotationState& candidate_state,
                                         const PathList& available_relative_paths);

}  // namespace tidalcrest::sync::artifact_rotation
