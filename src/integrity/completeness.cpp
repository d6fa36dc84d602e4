#include "integrity/completeness.hpp"

#include <optional>

#include "artifacts/shuffle_seed.hpp"
#include "artifacts/signals_index.hpp"
#include "artifacts/vocabulary.hpp"
#include "host/json.hpp"
#include "host/unusable.hpp"
#include "rotation/exclusion.hpp"
#include "siblings/distribution/artifact_rotation.hpp"
#include "siblings/distribution/directory_cursor.hpp"
#include "siblings/distribution/sync_backoff.hpp"
#include "tidalcrest/sync/errors.hpp"
#include "tidalcrest/sync/rotation.hpp"

namespace tidalcrest::sync {
namespace {

bool has_valid_vocabularies(const ActiveView& view, const Manifest& manifest) {
  try {
    _validate_manifest_vocabulary_files(view.data_dir, manifest);
    return true;
  } catch (const SyncError&) {  // an `EraError` too
    return false;
  }
}

bool has_valid_signals_index(const ActiveView& view, const Manifest& manifest) {
  try {
    _load_manifest_signals_index(view.data_dir, manifest);
    return true;
  } catch (const SyncError&) {  // an `EraError` or `ManifestError` too
    return false;
  }
}

}  // namespace

// The members of the active root, pinned once for a whole walk. A root that can't be pinned has no members.
class CompletenessTest::Members {
 public:
  Members(HashCache& hash_cache, const std::string& root) : _hash_cache(hash_cache) {
    try {
      _root.emplace(root);
      _cursor.emplace(*_root);
    } catch (const Failure& failure) {
      if (!is_unusable(failure)) throw;
    }
  }

  bool match(const std::string& path, const FileEntry& file_info) {
    if (!_root) return false;
    const bool cache_allowed = artifact_rotation::manifest_file_kind(file_info) != "vault_module";
    return _hash_cache._local_file_matches_manifest(*_root, *_cursor, path, file_info, cache_allowed,
                                                    _stop_check);
  }

 private:
  HashCache& _hash_cache;
  const sync_backoff::StopCheck _stop_check = sync_backoff::stop_check_of_this_thread();
  std::optional<client_manifest::PinnedRoot> _root;
  std::optional<client_manifest::DirectoryCursor> _cursor;  // walks `_root`
};

bool CompletenessTest::_local_manifest_files_complete(const ActiveView& view, const Manifest& manifest,
                                                      const RotationState* active_rotation_state) const {
  if (!view.manifest_bytes) return false;
  if (!_has_valid_shuffle_seed(view)) return false;
  if (active_rotation_state != nullptr)
    return _rotation_members_match(view, manifest, *active_rotation_state);
  return has_valid_vocabularies(view, manifest) && _all_members_match(view, manifest) &&
         has_valid_signals_index(view, manifest);
}

bool CompletenessTest::_has_valid_shuffle_seed(const ActiveView& view) const {
  try {
    _shuffle_seed._validate_shuffle_seed_at_root(view.data_dir, *view.manifest_bytes);
    return true;
  } catch (const FileNotFoundError&) {
    return false;
  } catch (const SyncError&) {
    return false;
  } catch (const ValueError&) {
    return false;
  }
}

bool CompletenessTest::_rotation_members_match(const ActiveView& view, const Manifest& manifest,
                                               const RotationState& state) const {
  Members members(_hash_cache, view.data_dir);
  for (const auto& path : state.active_relative_paths) {
    const auto file_info = manifest.file_entry(path);
    if (!file_info) return false;
    if (_manifest_file_is_sync_excluded(*file_info)) continue;
    if (!members.match(path, *file_info)) return false;
  }
  return true;
}

bool CompletenessTest::_all_members_match(const ActiveView& view, const Manifest& manifest) const {
  Members members(_hash_cache, view.data_dir);
  for (const auto& [path, file_info] : manifest.entries()) {
    if (_vocabulary_named_universe_from_path(path)) continue;  // proven with the vocabularies
    if (_manifest_file_is_sync_excluded(file_info)) continue;
    if (!members.match(std::string(path), file_info)) return false;
  }
  return true;
}

}  // namespace tidalcrest::sync
