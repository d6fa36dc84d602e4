#include "download/parallel_downloader.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <utility>

#include "download/download_pool.hpp"
#include "host/scope_exit.hpp"
#include "host/text.hpp"
#include "siblings/distribution/sync_backoff.hpp"
#include "transport/backoff.hpp"
#include "transport/settings.hpp"

namespace tidalcrest::sync {
namespace {

constexpr std::size_t PREVIEWED_PATHS = 3;

bool is_superseded(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const ManifestSupersededError&) {
    return true;
  } catch (...) {
    return false;
  }
}

// The calling thread's context for its workers: a wait there also ends when the call is given up.
BackoffContext worker_backoff_context(std::shared_ptr<const std::atomic<bool>> cancel_event) {
  BackoffContext context = _current_sync_backoff_context();
  context.stop_requested = [cancel_event = std::move(cancel_event), parent = context] {
    return *cancel_event || sync_backoff::is_stop_requested(parent);
  };
  return context;
}

void merge(SyncResult& result, SyncResult local) {
  result.bytes_downloaded += local.bytes_downloaded;
  result.features_downloaded += local.features_downloaded;
  auto& paths = result.found_pnl_paths_downloaded;
  std::move(local.found_pnl_paths_downloaded.begin(), local.found_pnl_paths_downloaded.end(),
            std::back_inserter(paths));
}

// One root for all files. Where it cannot be pinned, each file fails by itself and tells why.
std::shared_ptr<const client_manifest::PinnedRoot> pinned_if_possible(
    const std::optional<std::string>& target_data_dir) {
  if (!target_data_dir || target_data_dir->empty()) return nullptr;
  try {
    return std::make_shared<const client_manifest::PinnedRoot>(*target_data_dir, /*create=*/true);
  } catch (const OSError&) {
    return nullptr;
  } catch (const ValueError&) {
    return nullptr;
  }
}

DownloadPool::Deadline deadline_of(std::optional<double> timeout_seconds) {
  if (!timeout_seconds) return std::nullopt;
  using Clock = std::chrono::steady_clock;
  return Clock::now() +
         std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(*timeout_seconds));
}

std::vector<std::string> paths_of(const std::vector<std::size_t>& indices, const FilesToDownload& files) {
  std::vector<std::string> paths;
  paths.reserve(indices.size());
  for (const auto index : indices) paths.push_back(files[index].file_path);
  return paths;
}

// Small files may never wait for anything, and a stop must not run through all of them first.
void end_if_asked_to_stop() {
  if (_sync_backoff_stop_requested()) sync_backoff::cancel(*sync_backoff::module_seam().current());
}

// Adds up what went well. Gives the failure to throw, null for none: a superseded manifest at once, any other
// after all files have ended.
std::exception_ptr merge_ends(DownloadPool& pool, const FilesToDownload& files, std::size_t max_workers,
                              SyncResult& result) {
  const auto timeout = _sync_parallel_timeout_seconds(static_cast<std::int64_t>(files.size()),
                                                      static_cast<std::int64_t>(max_workers));
  const auto deadline = deadline_of(timeout);
  std::exception_ptr first_error;
  for (std::size_t ended = 0; ended < files.size(); ++ended) {
    auto end = pool.next_end(deadline);
    if (!end) throw parallel_timeout_failure(timeout, paths_of(pool.pending(), files));
    if (!end->failure) {
      merge(result, std::move(end->result));
    } else if (is_superseded(end->failure)) {
      return end->failure;
    } else if (!first_error) {
      first_error = end->failure;
    }
  }
  return first_error;
}

}  // namespace

SyncError parallel_timeout_failure(std::optional<double> timeout_seconds,
                                   const std::vector<std::string>& pending_paths) {
  const auto previewed = std::min(pending_paths.size(), PREVIEWED_PATHS);
  const std::vector<std::string> first(pending_paths.begin(),
                                       pending_paths.begin() + static_cast<std::ptrdiff_t>(previewed));
  return SyncError(fmt::format("Timed out after {} in parallel download with {} file(s) pending: {}{}",
                               _sync_parallel_timeout_description(timeout_seconds), pending_paths.size(),
                               text::join(first, ", "),
                               pending_paths.size() > PREVIEWED_PATHS ? ", ..." : ""));
}

ParallelDownloader::ParallelDownloader(const FileDownloader& downloader, const RuntimeKnobs& knobs)
    : _downloader(downloader), _knobs(knobs) {}

void ParallelDownloader::_download_files_parallel(const FilesToDownload& files_to_download,
                                                  SyncResult& result, const ManifestGeneration& generation,
                                                  const std::optional<std::string>& target_data_dir) const {
  if (files_to_download.empty()) return;
  DownloadOptions options;
  options.generation = generation;
  options.target_data_dir = target_data_dir;
  options.pinned_root = pinned_if_possible(target_data_dir);
  const auto max_workers =
      std::min(files_to_download.size(), static_cast<std::size_t>(_knobs.max_concurrency()));
  if (max_workers > 1) return _download_with_workers(files_to_download, result, options, max_workers);
  for (const auto& file : files_to_download) {
    end_if_asked_to_stop();
    _downloader._download_file(file, result, options);
  }
}

void ParallelDownloader::_download_with_workers(const FilesToDownload& files_to_download, SyncResult& result,
                                                const DownloadOptions& options,
                                                std::size_t max_workers) const {
  const auto cancel_event = std::make_shared<std::atomic<bool>>(false);
  const BackoffContext context = worker_backoff_context(cancel_event);
  // Each worker fills a record of its own; only this thread writes the caller's.
  const auto one = [&](std::size_t index) {
    SyncResult local;
    const auto entered = sync_backoff::module_seam().current()->enter_context(context);
    end_if_asked_to_stop();
    try {
      _downloader._download_file(files_to_download[index], local, options);
    } catch (const ManifestSupersededError&) {
      // Here already: no worker is to begin another file before the caller hears of it.
      *cancel_event = true;
      throw;
    }
    return local;
  };
  std::exception_ptr first_error;
  {
    DownloadPool pool(files_to_download.size(), max_workers, one);
    // Whatever ends the merging: a worker that still waits gives up at once, and is then joined.
    const ScopeExit stop_waits([&] { *cancel_event = true; });
    first_error = merge_ends(pool, files_to_download, max_workers, result);
  }
  if (first_error) std::rethrow_exception(first_error);
}

}  // namespace tidalcrest::sync
