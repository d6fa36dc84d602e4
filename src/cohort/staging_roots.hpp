#pragma once

#include <memory>
#include <string>

#include "cohort/active_view.hpp"
#include "host/seams.hpp"

namespace tidalcrest::sync {

/// The directories that one staging works with.
struct StagingRoots {
  std::string manifest_sha256 = {};   ///< digest of the manifest bytes that are staged
  std::string active_root;            ///< where members may be reused from
  bool active_is_generation = false;  ///< `active_root` is a generation root, not the flat one
  bool same_identity = false;         ///< the live generation is repaired through a staging root aside
  std::string candidate_root;         ///< where the new members are gathered
  std::string repair_relative;  ///< the staging root aside, relative to the data directory; empty for none
};

/// Chooses and creates the candidate root for these manifest bytes.
///
/// The view may be older than the disk, or flat because its proof failed: what the selector names decides. A
/// selected generation whose completion record still reads is mended through a staging root aside; only one
/// whose record does not read is cleared and rebuilt, like any leftover of a failed attempt.
StagingRoots choose_staging_roots(const std::string& data_dir, const ActiveView& view,
                                  const std::string& served_manifest_bytes, const Seams& seams);

/// Removes a new generation root whose members may not be on the disk: an attempt that took them over would
/// find them right and publish what a power cut takes away. Best effort.
void remove_unflushed_root(const std::string& data_dir, const std::string& served_manifest_bytes) noexcept;

/// Removes the staging root aside, when there is one. Best effort.
void remove_repair_staging_root(const std::string& data_dir, const StagingRoots& roots) noexcept;

}  // namespace tidalcrest::sync
