#include "download/local_files.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <set>
#include <system_error>
#include <utility>

#include "host/digest.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/local_path.hpp"
#include "host/log.hpp"
#include "host/text.hpp"
#include "host/unusable.hpp"
#include "manifest/paths.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/sync_progress.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

std::string staging_path(const std::string& file_path) {
  return _safe_manifest_relative_path(file_path) + ".tmp";
}

// Keys sorted at every level. Written as it goes: a document of it would hold a large download set once more.
std::string progress_entries(const FilesToDownload& files_to_download) {
  std::vector<const FileToDownload*> sorted;
  sorted.reserve(files_to_download.size());
  for (const auto& file : files_to_download) sorted.push_back(&file);
  std::sort(sorted.begin(), sorted.end(),
            [](const auto* a, const auto* b) { return a->file_path < b->file_path; });
  std::string entries = "{";
  const char* separator = "";
  for (const auto* file : sorted) {
    const FileEntry& entry = file->file_info;
    fmt::format_to(std::back_inserter(entries), R"({}{}: {{"kind": {}, "platform": {})",
                   std::exchange(separator, ", "), dump_json(file->file_path),
                   dump_json(entry.plain_text("kind")), dump_json(entry.plain_text("platform")));
    if (const auto [known, size] = manifest_file_size(entry); known)
      fmt::format_to(std::back_inserter(entries), R"(, "size_bytes": {})", size);
    entries += '}';
  }
  entries += "}";
  return entries;
}

void log_failed_tmp_removal(const std::string& file_path, const std::exception& failure) {
  log::warning("Failed to remove stale sync tmp file %s: %s", file_path, failure.what());
}

void log_failed_tmp_scan(const std::string& data_dir, const std::exception& failure) {
  log::debug("best-effort tmp scan failed for %s: %s", data_dir, failure.what());
}

std::set<std::string> preserved_staging_paths(const std::vector<std::string>& relative_paths) {
  std::set<std::string> preserved;
  for (const std::string& path : relative_paths) {
    try {
      preserved.insert(staging_path(path));
    } catch (const ManifestError&) {
      continue;  // an unsafe path has no staging file
    }
  }
  return preserved;
}

}  // namespace

std::string _sha256(std::string_view data) { return sha256_hex(data); }

std::string _sha256_file(const std::string& filepath, std::int64_t chunk_bytes) {
  return client_manifest::hash_regular_file_path(filepath, "SHA256 input file", chunk_bytes);
}

void _atomic_write(const std::string& filepath, std::string_view data) {
  const auto unwritten = [&filepath](const std::exception& failure) {
    return SyncError(fmt::format("Unable to write regular file {}: {}", filepath, failure.what()));
  };
  try {
    client_manifest::write_regular_file_path(filepath, data, true);
  } catch (const Failure& failure) {
    if (!is_unusable(failure)) throw;
    throw unwritten(failure);
  }
}

std::string _sync_progress_path(const std::string& data_dir) {
  return join_path(data_dir, SYNC_PROGRESS_FILENAME);
}

void _write_sync_progress_json(const std::string& data_dir, const Manifest& manifest,
                               const FilesToDownload& files_to_download, const Seams& seams) {
  Document unknown_size_files = Document::array();
  std::uint64_t total_bytes = 0;
  for (const auto& file : files_to_download) {
    const auto [known, size] = manifest_file_size(file.file_info);
    if (!known) unknown_size_files.push_back(file.file_path);
    total_bytes += static_cast<std::uint64_t>(size);
  }
  const std::string progress = fmt::format(
      R"({{"era_number": {}, "files": {}, "phase": "syncing", "total_bytes": {}, "total_bytes_known": {}, )"
      R"("unknown_size_files": {}, "updated_at": {}, "version": {}}})",
      int_or_zero(manifest.era_number()), progress_entries(files_to_download), total_bytes,
      unknown_size_files.empty(), dump_json(unknown_size_files), dump_json(seams.wall_seconds()),
      int_or_zero(manifest.version()));
  _atomic_write(_sync_progress_path(data_dir), progress);
}

void _remove_sync_progress_json(const std::string& data_dir) {
  const std::string path = _sync_progress_path(data_dir);
  if (unlink(path.c_str()) == 0 || errno == ENOENT) return;
  log::debug("best-effort sync progress cleanup failed for %s: %s", path,
             std::generic_category().message(errno));
}

void _remove_manifest_tmp_file(const std::string& data_dir, const std::string& file_path) {
  const std::string tmp_path = staging_path(file_path);
  try {
    client_manifest::remove_contained_regular_file(data_dir, tmp_path, true);
  } catch (const ManifestError&) {
  } catch (const FileNotFoundError&) {  // gone is what was asked for
  } catch (const Failure& failure) {
    if (!is_unusable(failure)) throw;
    log_failed_tmp_removal(file_path, failure);
  }
}

void _cleanup_sync_tmp_files(const std::string& data_dir,
                             const std::vector<std::string>& preserve_relative_paths) {
  const auto preserved = preserved_staging_paths(preserve_relative_paths);
  try {
    client_manifest::cleanup_contained_regular_files(data_dir, ".tmp", preserved);
  } catch (const Failure& failure) {
    if (!is_unusable(failure)) throw;
    log_failed_tmp_scan(data_dir, failure);
  }
}

}  // namespace tidalcrest::sync
