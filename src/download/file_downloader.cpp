#include "download/file_downloader.hpp"

#include <fmt/format.h>

#include <utility>

#include "download/file_transfer.hpp"
#include "host/integer.hpp"
#include "host/text.hpp"
#include "host/unusable.hpp"
#include "manifest/file_kinds.hpp"
#include "manifest/paths.hpp"

namespace tidalcrest::sync {
namespace {

std::int64_t size_or_zero(const FileEntry& file_info) {
  const Document size = file_info.value("size_bytes");
  return size.is_null() ? 0 : to_int(size);
}

void tell_file_done(SyncProgress& progress, const std::string& file_path) noexcept {
  try {
    progress.on_file_done(file_path);
  } catch (...) {
    // A display must not fail a download.
  }
}

}  // namespace

FileDownloader::FileDownloader(std::string data_dir, std::string server_url, const ManagerHttp& http,
                               const SupersedeProbe& probe, const ActiveViewHolder& active,
                               HashCache& hash_cache, const FreshnessGuardHolder& freshness_guard,
                               std::shared_ptr<SyncProgress> progress, Seams seams)
    : _data_dir(std::move(data_dir)),
      _server_url(std::move(server_url)),
      _http(http),
      _probe(probe),
      _active(active),
      _hash_cache(hash_cache),
      _freshness_guard(freshness_guard),
      _progress(std::move(progress)),
      _seams(std::move(seams)) {}

void FileDownloader::_download_file(const FileToDownload& file, SyncResult& result,
                                    const DownloadOptions& options) const {
  const auto unsafe_boundary = [&file](const std::exception& failure) {
    return SyncError(
        fmt::format("Unsafe local download boundary for {}: {}", file.file_path, failure.what()));
  };
  const std::string& target =
      options.target_data_dir && !options.target_data_dir->empty() ? *options.target_data_dir : _data_dir;
  try {
    if (options.pinned_root) {
      _download_file_pinned(file, result, options, target, *options.pinned_root);
    } else {
      const client_manifest::PinnedRoot pinned_root(target, /*create=*/true);
      _download_file_pinned(file, result, options, target, pinned_root);
    }
  } catch (const SyncError&) {
    throw;
  } catch (const Failure& failure) {
    if (!is_unusable(failure)) throw;
    throw unsafe_boundary(failure);
  }
}

void FileDownloader::_download_file_pinned(const FileToDownload& file, SyncResult& result,
                                           const DownloadOptions& options, const std::string& target,
                                           const client_manifest::PinnedRoot& pinned_root) const {
  const FileEntry& file_info = file.file_info;
  const TransferTerms terms{.file_path = file.file_path,
                            .generation = options.generation,
                            .url = _manifest_file_url(_server_url, file.file_path,
                                                      generation_base_url(options.generation, _active)),
                            .expected_sha = file_info.plain_text("sha256"),
                            .expected_size = size_or_zero(file_info),
                            .http = _http,
                            .probe = _probe};
  const std::string local_path = _manifest_local_path(target, file.file_path);
  const std::string file_type = file_info.plain_text("kind");
  const std::string tmp_relative_path = _safe_manifest_relative_path(file.file_path) + ".tmp";

  const TransferredFile transferred =
      FileTransfer(terms, options, pinned_root, tmp_relative_path, *_progress, _seams).run();

  pinned_root.replace_regular_file(tmp_relative_path, file.file_path);
  pinned_root.assert_root_unchanged();
  if (target == _data_dir) {
    if (const auto runtime_guard = _freshness_guard.get()) {
      runtime_guard->record_sync_update(file.file_path, file_type, transferred.actual_sha);
    }
    if (file_type != "vault_module") {
      _hash_cache._remember_local_sha(target, file.file_path, transferred.actual_sha);
    }
  }
  result.bytes_downloaded += transferred.total_written;
  if (file_type == "feature") ++result.features_downloaded;
  if (is_found_pnl_file_kind(file_type)) result.found_pnl_paths_downloaded.push_back(local_path);
  tell_file_done(*_progress, file.file_path);
}

}  // namespace tidalcrest::sync
