#include "cohort/staged_members.hpp"

#include <fcntl.h>

#include <cerrno>

#include "host/descriptor.hpp"
#include "host/integer.hpp"
#include "host/log.hpp"
#include "host/parallel.hpp"
#include "host/text.hpp"
#include "host/threads.hpp"
#include "rotation/exclusion.hpp"
#include "siblings/distribution/contained_open.hpp"
#include "siblings/distribution/file_blocks.hpp"
#include "siblings/distribution/pinned_root.hpp"
#include "siblings/distribution/shuffle_seed_state.hpp"
#include "siblings/runtime/modules.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

using client_manifest::PinnedRoot;

// Absent when there is nothing to pin: then nothing can be reused, and everything is fetched.
std::optional<PinnedRoot> pinned_if_possible(const std::string& root) {
  try {
    return std::optional<PinnedRoot>(std::in_place, root);
  } catch (const OSError&) {
    return std::nullopt;
  }
}

bool may_trust_hash_cache(const StagingRoots& roots, const std::string& data_dir,
                          const FileEntry& file_info) {
  return roots.active_root == data_dir && file_info.text("kind") != "vault_module";
}

void check_declared_identity(const std::optional<FileEntry>& file_info,
                             const client_manifest::FileIdentity& identity, const std::string& path) {
  if (!file_info) return;  // a derived snapshot has no declaration
  const std::string expected_sha = file_info->plain_text("sha256");
  if (expected_sha.empty()) return;
  const Document expected_size = file_info->value("size_bytes");
  const auto size_differs = [&] {
    return !expected_size.is_null() && to_int(expected_size) != identity.size_bytes;
  };
  if (identity.sha256 != expected_sha || size_differs()) {
    throw IntegrityError("Candidate cohort identity mismatch: " + path);
  }
}

local_cohort::ArtifactIdentity measured(const PinnedRoot& root, const std::string& path, const char* label) {
  const auto identity = root.identify_regular_file(path, label);
  return {identity.sha256, identity.size_bytes};
}

// Nearly every member of a first sync is missing: told without the cost of a failure.
bool is_missing(const PinnedRoot& root, const std::string& path) {
  return !Descriptor(client_manifest::open_beneath(root.descriptor(), path, O_PATH)) && errno == ENOENT;
}

// Whether the live member is already right. One that is missing, or that cannot be read as a regular file, is
// not: the copy that follows replaces whatever stands in its place.
bool is_already_right(const PinnedRoot& active, const std::string& path,
                      const local_cohort::ArtifactIdentity& expected) {
  try {
    return measured(active, path, "active cohort repair artifact") == expected;
  } catch (const OSError&) {
    return false;
  }
}

// Refers to the plan and the manifest.
struct PlannedMember {
  const std::string* path;
  FileEntry file_info;
  bool reused = false;
};

std::vector<PlannedMember> planned_members(const Manifest& manifest,
                                           const std::vector<std::string>& planned_paths) {
  std::vector<PlannedMember> members;
  for (const auto& path : planned_paths) {
    const auto file_info = manifest.entries().find(path);
    if (!file_info || file_info->is_null()) {
      throw SyncError("Active rotation path is missing from candidate manifest: " + path);
    }
    if (!_manifest_file_is_sync_excluded(*file_info)) members.push_back({&path, *file_info});
  }
  return members;
}

SelectedMembers sorted_out(const std::vector<PlannedMember>& members) {
  SelectedMembers result;
  result.selected_paths.reserve(members.size());
  for (const auto& [path, file_info, reused] : members) {
    result.selected_paths.push_back(*path);
    if (!reused) result.new_files.push_back({*path, file_info});
  }
  result.files_to_download = result.new_files;
  return result;
}

}  // namespace

SelectedMembers reuse_selected_members(const Manifest& manifest,
                                       const std::vector<std::string>& planned_paths,
                                       const std::set<std::string>& forced_paths, const StagingRoots& roots,
                                       const std::string& data_dir, HashCache& hash_cache,
                                       const StopCheck& stop_check) {
  std::vector<PlannedMember> members = planned_members(manifest, planned_paths);
  const auto active = pinned_if_possible(roots.active_root);
  const PinnedRoot candidate(roots.candidate_root);
  parallel_in_order(active ? members.size() : 0, usable_cores(), [&](std::size_t i) {
    const auto& [path, file_info, reused] = members[i];
    if (forced_paths.contains(*path)) return;
    stop_check();
    if (!roots.active_is_generation && is_missing(*active, *path)) return;
    const bool cache_allowed = may_trust_hash_cache(roots, data_dir, file_info);
    if (!hash_cache._local_file_matches_manifest(*active, *path, file_info, cache_allowed, stop_check))
      return;
    active->copy_regular_file(*path, candidate, *path);
    members[i].reused = true;
  });
  return sorted_out(members);
}

