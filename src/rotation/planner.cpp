#include "rotation/planner.hpp"

#include <fmt/format.h>

#include <filesystem>
#include <limits>
#include <set>
#include <span>
#include <tuple>

#include "host/json.hpp"
#include "host/path_set.hpp"
#include "rotation/status.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

using artifact_rotation::ArtifactRotationSettings;
using rotation_settings::RotationSettings;

constexpr const char* METADATA_RELATIVE_PATHS[] = {
    "manifest.json", "shuffle_seed.enc", "shuffle_seed.enc.meta.json", FEATURE_ROTATION_STATE_FILENAME};
constexpr const char* ROTATION_CLEANUP_PREFIXES[] = {"features/",         "named_universes/",
                                                     "universe_masks/",   "found_signals/",
                                                     "found_strategies/", "useful_signals/"};

std::vector<std::string> texts_of(std::span<const char* const> constants) {
  return {constants.begin(), constants.end()};
}

bool state_file_exists(const std::string& data_dir) {
  std::error_code ignored;
  return std::filesystem::exists(feature_rotation_state_path(data_dir), ignored);
}

// Where nothing rotates, an active state with paths is stale and has to be rewritten.
bool is_stale_selection(const std::optional<RotationState>& active) {
  return active && !active->active_relative_paths.empty();
}

bool has_feature_budget(const RotationSettings& settings) {
  return !std::holds_alternative<std::monostate>(settings.feature_budget_gb);
}

Document entry_of_descriptor(const ArtifactDescriptor& artifact) {
  return {{"kind", artifact.kind},
          {"artifact_kind", artifact.artifact_kind},
          {"size_bytes", artifact.size_bytes},
          {"mandatory", artifact.mandatory},
          {"market", artifact.market},
          {"named_universe", artifact.named_universe},
          {"family", artifact.family},
          {"subfamily", artifact.subfamily}};
}

[[noreturn]] void throw_insufficient(std::int64_t needed, std::int64_t free_disk_bytes) {
  throw DiskSpaceError(fmt::format("Insufficient disk space: need {} bytes, have {} bytes available", needed,
                                   free_disk_bytes));
}

}  // namespace

RotationPlanner::RotationPlanner(
    std::string data_dir, std::optional<RotationState> active_rotation_state,
    const SearchConsumers& consumers,
    std::function<std::vector<std::string>(const Manifest&)> prefetched_keep_paths, Seams seams)
    : _data_dir(std::move(data_dir)),
      _consumers(consumers),
      _prefetched_keep_paths(std::move(prefetched_keep_paths)),
      _seams(std::move(seams)) {
  _set_active(std::move(active_rotation_state));
}

RotationPlanner::ActiveState RotationPlanner::_active() const {
  const MutexLock guard(_state_mutex);
  return _active_rotation_state;
}

void RotationPlanner::_set_active(std::optional<RotationState> state) {
  auto next = std::make_shared<const std::optional<RotationState>>(std::move(state));
  const MutexLock guard(_state_mutex);
  _active_rotation_state.swap(next);
}

std::optional<RotationState> RotationPlanner::active_rotation_state() const { return *_active(); }

void RotationPlanner::_adopt_rotation_state(std::optional<RotationState> recorded) {
  if (recorded) _set_active(std::move(recorded));
}

bool RotationPlanner::_is_due(const Manifest& manifest, const Artifacts& artifacts,
                              const std::optional<RotationState>& active) const {
  const RotationSettings settings =
      rotation_settings::load_rotation_settings(_data_dir, _rotation_catalog_context(manifest, artifacts));
  return _rotation_is_due(_data_dir, settings.model_dump(), active, _seams);
}

bool RotationPlanner::_feature_rotation_should_rotate(const Manifest& manifest) const {
  return _feature_rotation_should_rotate(manifest, _rotation_manifest_artifacts(manifest));
}

bool RotationPlanner::_feature_rotation_should_rotate(const Manifest& manifest,
                                                      const Artifacts& artifacts) const {
  const ActiveState active = _active();
  if (!_rotation_artifacts_require_scoped_settings(artifacts)) return is_stale_selection(*active);
  return !*active || _is_due(manifest, artifacts, *active);
}

