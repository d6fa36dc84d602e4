#pragma once

#include <optional>
#include <string>
#include <vector>

#include "download/file_downloader.hpp"

namespace tidalcrest::sync {

/// Downloads independent files with a bounded pool of workers that live inside one call.
class ParallelDownloader {
 public:
  ParallelDownloader(const FileDownloader& downloader, const RuntimeKnobs& knobs);
  /// `target_data_dir` absent: the manager's data directory. Throws what `_download_file` throws: a
  /// `ManifestSupersededError` over any other failure and at once, otherwise the first failure after all
  /// other files have ended. A single worker runs on the calling thread and stops at its first failure. What
  /// was merged into `result` before a failure stays there. Every worker has ended when this returns.
  void _download_files_parallel(const FilesToDownload& files_to_download, SyncResult& result,
                                const ManifestGeneration& generation,
                                const std::optional<std::string>& target_data_dir) const;

 private:
  void _download_with_workers(const FilesToDownload& files_to_download, SyncResult& result,
                              const DownloadOptions& options, std::size_t max_workers) const;

  const FileDownloader& _downloader;
  const RuntimeKnobs& _knobs;
};

/// The failure of a parallel download that missed a deadline; the preview names three paths at most.
SyncError parallel_timeout_failure(std::optional<double> timeout_seconds,
                                   const std::vector<std::string>& pending_paths);

}  // namespace tidalcrest::sync
