#include "core/consumer_requests.hpp"

#include <algorithm>
#include <filesystem>
#include <unordered_set>
#include <utility>

#include "artifacts/signals_index.hpp"
#include "host/scope_exit.hpp"
#include "manifest/paths.hpp"
#include "rotation/exclusion.hpp"
#include "siblings/distribution/artifact_rotation.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/lock.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

using SortedPath = std::pair<FoundPnlSortKey, std::string>;  // key, local path

std::vector<std::string> sorted_paths(std::vector<SortedPath> keyed) {
  std::sort(keyed.begin(), keyed.end());
  std::vector<std::string> paths;
  paths.reserve(keyed.size());
  for (auto& [key, path] : keyed) paths.push_back(std::move(path));
  return paths;
}

std::string relative_to(const std::string& path, const std::string& root) {
  const auto absolute = std::filesystem::absolute(path).lexically_normal();
  return absolute.lexically_relative(std::filesystem::absolute(root).lexically_normal()).generic_string();
}

bool is_found_pnl_file(const ManifestEntries& entries, std::string_view path) {
  const auto file_info = entries.find(path);
  return file_info && is_found_pnl_file_kind(artifact_rotation::manifest_file_kind(*file_info));
}

}  // namespace

SyncResult ConsumerRequests::ensure_manifest_file_available(const std::string& file_path,
                                                            const Document& file_info) const {
  if (_manifest_file_is_sync_excluded(file_info)) return {};
  return _with.repair.repair({file_path});
}

std::vector<std::string> ConsumerRequests::add_active_feature_paths(
    const std::vector<std::string>& relative_paths) const {
  if (relative_paths.empty()) return {};
  const auto sync_lock = _with.lock.join_sync_lock();  // nobody promotes between the reading and the writing
  const auto state = load_feature_rotation_state(_data_dir);
  if (!state) return {};
  std::vector<std::string> merged = state->active_relative_paths;
  std::unordered_set<std::string> seen(merged.begin(), merged.end());
  for (const auto& path : relative_paths) {
    if (seen.insert(path).second) merged.push_back(path);
  }
  if (merged == state->active_relative_paths) return merged;
  RotationState widened = *state;
  widened.active_relative_paths = merged;
  _with.planner._write_promoted_rotation_state(widened);
  return merged;
}

std::vector<std::string> ConsumerRequests::request_for_sync() const {
  _with.gate.require_open("request_for_sync");
  if (const auto in_flight = _with.coalescing.current()) {
    in_flight->wait_for(std::chrono::duration<double>(COALESCING_WAIT_SECONDS));
    return _get_found_file_paths();
  }
  const std::vector<std::string> delta = _run_coalesced_sync().found_pnl_paths_downloaded;
  return delta.empty() ? _get_found_file_paths() : _newest_first(delta);
}

SyncResult ConsumerRequests::_run_coalesced_sync() const {
  const auto event = _with.coalescing.install();
  // Waiters wake also after a failure, which passes to this caller only.
  const ScopeExit wake_waiters([&] { _with.coalescing.finish(event); });
  const WriterScope writer(_with.lock);
  return _with.driver._sync_with_manifest_refresh();
}

std::vector<std::string> ConsumerRequests::_newest_first(const std::vector<std::string>& delta) const {
  const std::string active_root = _with.views.active_cohort_data_dir();
  std::vector<SortedPath> keyed;
  for (const auto& path : delta) {
    // Measured below the data directory, the place to which the path was downloaded.
    const std::string relative = _safe_manifest_relative_path(relative_to(path, _data_dir));
    const auto stat = client_manifest::stat_contained_regular_file(_data_dir, relative, "found PnL file");
    keyed.emplace_back(_found_pnl_sort_key(stat.mtime_ns, relative_to(path, active_root)), path);
  }
  return sorted_paths(std::move(keyed));
}

std::vector<std::string> ConsumerRequests::_get_found_file_paths() const {
  if (!_with.active.get()->manifest) return {};
  std::vector<SortedPath> keyed;
  {
    const DistributionLock shared = acquire_distribution_lock(_data_dir, /*exclusive=*/false);
    const local_cohort::Pin pinned = local_cohort::pin_active_cohort(_data_dir);
    const ManifestEntries& entries = pinned.selection->manifest->entries();
    for (const std::string_view active_path : pinned.selection->members.active_relative_paths) {
      const std::string path(active_path);
      if (!is_found_pnl_file(entries, path)) continue;
      try {
        const auto stat = pinned.root.stat_regular_file(path, "found PnL file");
        keyed.emplace_back(_found_pnl_sort_key(stat.mtime_ns, path),
                           _manifest_local_path(pinned.selection->root_dir, path));
      } catch (const FileNotFoundError&) {
        // An active path may legitimately be absent.
      }
    }
    pinned.root.assert_root_unchanged();  // a swap during the scan is a failure and no silent mix
  }
  return sorted_paths(std::move(keyed));
}

}  // namespace tidalcrest::sync
