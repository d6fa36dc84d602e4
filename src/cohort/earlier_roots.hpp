#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cohort/staging_roots.hpp"
#include "siblings/distribution/cohort_roots.hpp"

namespace tidalcrest::sync {

/// A root that neither the live cohort nor the present staging uses.
struct EarlierRoot {
  local_cohort::CohortRoot root;
  bool unfinished = false;  ///< of a staging that failed or was killed
};

/// Newest first. The caller holds the exclusive distribution lock. Throws `OSError`.
std::vector<EarlierRoot> earlier_roots(const std::string& data_dir, const StagingRoots& roots);

/// Digest of the manifest that a staging was for, which it keeps from before its first member on: empty when
/// it ended before that, absent when the manifest cannot be read.
std::optional<std::string> staged_manifest_sha256(const local_cohort::CohortRoot& root);

}  // namespace tidalcrest::sync