bool reuse_proven_file(const std::string& path, const FileEntry& file_info, const StagingRoots& roots,
                       HashCache& hash_cache) {
  const auto active = pinned_if_possible(roots.active_root);
  if (!active) return false;
  if (!hash_cache._local_file_matches_manifest(*active, path, file_info, /*cache_allowed=*/false))
    return false;
  active->copy_regular_file(path, PinnedRoot(roots.candidate_root), path);
  return true;
}

DerivedArtifacts derive_runtime_snapshots(const Manifest& manifest, const std::string& candidate_root,
                                          const std::vector<std::string>& selected_paths) {
  DerivedArtifacts derived;
  const PinnedRoot candidate(candidate_root);
  for (const auto& source_path : selected_paths) {
    const FileEntry file_info = *manifest.file_entry(source_path);
    const auto module_name = runtime_module_name_from_kind(file_info.plain_text("kind"), source_path);
    if (!module_name || module_name->empty()) continue;
    // Measured and copied in the kernel: a module may be large, and nothing needs it in memory.
    const auto source = candidate.identify_regular_file(source_path, "candidate runtime extension source");
    const Document declared_size = file_info.value("size_bytes");
    const std::string declared_sha = file_info.plain_text("sha256");
    const auto require_declared = [&](const client_manifest::FileIdentity& measured) {
      if (measured.size_bytes == to_int(declared_size) && measured.sha256 == declared_sha) return;
      throw IntegrityError("Candidate runtime extension source identity mismatch: " + source_path);
    };
    require_declared(source);
    auto [snapshot_path, mapping] =
        extension_snapshot::snapshot_record(*module_name, source_path, declared_sha, declared_size);
    candidate.copy_regular_file(source_path, candidate, snapshot_path);
    require_declared(candidate.identify_regular_file(snapshot_path, "candidate runtime extension snapshot"));
    derived.emplace_back(std::move(snapshot_path), std::move(mapping));
  }
  candidate.assert_root_unchanged();
  return derived;
}

local_cohort::ArtifactIdentities prove_exact_identities(const Manifest& manifest,
                                                        const std::string& candidate_root,
                                                        const std::vector<std::string>& completion_paths,
                                                        const StopCheck& stop_check, HashCache* remembering) {
  const PinnedRoot candidate(candidate_root);
  std::vector<local_cohort::ArtifactIdentity> in_order(completion_paths.size());
  parallel_in_order(completion_paths.size(), usable_cores(), [&](std::size_t i) {
    stop_check();
    const std::string& path = completion_paths[i];
    const auto identity = candidate.identify_regular_file(path, "candidate cohort artifact",
                                                          client_manifest::DEFAULT_BLOCK_BYTES, stop_check);
    const auto file_info = manifest.file_entry(path);
    check_declared_identity(file_info, identity, path);
    if (remembering != nullptr && file_info && file_info->text("kind") != "vault_module")
      remembering->_remember_local_sha(path, identity);
    in_order[i] = {identity.sha256, identity.size_bytes};
  });
  local_cohort::ArtifactIdentities identities;
  for (std::size_t i = 0; i < completion_paths.size(); ++i) {
    identities[completion_paths[i]] = std::move(in_order[i]);
  }
  return identities;
}

std::vector<std::string> repair_active_generation(
    const std::string& candidate_root, const std::string& active_root,
    const std::vector<std::string>& completion_paths,
    const local_cohort::ArtifactIdentities& artifact_identities) {
  constexpr const char* SEED_LABEL = "candidate operational shuffle artifact";
  const PinnedRoot candidate(candidate_root);
  const PinnedRoot active(active_root, /*create=*/true);
  std::vector<std::string> repair_paths = completion_paths;
  for (const char* seed_path :
       {shuffle_seed_state::SHUFFLE_SEED_FILE, shuffle_seed_state::SHUFFLE_SEED_METADATA_FILE}) {
    try {
      candidate.stat_regular_file(seed_path, SEED_LABEL);
      repair_paths.emplace_back(seed_path);
    } catch (const FileNotFoundError&) {
      // The pair is an operational artifact: a root without it has nothing to bring over.
    }
  }
  std::vector<std::string> copied_paths;
  for (const auto& path : repair_paths) {
    const auto recorded = artifact_identities.find(path);
    const auto expected =
        recorded != artifact_identities.end() ? recorded->second : measured(candidate, path, SEED_LABEL);
    if (is_already_right(active, path, expected)) continue;
    candidate.copy_regular_file_atomically(path, active, path);
    copied_paths.push_back(path);
  }
  return copied_paths;
}

void take_back_repair(const std::string& active_root, const std::vector<std::string>& copied_paths) noexcept {
  for (const auto& path : copied_paths) {
    try {
      PinnedRoot(active_root).write_atomic(path, "", /*allow_replace=*/true);
    } catch (const std::exception& failure) {
      log::warning("A repaired member that was not flushed could not be taken back: %s", failure.what());
    }
  }
}

}  // namespace tidalcrest::sync