bool RotationPlanner::_feature_rotation_needs_sync_for_manifest(const Manifest& manifest) const {
  const ActiveState active = _active();
  const Artifacts artifacts = _rotation_manifest_artifacts(manifest);
  if (!_rotation_artifacts_require_scoped_settings(artifacts)) return is_stale_selection(*active);
  return !*active || !state_file_exists(_data_dir) || _is_due(manifest, artifacts, *active);
}

std::pair<RotationSettings, ArtifactRotationSettings>
RotationPlanner::_feature_rotation_settings_for_manifest(const Manifest& manifest, const Artifacts& artifacts,
                                                         std::int64_t free_disk_bytes) const {
  RotationSettings settings =
      rotation_settings::load_rotation_settings(_data_dir, _rotation_catalog_context(manifest, artifacts));
  ArtifactRotationSettings selection_settings{
      .artifact_kind = "feature",
      .algorithm = settings.algorithm,
      .seed = settings.rotation_seed,
      .scope = {.market = settings.market,
                .named_universes = settings.named_universes,
                .family = settings.family,
                .subfamily = settings.subfamily},
      .feature_budget_bytes = _rotation_feature_budget_bytes(settings),
      .free_disk_bytes = std::nullopt};
  // A budget in numbers is never tied to free space.
  if (!std::holds_alternative<double>(settings.feature_budget_gb))
    selection_settings.free_disk_bytes = free_disk_bytes;
  return {std::move(settings), std::move(selection_settings)};
}

PlannedRotation RotationPlanner::_plan_feature_rotation_for_manifest(const Manifest& manifest,
                                                                     std::int64_t free_disk_bytes,
                                                                     bool force_new_candidate) {
  return _plan_feature_rotation_for_manifest(manifest, _rotation_manifest_artifacts(manifest),
                                             free_disk_bytes, force_new_candidate);
}

PlannedRotation RotationPlanner::_plan_feature_rotation_for_manifest(const Manifest& manifest,
                                                                     const Artifacts& artifacts,
                                                                     std::int64_t free_disk_bytes,
                                                                     bool force_new_candidate) {
  const ActiveState active = _normalize_active_rotation_state_for_manifest(manifest);
  ArtifactRotationSettings selection_settings;
  PlannedRotation planned;
  if (_rotation_artifacts_require_scoped_settings(artifacts)) {
    RotationSettings settings;
    std::tie(settings, selection_settings) =
        _feature_rotation_settings_for_manifest(manifest, artifacts, free_disk_bytes);
    planned.explicit_rotation_budget = has_feature_budget(settings);
  }
  if (*active && !force_new_candidate) {
    try {
      planned.rotation_plan =
          artifact_rotation::plan_from_active_rotation_state(artifacts, selection_settings, **active);
    } catch (const ActiveRotationStateError& failure) {
      throw SyncError(failure.what());
    }
  } else {
    planned.rotation_plan = artifact_rotation::plan_rotation(artifacts, selection_settings, *active, "sync");
  }
  return planned;
}

PlannedRotation RotationPlanner::_plan_feature_rotation_for_sync(const Manifest& manifest,
                                                                 std::int64_t free_disk_bytes,
                                                                 bool force_new_candidate) {
  return _plan_feature_rotation_for_sync(manifest, _rotation_manifest_artifacts(manifest), free_disk_bytes,
                                         force_new_candidate);
}

PlannedRotation RotationPlanner::_plan_feature_rotation_for_sync(const Manifest& manifest,
                                                                 const Artifacts& artifacts,
                                                                 std::int64_t free_disk_bytes,
                                                                 bool force_new_candidate) {
  try {
    return _plan_feature_rotation_for_manifest(manifest, artifacts, free_disk_bytes, force_new_candidate);
  } catch (const MandatoryArtifactsTooLargeError& failure) {
    throw_insufficient(failure.mandatory_bytes, free_disk_bytes);
  }
}

