#pragma once

#include <memory>
#include <string>

#include "cohort/active_view.hpp"
#include "download/download_options.hpp"
#include "download/manifest_generation.hpp"
#include "download/supersede_probe.hpp"
#include "host/seams.hpp"
#include "integrity/hash_cache.hpp"
#include "tidalcrest/sync/freshness_guard.hpp"
#include "tidalcrest/sync/progress.hpp"
#include "tidalcrest/sync/records.hpp"
#include "transport/manager_http.hpp"

namespace tidalcrest::sync {

/// Brings one manifest file into a root: resumable, verified, atomic. Every byte is hashed while it arrives,
/// and memory stays at one small buffer whatever the size of the file. Thread-safe for distinct paths.
class FileDownloader {
 public:
  FileDownloader(std::string data_dir, std::string server_url, const ManagerHttp& http,
                 const SupersedeProbe& probe, const ActiveViewHolder& active, HashCache& hash_cache,
                 const FreshnessGuardHolder& freshness_guard, std::shared_ptr<SyncProgress> progress,
                 Seams seams);
  /// Runs one complete download under a stable root descriptor and adds to the counters of `result`. Throws
  /// `ManifestSupersededError`, `PermanentDownloadError`, `AuthError`, `IntegrityError`,
  /// `SyncUnavailableError` that is not to be retried, what the backoff module throws for a stop, and
  /// `SyncError` for an unsafe boundary or a local write failure. Transient statuses and network failures
  /// repeat until a stop comes.
  void _download_file(const FileToDownload& file, SyncResult& result, const DownloadOptions& options) const;

 private:
  void _download_file_pinned(const FileToDownload& file, SyncResult& result, const DownloadOptions& options,
                             const std::string& target, const client_manifest::PinnedRoot& pinned_root) const;

  const std::string _data_dir;
  const std::string _server_url;
  const ManagerHttp& _http;
  const SupersedeProbe& _probe;
  const ActiveViewHolder& _active;
  HashCache& _hash_cache;
  const FreshnessGuardHolder& _freshness_guard;
  const std::shared_ptr<SyncProgress> _progress;  // never null
  const Seams _seams;
};

}  // namespace tidalcrest::sync
