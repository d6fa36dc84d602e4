#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "download/manifest_generation.hpp"
#include "siblings/distribution/pinned_root.hpp"

namespace tidalcrest::sync {

/// How one file is brought in. Shared by all files of one staging; read only.
struct DownloadOptions {
  ManifestGeneration generation;
  std::function<void(double wait_seconds)> retry_status_callback =
      {};                                           ///< called before every wait; may be empty
  std::optional<std::string> target_data_dir = {};  ///< absent or empty: the manager's data directory
  /// The target, where it is pinned already; null pins it for each file.
  std::shared_ptr<const client_manifest::PinnedRoot> pinned_root = {};
  std::string backoff_surface = "file_download";
  bool retry_partial_transfer = true;   ///< whether a short transfer is repeated here
  bool retry_checksum_mismatch = true;  ///< whether a checksum failure is repeated here
};

}  // namespace tidalcrest::sync
