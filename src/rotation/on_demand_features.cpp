#include "rotation/on_demand_features.hpp"

#include <set>
#include <unordered_set>

#include "host/integer.hpp"
#include "host/log.hpp"
#include "host/text.hpp"
#include "manifest/feature_paths.hpp"
#include "manifest/paths.hpp"
#include "siblings/distribution/pinned_root.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

std::vector<std::string> normalised_names(const std::vector<std::string>& feature_names) {
  std::set<std::string> names;
  for (const auto& raw : feature_names) {
    if (std::string name = text::strip(raw); !name.empty()) names.insert(std::move(name));
  }
  return {names.begin(), names.end()};
}

std::vector<std::string> local_paths(const std::string& root,
                                     const std::vector<std::string>& relative_paths) {
  std::vector<std::string> paths;
  paths.reserve(relative_paths.size());
  for (const auto& path : relative_paths) paths.push_back(_manifest_local_path(root, path));
  return paths;
}

}  // namespace

std::vector<std::string> OnDemandFeatures::request_feature_files_for_sync(
    const std::vector<std::string>& feature_names, const std::string& expression_type,
    const std::optional<std::string>& named_universe) const {
  const Wanted wanted{normalised_names(feature_names), expression_type, named_universe};
  if (wanted.names.empty()) return {};
  _with.gate.require_open("request_feature_files_for_sync");
  if (const auto in_flight = _with.coalescing.current()) {
    in_flight->wait_for(std::chrono::duration<double>(COALESCING_WAIT_SECONDS));
  }
  for (int restarts = 0;;) {
    const WriterScope writer(_with.lock);
    try {
      return _request_feature_files_for_sync_impl(wanted);
    } catch (const ManifestSupersededError& failure) {
      ++restarts;
      log::warning(
          "Manifest changed during feature prefetch; refreshing manifest and restarting feature download set "
          "(%d/%d): %s",
          restarts, SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT, failure.what());
      if (restarts >= SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT) throw;
    }
    _with.driver._sync_with_manifest_refresh();
  }
}

std::vector<std::string> OnDemandFeatures::_request_feature_files_for_sync_impl(const Wanted& wanted) const {
  _with.loader.adopt_selected_cohort();
  if (!_with.active.get()->manifest) _with.driver._sync_with_manifest_refresh();
  const auto view = _with.active.get();
  if (!view->manifest) return {};
  const Manifest& manifest = *view->manifest;

  std::vector<std::string> resolved_relative_paths;
  std::unordered_set<std::string> seen_relative_paths;
  std::unordered_set<std::string_view> active_members;
  if (view->cohort) {
    const auto& members = view->cohort->members.active_relative_paths;
    active_members.insert(members.begin(), members.end());
  }
  bool cohort_change_required = view->cohort == nullptr;
  const FeaturePaths features(manifest);
  for (const auto& name : wanted.names) {
    for (const auto& path : features._manifest_feature_prefetch_relative_paths(name, wanted.expression_type,
                                                                               wanted.named_universe)) {
      if (!seen_relative_paths.insert(path).second) continue;
      resolved_relative_paths.push_back(path);
      if (!active_members.contains(path) || !_is_whole_member(*view, path)) cohort_change_required = true;
    }
  }
  if (cohort_change_required) {
    SyncResult result;
    result.era_number = to_int(manifest.era_number());
    _with.stager._stage_active_manifest_with_required_paths(resolved_relative_paths, result);
  }
  _with.prefetched._remember_prefetched_feature_relative_paths(manifest, resolved_relative_paths);
  return local_paths(_with.active.get()->data_dir, resolved_relative_paths);
}

bool OnDemandFeatures::_is_whole_member(const ActiveView& view, const std::string& path) const {
  const auto file_info = view.manifest->file_entry(path);
  if (!file_info) return false;
  try {
    const client_manifest::PinnedRoot root(view.data_dir);
    return _with.hash_cache._local_file_matches_manifest(root, path, *file_info);
  } catch (const OSError&) {
    return false;  // no root, no member
  }
}

}  // namespace tidalcrest::sync
