#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "download/manifest_generation.hpp"
#include "host/seams.hpp"
#include "tidalcrest/sync/manifest.hpp"

namespace tidalcrest::sync {

inline constexpr std::int64_t SYNC_HASH_FILE_CHUNK_BYTES = 8388608;
inline constexpr const char* SYNC_PROGRESS_FILENAME = "sync-progress.json";

std::string _sha256(std::string_view data);
/// `FileNotFoundError`, `OSError` or `ValueError` for what is no readable regular file.
std::string _sha256_file(const std::string& filepath, std::int64_t chunk_bytes = SYNC_HASH_FILE_CHUNK_BYTES);
/// A reader, or a crash, finds the old file or the new one. `SyncError`.
void _atomic_write(const std::string& filepath, std::string_view data);

/// The file with which other processes watch a running sync.
std::string _sync_progress_path(const std::string& data_dir);
/// Phase "syncing" with the declared sizes of the set. `SyncError` when it cannot be written.
void _write_sync_progress_json(const std::string& data_dir, const Manifest& manifest,
                               const FilesToDownload& files_to_download, const Seams& seams);
/// Best effort.
void _remove_sync_progress_json(const std::string& data_dir);

// Staging files: `{path}.tmp` beside the member. Both removals are best effort.

/// `ManifestError` for an unsafe path; every failure of the removal itself is only logged.
void _remove_manifest_tmp_file(const std::string& data_dir, const std::string& file_path);
/// Removes every staging file below the data directory but those of the given paths, which a download will
/// resume.
void _cleanup_sync_tmp_files(const std::string& data_dir,
                             const std::vector<std::string>& preserve_relative_paths = {});

}  // namespace tidalcrest::sync
