#include "integrity/repair.hpp"

#include "host/integer.hpp"
#include "host/log.hpp"
#include "manifest/paths.hpp"
#include "rotation/exclusion.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

using shuffle_seed_state::SHUFFLE_SEED_FILE;
using shuffle_seed_state::SHUFFLE_SEED_METADATA_FILE;

struct RepairPaths {
  std::vector<std::string> required;
  std::vector<std::string> force_download;
};

RepairPaths paths_to_repair(const Manifest& manifest, const std::vector<std::string>& corrupted_files) {
  RepairPaths paths;
  for (const auto& raw_path : corrupted_files) {
    const std::string file_path = _safe_manifest_relative_path(raw_path);
    if (file_path == SHUFFLE_SEED_FILE || file_path == SHUFFLE_SEED_METADATA_FILE) {
      // The pair is always replaced together, and is no member of the selection.
      paths.force_download.emplace_back(SHUFFLE_SEED_FILE);
      paths.force_download.emplace_back(SHUFFLE_SEED_METADATA_FILE);
      continue;
    }
    const auto file_info = manifest.file_entry(file_path);
    if (!file_info || _manifest_file_is_sync_excluded(*file_info)) continue;
    paths.required.push_back(file_path);
    paths.force_download.push_back(file_path);
  }
  return paths;
}

}  // namespace

SyncResult Repair::repair(const std::vector<std::string>& corrupted_files) const {
  const WriterScope writer(_lock);
  _loader.adopt_selected_cohort();
  return _repair_locked(corrupted_files);
}

SyncResult Repair::_repair_locked(const std::vector<std::string>& corrupted_files) const {
  SyncResult result;
  const auto manifest = _active.get()->manifest;
  if (!manifest) return result;
  result.era_number = to_int(manifest->era_number());
  const RepairPaths paths = paths_to_repair(*manifest, corrupted_files);
  if (paths.force_download.empty()) return result;
  try {
    _stager._stage_active_manifest_with_required_paths(paths.required, result, paths.force_download);
    return result;
  } catch (const ManifestSupersededError& failure) {
    log::warning("Manifest changed during repair; refreshing manifest and running full sync: %s",
                 failure.what());
    return _driver._sync_with_manifest_refresh();
  }
}

}  // namespace tidalcrest::sync
