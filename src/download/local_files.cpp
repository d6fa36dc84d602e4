#include "download/local_files.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <system_error>

#include "host/digest.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/local_path.hpp"
#include "host/log.hpp"
#include "host/text.hpp"
#include "manifest/paths.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/sync_progress.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

std::string staging_path(const std::string& file_path) {
  return _safe_manifest_relative_path(file_path) + ".tmp";
}

std::int64_t integer_or_zero(const Document& value) { return text::truthy(value) ? to_int(value) : 0; }

std::string text_member(const Document& file_info, const char* key) {
  const Document* value = find_member(file_info, key);
  return value != nullptr && text::truthy(*value) ? text::str(*value) : std::string();
}

Document progress_entry(const Document& file_info) {
  Document entry = {{"kind", text_member(file_info, "kind")},
                    {"platform", text_member(file_info, "platform")}};
  if (const auto [known, size] = manifest_file_size(file_info); known) entry["size_bytes"] = size;
  return entry;
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
  } catch (const OSError& failure) {
    throw unwritten(failure);
  } catch (const TypeError& failure) {
    throw unwritten(failure);
  } catch (const ValueError& failure) {
    throw unwritten(failure);
  }
}

std::string _sync_progress_path(const std::string& data_dir) {
  return join_path(data_dir, SYNC_PROGRESS_FILENAME);
}

void _write_sync_progress_json(const std::string& data_dir, const Manifest& manifest,
                               const FilesToDownload& files_to_download, const Seams& seams) {
  static const Document no_entry = Document::object();
  Document files = Document::object();
  files.get_ref<Document::object_t&>().reserve(files_to_download.size());
  Document unknown_size_files = Document::array();
  std::uint64_t total_bytes = 0;
  for (const auto& [file_path, file_info] : files_to_download) {
    const Document& entry = file_info == nullptr ? no_entry : *file_info;
    const auto [known, size] = manifest_file_size(entry);
    if (!known) unknown_size_files.push_back(file_path);
    total_bytes += static_cast<std::uint64_t>(size);
    files[file_path] = progress_entry(entry);
  }
  const bool all_known = unknown_size_files.empty();
  Document progress = {
      {"phase", "syncing"},
      {"era_number", integer_or_zero(manifest.era_number())},
      {"version", integer_or_zero(manifest.version())},
      {"updated_at", seams.wall_seconds()},
      {"total_bytes", total_bytes},
      {"total_bytes_known", all_known},
      {"unknown_size_files", std::move(unknown_size_files)},
      {"files", std::move(files)},
  };
  _atomic_write(_sync_progress_path(data_dir), dump_json(progress, {.sort_keys = true}));
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
  } catch (const OSError& failure) {
    log_failed_tmp_removal(file_path, failure);
  } catch (const TypeError& failure) {
    log_failed_tmp_removal(file_path, failure);
  } catch (const ValueError& failure) {
    log_failed_tmp_removal(file_path, failure);
  }
}

void _cleanup_sync_tmp_files(const std::string& data_dir,
                             const std::vector<std::string>& preserve_relative_paths) {
  const auto preserved = preserved_staging_paths(preserve_relative_paths);
  try {
    client_manifest::cleanup_contained_regular_files(data_dir, ".tmp", preserved);
  } catch (const OSError& failure) {
    log_failed_tmp_scan(data_dir, failure);
  } catch (const TypeError& failure) {
    log_failed_tmp_scan(data_dir, failure);
  } catch (const ValueError& failure) {
    log_failed_tmp_scan(data_dir, failure);
  }
}

}  // namespace tidalcrest::sync
