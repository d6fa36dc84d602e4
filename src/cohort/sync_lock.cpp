#include "cohort/sync_lock.hpp"

#include "host/log.hpp"
#include "siblings/distribution/sync_backoff.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

std::unique_lock<HolderMutex> SyncLock::wait_for_sync_lock() {
  _plain.lock(sync_backoff::stop_check_of_this_thread());
  return {_plain, std::adopt_lock};
}

std::unique_lock<HolderMutex> SyncLock::join_sync_lock() {
  if (_plain.held_by_this_thread()) return {};
  return wait_for_sync_lock();
}

void SyncLock::_acquire_flock() {
  _flock_lock.lock();
  try {
    if (!_flock_fd) _flock_fd = acquire_distribution_lock(_data_dir, /*exclusive=*/true);
  } catch (...) {
    _close_flock_fd("Failed to close flock file descriptor: %s");
    _flock_lock.unlock();
    throw;
  }
}

void SyncLock::_release_flock() {
  // The handle belongs to the holder of the reentrant lock: a thread that does not hold it takes it for the
  // moment of the release, so that it never races the holder.
  _flock_lock.lock();
  if (_flock_fd) {
    try {
      _flock_fd->release();
    } catch (const std::exception& failure) {
      log::warning("Failed to release the distribution lock: %s", failure.what());
    }
    _flock_fd.reset();
  }
  _flock_lock.unlock();
  try {
    _flock_lock.unlock();
  } catch (const RuntimeError&) {
    // Not held: released before, or never acquired.
  }
}

void SyncLock::close_leftover_flock() {
  const std::lock_guard guard(_flock_lock);
  _close_flock_fd("Failed to close file descriptor: %s");
}

void SyncLock::_close_flock_fd(const char* failure_text) {
  if (!_flock_fd) return;
  try {
    _flock_fd->close();
  } catch (const std::exception& failure) {
    log::debug(failure_text, failure.what());
  }
  _flock_fd.reset();
}

WriterScope::WriterScope(SyncLock& lock) : _lock(lock), _sync(lock.wait_for_sync_lock()) {
  _lock._acquire_flock();
}

WriterScope::~WriterScope() { _lock._release_flock(); }

}  // namespace tidalcrest::sync