std::vector<std::pair<std::string, Document>> RotationPlanner::_rotation_scoped_files_to_download(
    const Manifest& manifest, const RotationSelection& selection,
    const std::vector<std::string>& existing_relative_paths) {
  const PathSet existing(existing_relative_paths.begin(), existing_relative_paths.end());
  std::vector<std::pair<std::string, Document>> files;
  for (const auto& artifact : selection.selected_artifacts()) {
    if (existing.contains(artifact->relative_path)) continue;
    const auto entry = manifest.file_entry(artifact->relative_path);
    const bool declared = entry && !entry->empty();
    files.emplace_back(artifact->relative_path,
                       declared ? entry->document() : entry_of_descriptor(*artifact));
  }
  return files;
}

void RotationPlanner::_precheck_rotation_disk_budget(const RotationSelection& selection,
                                                     std::int64_t free_disk_bytes,
                                                     bool /*enforce_default_cap*/) {
  const std::int64_t half_free = free_disk_bytes / 2;
  if (selection.mandatory_bytes > half_free) {
    throw MandatoryArtifactsTooLargeError(selection.mandatory_bytes, half_free);
  }
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  const bool countable = selection.feature_budget_bytes <= most - selection.mandatory_bytes;
  const std::int64_t total_needed =
      countable ? selection.mandatory_bytes + selection.feature_budget_bytes : most;
  if (total_needed > free_disk_bytes) throw_insufficient(total_needed, free_disk_bytes);
}

RotationState RotationPlanner::_promote_rotation_candidate(const RotationState& candidate_state,
                                                           const PathList& available_relative_paths) {
  return _write_promoted_rotation_state(
      artifact_rotation::promote_rotation_candidate(*_active(), candidate_state, available_relative_paths));
}

RotationState RotationPlanner::_write_promoted_rotation_state(RotationState promoted) {
  const bool is_active = *_active() == promoted;
  if (!is_active || !state_file_exists(_data_dir)) write_feature_rotation_state(_data_dir, promoted);
  if (!is_active) _set_active(promoted);
  return promoted;
}

RotationPlanner::ActiveState RotationPlanner::_normalize_active_rotation_state_for_manifest(
    const Manifest& manifest) {
  const ActiveState active = _active();
  if (!*active || !_names_retired_unsupported_runtime_paths(**active, manifest)) return active;
  _write_promoted_rotation_state(*_drop_retired_unsupported_runtime_paths_from_state(*active, manifest));
  return _active();
}

void RotationPlanner::_cleanup_inactive_rotation_artifacts(
    const Manifest& manifest, const std::vector<std::string>& active_relative_paths) const {
  const auto prefetched = _prefetched_keep_paths(manifest);
  std::optional<std::set<std::string>> keep_paths;  // made for the first file: there is hardly ever one
  const auto is_kept = [&](const std::string& path) {
    if (!keep_paths) {
      std::set<std::string> protected_paths(active_relative_paths.begin(), active_relative_paths.end());
      protected_paths.insert(prefetched.begin(), prefetched.end());
      keep_paths = artifact_rotation::rotation_cleanup_keep_paths(manifest.entries(), protected_paths,
                                                                  texts_of(METADATA_RELATIVE_PATHS));
    }
    return keep_paths->contains(path);
  };
  client_manifest::cleanup_contained_regular_files_in_prefixes(_data_dir, texts_of(ROTATION_CLEANUP_PREFIXES),
                                                               is_kept);
}

RotationState RotationPlanner::_complete_rotation_promotion(const RotationState& candidate_state,
                                                            const PathList& available_relative_paths,
                                                            const Manifest& manifest,
                                                            const Vocabularies* vocabulary) {
  RotationState promoted =
      artifact_rotation::promote_rotation_candidate(*_active(), candidate_state, available_relative_paths);
  // Prepared before anything is written: a vocabulary problem stops the change while nothing has changed.
  const auto refresh_payloads = _consumers._rotation_search_refresh_payloads(promoted, vocabulary, &manifest);
  promoted = _write_promoted_rotation_state(std::move(promoted));
  _cleanup_inactive_rotation_artifacts(manifest, promoted.active_relative_paths);
  SearchConsumers::_deliver_rotation_search_refresh_payloads(refresh_payloads);
  return promoted;
}

}  // namespace tidalcrest::sync
