#include "cohort/salvage.hpp"

#include <optional>
#include <string_view>

#include "cohort/earlier_roots.hpp"
#include "host/log.hpp"
#include "host/parallel.hpp"
#include "host/path_set.hpp"
#include "host/threads.hpp"
#include "manifest/persistence.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/local_cohort.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

using client_manifest::PinnedRoot;
using local_cohort::CohortRoot;
using local_cohort::CohortRootKind;

constexpr const char* STAGING_SUFFIX = ".tmp";

// Each one asked costs the reading of its manifest. Rotation brings features back, so the last one alone is
// too few; generations pile up where nobody collects them, so all are too many.
constexpr std::size_t MOST_GENERATIONS_ASKED = 8;

struct Source {
  PinnedRoot root;
  std::string relative_path;
  bool complete = false;    // has a completion record
  bool expendable = false;  // members are moved out, and the root goes
  std::optional<PathSet>
      same_digest;  // wanted paths that it declared as we do; absent when that is not known

  // Without a declaration a member may still turn out to be the right one, but a prefix stays unknown.
  bool may_hold_member(const std::string& path) const { return !same_digest || same_digest->contains(path); }
  bool may_hold_prefix(const std::string& path) const {
    return !complete && same_digest && same_digest->contains(path);
  }
};

// The digest that an entry declares; empty without one.
std::string_view declared_digest(const FileEntry& file_info) {
  return file_info.text("sha256").value_or(std::string_view());
}

template <class EarlierDigest>
PathSet paths_where(const FilesToDownload& wanted, const EarlierDigest& earlier_digest) {
  PathSet paths;
  for (const auto& file : wanted) {
    const std::string_view digest = declared_digest(file.file_info);
    if (!digest.empty() && earlier_digest(file.file_path) == digest) paths.insert(file.file_path);
  }
  return paths;
}

// A generation's record says what it holds, in less memory than its manifest.
PathSet recorded_with_same_digest(const PinnedRoot& root, const FilesToDownload& wanted) {
  const auto members = local_cohort::read_completed_members(root);
  return paths_where(wanted, [&](const std::string& path) {
    const auto* identity = members.find(path);
    return identity != nullptr ? identity->sha256 : std::string_view();
  });
}

// An unfinished root keeps the manifest that it was staged for beside its members from the start.
std::optional<PathSet> declared_with_same_digest(const PinnedRoot& root, const FilesToDownload& wanted) {
  constexpr const char* LABEL = "manifest of an earlier staging";
  auto bytes = root.read_regular_file_if_present(local_cohort::COHORT_MANIFEST_FILE, LABEL);
  if (!bytes) return std::nullopt;
  const auto manifest =
      _parse_full_distribution_manifest(std::make_shared<const std::string>(*std::move(bytes)), LABEL);
  if (!manifest->has_files()) return std::nullopt;
  return paths_where(wanted, [&](const std::string& path) {
    return declared_digest(manifest->entries().find(path).value_or(FileEntry()));
  });
}

std::optional<PathSet> paths_of_same_digest(const Source& source, const FilesToDownload& wanted) {
  try {
    if (source.complete) return recorded_with_same_digest(source.root, wanted);
    return declared_with_same_digest(source.root, wanted);
  } catch (const std::exception& failure) {
    log::debug("No declarations for the leftover %s: %s", source.root.path(), failure.what());
    return std::nullopt;
  }
}

// A new generation takes the place of every attempt before it. A repair of the live one does not: the staging
// of a newer manifest that was interrupted goes on after it.
bool is_expendable(const CohortRoot& unfinished, const StagingRoots& roots) {
  if (!roots.same_identity) return true;
  const auto manifest_sha256 = staged_manifest_sha256(unfinished);
  if (!manifest_sha256) return false;  // a disk that fails says nothing about what was staged
  const bool ended_before_its_first_member = manifest_sha256->empty();
  return ended_before_its_first_member || *manifest_sha256 == roots.manifest_sha256;
}

// What may be taken over: forced members are fetched anew, and a file without an entry cannot be proven.
FilesToDownload wanted_files(const FilesToDownload& files, const std::set<std::string>& forced_paths) {
  FilesToDownload wanted;
  for (const auto& file : files) {
    if (!file.file_info.is_none() && !forced_paths.contains(file.file_path)) wanted.push_back(file);
  }
  return wanted;
}

class Salvage {
 public:
  Salvage(const std::string& data_dir, const StagingRoots& roots, HashCache& hash_cache)
      : _candidate_root(roots.candidate_root), _hash_cache(hash_cache) {
    std::size_t generations = 0;
    for (const auto& [root, unfinished] : earlier_roots(data_dir, roots)) {
      if (unfinished || generations++ < MOST_GENERATIONS_ASKED)
        add_source(root, unfinished && is_expendable(root, roots));
    }
  }

  bool empty() const noexcept { return _sources.empty(); }

  // `wanted` outlives this object.
  void learn_declarations(const FilesToDownload& wanted) {
    if (wanted.empty()) return;
    parallel_in_order(_sources.size(), usable_cores(), [&](std::size_t i) {
      _sources[i].same_digest = paths_of_same_digest(_sources[i], wanted);
    });
  }

  // Whether the candidate root now holds this member. Safe on several threads for distinct paths.
  bool take_whole_member(const FileToDownload& file) const {
    for (const auto& source : _sources) {
      if (!source.may_hold_member(file.file_path)) continue;
      if (!_hash_cache._local_file_matches_manifest(source.root, file.file_path, file.file_info,
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
      if (!source.may_hold_prefix(file.file_path)) continue;
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
      _sources.push_back({PinnedRoot(root.path), root.relative_path, root.kind == CohortRootKind::complete,
                          expendable, std::nullopt});
    } catch (const OSError& failure) {
      log::debug("The leftover %s cannot be opened: %s", root.path, failure.what());
    }
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
  Salvage salvage(data_dir, roots, hash_cache);
  if (salvage.empty()) return;
  const FilesToDownload wanted = wanted_files(members.files_to_download, forced_paths);
  salvage.learn_declarations(wanted);
  std::vector<char> taken(wanted.size(), 0);  // bytes, so that several threads can write
  parallel_in_order(wanted.size(), usable_cores(), [&](std::size_t i) {
    stop_check();
    taken[i] = salvage.take_whole_member(wanted[i]) ? 1 : 0;
  });
  PathSet whole;
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    if (taken[i] != 0) {
      whole.insert(wanted[i].file_path);
    } else {
      salvage.take_prefix(wanted[i]);
    }
  }
  std::erase_if(members.files_to_download,
                [&](const FileToDownload& file) { return whole.contains(file.file_path); });
  salvage.remove_expendable_roots(data_dir);
}

}  // namespace tidalcrest::sync
