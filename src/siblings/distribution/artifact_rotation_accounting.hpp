#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "siblings/distribution/artifact_rotation_descriptors.hpp"
#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync::artifact_rotation {

/// What a sweep must spare: the metadata files, the protected paths, and every manifest file that rotation
/// does not choose (no feature artifact, or a mandatory one).
std::set<std::string> rotation_cleanup_keep_paths(const ManifestEntries& entries,
                                                  const std::set<std::string>& protected_paths,
                                                  const std::vector<std::string>& metadata_relative_paths);

struct StatusAccounting {
  std::vector<std::string> eligible_relative_paths;        ///< what the settings let rotation choose from
  std::vector<std::string> selected_relative_paths;        ///< eligible and active
  std::vector<std::string> skipped_relative_paths;         ///< eligible, not active
  std::vector<std::string> departed_relative_paths;        ///< active, but no longer in the manifest
  std::vector<std::string> missing_active_relative_paths;  ///< active and not departed, but not on disk
};
/// `artifacts` absent: no manifest, so nothing is eligible or departed and no active file counts as present.
/// A `settings_payload` that is no object restricts nothing.
StatusAccounting rotation_status_accounting(const std::vector<std::string>& active_paths,
                                            const std::optional<Artifacts>& artifacts,
                                            const Document& settings_payload,
                                            const std::vector<std::string>& existing_relative_paths);

}  // namespace tidalcrest::sync::artifact_rotation
