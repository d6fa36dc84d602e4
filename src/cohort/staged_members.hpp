#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "cohort/staging_roots.hpp"
#include "download/manifest_generation.hpp"
#include "integrity/hash_cache.hpp"
#include "siblings/distribution/local_cohort.hpp"
#include "siblings/distribution/sync_backoff.hpp"

namespace tidalcrest::sync {

/// What became of the selected members of a plan.
struct SelectedMembers {
  std::vector<std::string> selected_paths;  ///< plan order, without what this client never fetches
  FilesToDownload new_files;                ///< what the active root does not have, plan order
  FilesToDownload files_to_download;        ///< those of them that must be fetched, plan order
};

using sync_backoff::StopCheck;

/// Goes through the planned paths in order: each is reused from the active root when it is proven to be what
/// the manifest declares, and put on the download list otherwise. The hash cache may answer only in the flat
/// root, and never for vault modules.
SelectedMembers reuse_selected_members(const Manifest& manifest,
                                       const std::vector<std::string>& planned_paths,
                                       const std::set<std::string>& forced_paths, const StagingRoots& roots,
                                       const std::string& data_dir, HashCache& hash_cache,
                                       const StopCheck& stop_check);

/// Reuses one file from the active root under the same rule, always rehashed; false when it does not match.
bool reuse_proven_file(const std::string& path, const FileEntry& file_info, const StagingRoots& roots,
                       HashCache& hash_cache);

/// The derived runtime extension snapshots of a candidate root: snapshot path to its mapping, in order of
/// creation.
using DerivedArtifacts = std::vector<std::pair<std::string, Document>>;
DerivedArtifacts derive_runtime_snapshots(const Manifest& manifest, const std::string& candidate_root,
                                          const std::vector<std::string>& selected_paths);

/// Measures every completion path once more from the disk, on all cores, against what the manifest declares.
/// The first failure in path order is the one that is thrown. `remembering`, when given, learns what the
/// files of a root that is going to be published were measured to be.
local_cohort::ArtifactIdentities prove_exact_identities(const Manifest& manifest,
                                                        const std::string& candidate_root,
                                                        const std::vector<std::string>& completion_paths,
                                                        const StopCheck& stop_check,
                                                        HashCache* remembering = nullptr);

/// Copies into the active generation what differs from the staged copy, and gives the paths; what is right
/// already stays untouched.
std::vector<std::string> repair_active_generation(
    const std::string& candidate_root, const std::string& active_root,
    const std::vector<std::string>& completion_paths,
    const local_cohort::ArtifactIdentities& artifact_identities);

/// Empties what a repair copied in and a failed flush may have lost: it still reads right, and the next
/// repair would leave it untouched. Empty, and not missing, because every road mends a damaged file. Best
/// effort.
void take_back_repair(const std::string& active_root, const std::vector<std::string>& copied_paths) noexcept;

}  // namespace tidalcrest::sync
