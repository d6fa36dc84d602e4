#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "download/download_options.hpp"
#include "download/staged_file.hpp"
#include "download/transfer_attempt.hpp"
#include "host/seams.hpp"
#include "siblings/distribution/pinned_root.hpp"

namespace tidalcrest::sync {

/// Counts the repairs of a corrupt transfer. One that brings more bytes than any before it is progress and
/// starts the count anew; both the size and the digest check count here.
class CorruptionRepairs {
 public:
  /// Records one more corrupt transfer; true when no further repair is worth it.
  bool exhausted_by(std::int64_t corruption_progress) noexcept;

 private:
  std::int64_t _largest_corrupt_transfer_size = -1;
  int _stalled_corruption_repairs = 0;
};

struct TransferredFile {
  std::int64_t total_written = 0;  ///< resumed bytes included
  std::string actual_sha;
};

/// Brings the bytes of one file into its staging file: attempt after attempt, without a limit, until they are
/// proven or a reason to give up comes. Progress lives in the staging file alone.
class FileTransfer {
 public:
  FileTransfer(const TransferTerms& terms, const DownloadOptions& options,
               const client_manifest::PinnedRoot& pinned_root, std::string tmp_relative_path,
               SyncProgress& progress, const Seams& seams);
  /// On return the staging file is closed, whole and proven. Throws `ManifestSupersededError`,
  /// `PermanentDownloadError`, `AuthError`, `IntegrityError`, `SyncUnavailableError`, what the backoff module
  /// throws for a stop, and `OSError` for a local failure.
  TransferredFile run();

 private:
  // Why the transfer is to be repeated; false when there is no reason.
  struct Repeat {
    std::string reason;
    bool keep_staged = true;
    explicit operator bool() const noexcept { return !reason.empty(); }
  };

  StagedFile _open_staged();
  Repeat _transfer(StagedFile& staged, const TransferAttempt& attempt);
  Repeat _check_size(StagedFile& staged, const TransferAttempt& attempt);
  Repeat _check_digest(StagedFile& staged, const TransferAttempt& attempt, const std::string& actual_sha);
  void _discard(StagedFile& staged) const;
  void _wait_before_next(StagedFile& staged, const Repeat& repeat) const;

  const TransferTerms& _terms;
  const DownloadOptions& _options;
  const client_manifest::PinnedRoot& _pinned_root;
  const std::string _tmp_relative_path;
  const Seams& _seams;
  StagedBytesReport _report;
  std::int64_t _attempt = 0;
  double _wait_s = 0;  // the wait after this attempt, fixed before anything can fail
  CorruptionRepairs _repairs;
  std::optional<std::int64_t> _partial_transfer_exhausted;  // the size at which short transfers were given up
};

}  // namespace tidalcrest::sync
