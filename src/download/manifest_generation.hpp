#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tidalcrest/sync/manifest_entries.hpp"

namespace tidalcrest::sync {

/// The manifest generation that a transfer belongs to. Absent members: the file has no generation and cannot
/// be superseded; an empty base URL falls back to the active manifest's.
struct ManifestGeneration {
  std::string base_url;
  std::optional<std::int64_t> version;
  std::optional<std::int64_t> era_number;
};

/// What one transfer needs to know of a manifest entry. The entry itself is owned by its manifest and
/// outlives the transfer; nothing is copied per file.
struct FileToDownload {
  std::string file_path;
  FileEntry file_info = {};  ///< may be none
};

/// Manifest order is kept.
using FilesToDownload = std::vector<FileToDownload>;

}  // namespace tidalcrest::sync
