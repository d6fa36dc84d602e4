#include "cohort/earlier_roots.hpp"

#include <utility>

#include "host/local_path.hpp"
#include "siblings/distribution/local_cohort.hpp"
#include "siblings/distribution/pinned_root.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

std::vector<EarlierRoot> earlier_roots(const std::string& data_dir, const StagingRoots& roots) {
  const auto selector = local_cohort::read_selector_bytes(data_dir);
  const std::string selected = selector ? local_cohort::generation_relative_root(*selector) : std::string();
  std::vector<EarlierRoot> earlier;
  for (auto& root : local_cohort::list_cohort_roots(data_dir)) {
    if (root.path == absolute_path(roots.active_root) || root.path == absolute_path(roots.candidate_root))
      continue;
    const bool unfinished =
        root.kind != local_cohort::CohortRootKind::complete && root.relative_path != selected;
    earlier.push_back({std::move(root), unfinished});
  }
  return earlier;
}

std::optional<std::string> staged_manifest_sha256(const local_cohort::CohortRoot& root) {
  try {
    const auto bytes = client_manifest::PinnedRoot(root.path).read_regular_file_if_present(
        local_cohort::COHORT_MANIFEST_FILE, "manifest of an earlier staging");
    return bytes ? local_cohort::manifest_sha256(*bytes) : std::string();
  } catch (const OSError&) {
    return std::nullopt;
  }
}

}  // namespace tidalcrest::sync
