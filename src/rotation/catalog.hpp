#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rotation/state.hpp"
#include "siblings/distribution/artifact_catalog.hpp"
#include "siblings/distribution/artifact_rotation.hpp"
#include "siblings/distribution/rotation_settings.hpp"
#include "tidalcrest/sync/manifest.hpp"
#include "tidalcrest/sync/records.hpp"

namespace tidalcrest::sync {

using artifact_rotation::ArtifactCatalog;
using artifact_rotation::ArtifactDescriptor;
using artifact_rotation::Artifacts;
using artifact_rotation::RotationPlan;
using RotationSelection = artifact_rotation::Selection;

/// One row of the catalog.
struct RotationRow {
  std::string_view file_path;
  FileEntry file_info;
  bool is_the_manifests;  ///< path and entry live as long as the manifest; otherwise during the visit only
};
/// Shows every row to `visit`: the entries of the manifest's "artifacts" list in its order, each laid over
/// the `files` entry of its path; without such a list the `files` in path order.
using RotationRowVisitor = std::function<void(const RotationRow& row)>;
void _rotation_artifact_rows(const Manifest& manifest, const RotationRowVisitor& visit);

/// What stands in for the scope that the feature entries of older manifests leave open.
struct RotationLegacyScope {
  std::optional<std::string> named_universe;
  std::string market;
};
RotationLegacyScope _rotation_legacy_scope(const Document& manifest_data);
/// Fills the open scope of a descriptor of a feature kind: its universe from the path, else from the
/// manifest. The descriptor is of this catalog, which keeps the texts.
void _fill_legacy_scope(ArtifactDescriptor& artifact, const RotationLegacyScope& legacy_scope,
                        ArtifactCatalog& catalog);
std::optional<std::string> _feature_named_universe_from_path(std::string_view file_path);
std::optional<std::string> _rotation_manifest_default_named_universe(const Document& manifest_data);
std::string _rotation_manifest_default_market(const Document& manifest_data);

/// What rotation knows of the manifest, in row order, without the signals index and what this client never
/// fetches.
Artifacts _rotation_manifest_artifacts(const Manifest& manifest);
bool _rotation_artifacts_require_scoped_settings(const Artifacts& artifacts);
/// "current_market" and "market", "current_universes" and "named_universes", "families".
Document _rotation_catalog_context_from_manifest(const Manifest& manifest);
/// The same with the manifest's artifacts at hand.
Document _rotation_catalog_context(const Manifest& manifest, const Artifacts& artifacts);
artifact_rotation::FeatureBudget _rotation_feature_budget_bytes(
    const rotation_settings::RotationSettings& settings);
void _apply_rotation_result_fields(SyncResult& result, const RotationSelection& selection);

/// The plan widened by exact paths, in selection and candidate state alike, so that the publisher can prove
/// the widened generation. `SyncError` for a path that is not in the manifest or excluded from sync.
RotationPlan _rotation_plan_with_required_paths(RotationPlan rotation_plan, const Manifest& manifest,
                                                const std::vector<std::string>& required_paths);
/// Those that are regular files below the directory, in the given order. A missing file is left out; any
/// other failure (an unsafe path, a symbolic link) is thrown.
std::vector<std::string> _existing_rotation_paths(const std::string& data_dir,
                                                  const std::vector<std::string>& relative_paths);
std::optional<std::int64_t> _manifest_era_number_or_none(const Manifest& manifest);
/// Those that the manifest declares as features; sorted, distinct.
std::vector<std::string> _manifest_prefetched_feature_paths(const Manifest& manifest,
                                                            const std::vector<std::string>& paths);

}  // namespace tidalcrest::sync
