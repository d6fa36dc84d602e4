#pragma once

#include <memory>
#include <string>
#include <vector>

#include "cohort/staged_members.hpp"
#include "cohort/staging_roots.hpp"
#include "integrity/hash_cache.hpp"

namespace tidalcrest::sync {

/// Takes out of the roots of earlier attempts what a new staging would otherwise fetch again, and removes
/// those roots. A repair leaves those that were for another manifest as they are.
///
/// Sources are the roots of failed or killed stagings, whatever manifest they were for, and the newest
/// complete generations that are not live. A whole member is looked at where the root's manifest declares the
/// same digest, and counts only after it has been hashed again. A `.tmp` prefix is taken only when the
/// earlier manifest declared the same digest, and the transfer that resumes it hashes it again. Members are
/// moved out of a root that goes and copied out of one that stays.
///
/// The caller holds the exclusive distribution lock, so no root is in use by another writer. What is taken
/// leaves `members.files_to_download`.
void salvage_earlier_attempts(const std::string& data_dir, const StagingRoots& roots,
                              const std::set<std::string>& forced_paths, HashCache& hash_cache,
                              const StopCheck& stop_check, SelectedMembers& members);

}  // namespace tidalcrest::sync
