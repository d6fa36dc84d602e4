#include "download/file_transfer.hpp"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/failures.hpp"
#include "transport/backoff.hpp"
#include "transport/events.hpp"

namespace tidalcrest::sync {
namespace {

constexpr int SYNC_MAX_STALLED_CORRUPTION_REPAIRS = 3;

IntegrityError incomplete_download(const TransferTerms& terms, std::int64_t total_written) {
  return IntegrityError(fmt::format("Incomplete download for {}: got {} bytes, expected {}", terms.file_path,
                                    total_written, terms.expected_size));
}

IntegrityError checksum_failure(const TransferTerms& terms, const std::string& actual_sha) {
  return IntegrityError(fmt::format("Checksum failure for {}: expected {}, got {}", terms.file_path,
                                    terms.expected_sha, actual_sha));
}

bool has_another_name(const client_manifest::UpdatableFile& file, const std::string& path) {
  struct stat status {};
  if (::fstat(file.descriptor(), &status) != 0) throw_os_error(errno, path);
  return status.st_nlink > 1;
}

// What is written to a file with another name would be written there too, inside the root or outside it.
client_manifest::UpdatableFile open_file_of_our_own(const client_manifest::PinnedRoot& root,
                                                    const std::string& path) {
  auto file = root.open_regular_file_for_update(path, /*create=*/true);
  if (!has_another_name(file, path)) return file;
  root.remove_regular_file(path, /*missing_ok=*/true);
  file = root.open_regular_file_for_update(path, /*create=*/true);
  if (has_another_name(file, path)) throw OSError(path + ": a staging file with another name");
  return file;
}

}  // namespace

bool CorruptionRepairs::exhausted_by(std::int64_t corruption_progress) noexcept {
  if (corruption_progress > _largest_corrupt_transfer_size) {
    _largest_corrupt_transfer_size = corruption_progress;
    _stalled_corruption_repairs = 0;
  } else {
    ++_stalled_corruption_repairs;
  }
  return _stalled_corruption_repairs >= SYNC_MAX_STALLED_CORRUPTION_REPAIRS;
}

FileTransfer::FileTransfer(const TransferTerms& terms, const DownloadOptions& options,
                           const client_manifest::PinnedRoot& pinned_root, std::string tmp_relative_path,
                           SyncProgress& progress, const Seams& seams)
    : _terms(terms),
      _options(options),
      _pinned_root(pinned_root),
      _tmp_relative_path(std::move(tmp_relative_path)),
      _seams(seams),
      _report(progress) {}

TransferredFile FileTransfer::run() {
  for (;; ++_attempt) {
    _wait_s = _backoff_delay_seconds(_attempt);
    StagedFile staged = _open_staged();
    const TransferAttempt attempt(_terms, _attempt, staged);
    Repeat repeat = _transfer(staged, attempt);
    if (_partial_transfer_exhausted) throw incomplete_download(_terms, *_partial_transfer_exhausted);
    if (!repeat) {
      std::string actual_sha = staged.hexdigest();
      repeat = _check_digest(staged, attempt, actual_sha);
      if (!repeat) {
        staged.close();
        return {staged.size(), std::move(actual_sha)};
      }
    }
    _wait_before_next(staged, repeat);
  }
}

StagedFile FileTransfer::_open_staged() {
  StagedFile staged(open_file_of_our_own(_pinned_root, _tmp_relative_path), _report);
  staged.read_back();
  if (staged.size() > 0) {
    _log_sync_event("range_resume", _terms.file_path, 1, "partial_tmp", {{"bytes_existing", staged.size()}});
  }
  return staged;
}

// What a repeat can mend comes back as its reason; everything else leaves. A plain operating-system failure
// is a local one, a full disk for instance, and is never repeated.
FileTransfer::Repeat FileTransfer::_transfer(StagedFile& staged, const TransferAttempt& attempt) {
  try {
    attempt.fetch();
    return _check_size(staged, attempt);
  } catch (const SyncUnavailableError& failure) {
    if (failure.retryable == false) throw;
    return {failure_type_name(failure)};
  } catch (const ManifestSupersededError&) {
    throw;
  } catch (const PermanentDownloadError&) {
    throw;
  } catch (const IntegrityError& failure) {
    if (!_options.retry_partial_transfer || !_options.retry_checksum_mismatch) throw;
    return {failure_type_name(failure)};
  } catch (const SyncError& failure) {
    return {failure_type_name(failure)};
  } catch (const ConnectionError& failure) {
    return {failure_type_name(failure)};
  }
}

// An overlong file is left to the digest.
FileTransfer::Repeat FileTransfer::_check_size(StagedFile& staged, const TransferAttempt& attempt) {
  const std::int64_t total_written = staged.size();
  const Document expected_size = _terms.expected_size;
  if (_terms.expected_size <= 0 || total_written >= _terms.expected_size) return {};
  attempt.abandon_if_superseded("partial_transfer",
                                {{"expected_size", expected_size}, {"actual_size", total_written}});
  if (!_options.retry_partial_transfer) throw incomplete_download(_terms, total_written);
  if (_repairs.exhausted_by(std::min(total_written, _terms.expected_size))) {
    attempt.log_event("checksum_repair_exhausted", "size_mismatch",
                      {{"expected_size", expected_size},
                       {"actual_size", total_written},
                       {"actual_sha", staged.hexdigest()}});
    _discard(staged);
    _partial_transfer_exhausted = total_written;
    return {};
  }
  return {"partial_transfer"};
}

FileTransfer::Repeat FileTransfer::_check_digest(StagedFile& staged, const TransferAttempt& attempt,
                                                 const std::string& actual_sha) {
  if (_terms.expected_sha.empty() || _terms.expected_sha == actual_sha) return {};
  const EventFields fields{{"expected_sha", _terms.expected_sha}, {"actual_sha", actual_sha}};
  attempt.abandon_if_superseded("sha256_mismatch", fields);
  if (!_options.retry_checksum_mismatch) throw checksum_failure(_terms, actual_sha);
  const std::int64_t total_written = staged.size();
  const bool has_size = _terms.expected_size > 0;
  if (_repairs.exhausted_by(has_size ? std::min(total_written, _terms.expected_size) : total_written)) {
    attempt.log_event("checksum_repair_exhausted", "sha256_mismatch", fields);
    _discard(staged);
    throw checksum_failure(_terms, actual_sha);
  }
  attempt.log_event("checksum_repair", "sha256_mismatch", fields);
  return {"sha256_mismatch", /*keep_staged=*/false};
}

void FileTransfer::_discard(StagedFile& staged) const {
  staged.drop();
  staged.close();
  _pinned_root.remove_regular_file(_tmp_relative_path, /*missing_ok=*/true);
}

void FileTransfer::_wait_before_next(StagedFile& staged, const Repeat& repeat) const {
  if (_options.retry_status_callback) _options.retry_status_callback(_wait_s);
  _emit_sync_backoff_wait(_options.backoff_surface, _attempt, repeat.reason, _terms.file_path, _wait_s,
                          _seams);
  if (!repeat.keep_staged) staged.drop();  // after a failed digest nothing staged can be trusted
  staged.close();
  _sleep_for_sync_backoff(_wait_s, _seams);
}

}  // namespace tidalcrest::sync
