#include "cohort/salvage.hpp"

#include <optional>

#include "host/json.hpp"
#include "host/local_path.hpp"
#include "host/log.hpp"
#include "host/parallel.hpp"
#include "host/threads.hpp"
#include "manifest/persistence.hpp"
#include "siblings/distribution/cohort_roots.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/local_cohort.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

using client_manifest::PinnedRoot;
using local_cohort::CohortRoot;
using local_cohort::CohortRootKind;

constexpr const char* STAGING_SUFFIX = ".tmp";

struct Source {
  PinnedRoot root;
  std::string relative_path;
  bool expendable = false;        // unfinished: members are moved out, and the root goes
  std::optional<Document> files;  // what its manifest declares; absent when that is not known
};

// The declarations that a staging was for. It keeps its manifest beside its members from the start.
std::optional<Document> declared_files(const PinnedRoot& root) {
  try {
    const auto bytes = root.read_regular_file_if_present(local_cohort::COHORT_MANIFEST_FILE,
                                                         "manifest of an earlier staging");
    if (!bytes) return std::nullopt;
    Document manifest = _parse_full_distribution_manifest_bytes(*bytes, "manifest of an earlier staging");
    const auto files = manifest.find("files");
    return files != manifest.end() ? std::optional<Document>(std::move(*files)) : std::nullopt;
  } catch (const std::exception& failure) {
    log::debug("No declarations for the leftover %s: %s", root.path(), failure.what());
    return std::nullopt;
  }
}

class Salvage {
 public:
  Salvage(const std::string& data_dir, const StagingRoots& roots, HashCache& hash_cache)
      : _candidate_root(roots.candidate_root), _hash_cache(hash_cache) {
    const auto selector = local_cohort::read_selector_bytes(data_dir);
    const std::string selected = selector ? local_cohort::generation_relative_root(*selector) : std::string();
    for (const auto& root : local_cohort::list_cohort_roots(data_dir)) {
      if (root.path == absolute_path(roots.candidate_root) || root.path == absolute_path(roots.active_root))
        continue;
      add_source(root,
                 /*expendable=*/root.kind != CohortRootKind::complete && root.relative_path != selected);
    }
  }

  bool empty() const noexcept { return _sources.empty(); }

  // Whether the candidate root now holds this member. Safe on several threads for distinct paths.
  bool take_whole_member(const FileToDownload& file) const {
    for (const auto& source : _sources) {
      if (!_hash_cache._local_file_matches_manifest(source.root, file.file_path, *file.file_info,
                                                    /*cache_allowed=*/false)) {
        continue;
      }
      take(source, file.file_path);
      return true;
    }
    return false;
  }

  void take_prefix(const FileToDownload& file) const {
    const std::string staging_path = file.file_path + STAGING_SUFFIX;
    for (const auto& source : _sources) {
      if (!source.expendable || !declares_same_digest(source, file)) continue;
      try {
        source.root.stat_regular_file(staging_path, "staged prefix of an earlier attempt");
        return take(source, staging_path);
      } catch (const OSError&) {
        continue;  // none there, or nothing that could be resumed
      }
    }
  }

  void remove_expendable_roots(const std::string& data_dir) const {
    for (const auto& source : _sources) {
      if (!source.expendable) continue;
      try {
        client_manifest::remove_contained_directory_tree(data_dir, source.relative_path, /*missing_ok=*/true);
      } catch (const std::exception& failure) {
        log::debug("best-effort removal of the leftover %s failed: %s", source.relative_path, failure.what());
      }
    }
  }

 private:
  void add_source(const CohortRoot& root, bool expendable) {
    try {
      PinnedRoot pinned(root.path);
      auto files = expendable ? declared_files(pinned) : std::nullopt;
      _sources.push_back({std::move(pinned), root.relative_path, expendable, std::move(files)});
    } catch (const OSError& failure) {
      log::debug("The leftover %s cannot be opened: %s", root.path, failure.what());
    }
  }

  static bool declares_same_digest(const Source& source, const FileToDownload& file) {
    const Document* earlier = source.files ? find_member(*source.files, file.file_path) : nullptr;
    const Document* earlier_digest = earlier != nullptr ? find_member(*earlier, "sha256") : nullptr;
    const Document* digest = find_member(*file.file_info, "sha256");
    return earlier_digest != nullptr && digest != nullptr && *earlier_digest == *digest;
  }

  void take(const Source& source, const std::string& path) const {
    const auto bring = source.expendable ? client_manifest::move_contained_regular_file
                                         : client_manifest::copy_contained_regular_file;
    bring(source.root.path(), path, _candidate_root, path);
  }

  const std::string _candidate_root;
  HashCache& _hash_cache;
  std::vector<Source> _sources;  // newest first
};

}  // namespace

void salvage_earlier_attempts(const std::string& data_dir, const StagingRoots& roots,
                              const std::set<std::string>& forced_paths, HashCache& hash_cache,
                              const StopCheck& stop_check, SelectedMembers& members) {
  const Salvage salvage(data_dir, roots, hash_cache);
  if (salvage.empty()) return;
  FilesToDownload& files = members.files_to_download;
  std::vector<char> taken(files.size(), 0);  // bytes, so that several threads can write
  parallel_in_order(files.size(), usable_cores(), [&](std::size_t i) {
    if (files[i].file_info == nullptr || forced_paths.contains(files[i].file_path)) return;
    stop_check();
    taken[i] = salvage.take_whole_member(files[i]) ? 1 : 0;
  });
  FilesToDownload remaining;
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (taken[i] != 0) continue;
    if (files[i].file_info != nullptr && !forced_paths.contains(files[i].file_path))
      salvage.take_prefix(files[i]);
    remaining.push_back(std::move(files[i]));
  }
  files = std::move(remaining);
  salvage.remove_expendable_roots(data_dir);
}

}  // namespace tidalcrest::sync
