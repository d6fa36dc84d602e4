#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "host/holder_mutex.hpp"
#include "host/reentrant_lock.hpp"
#include "siblings/distribution/lock.hpp"

namespace tidalcrest::sync {

/// What a writer holds: one sync at a time in this process, and one process at a time on the data directory.
///
/// Order, outermost first: `_sync_lock`, then `_flock_lock` together with the exclusive distribution lock.
/// Released the other way round. Both stay held across the network calls and backoff waits of a sync, and
/// across nothing else.
class SyncLock {
 public:
  explicit SyncLock(std::string data_dir) : _data_dir(std::move(data_dir)) {}

  /// Plain and not reentrant. Writers and readers of the active view's publication take it first.
  HolderMutex& _sync_lock() noexcept { return _plain; }
  /// Takes the sync lock, unless this thread is asked to stop while it waits. `StateError` when this thread
  /// holds it.
  std::unique_lock<HolderMutex> wait_for_sync_lock();
  /// The same, for what may also be called from a callback under the lock: takes nothing there.
  std::unique_lock<HolderMutex> join_sync_lock();

  /// Acquire cross-process file lock for sync serialization. Blocks until other processes let go.
  void _acquire_flock();
  /// Release cross-process file lock. Harmless when it is not held.
  void _release_flock();
  /// Closes a lock handle that is still held, whoever left it.
  void close_leftover_flock();

 private:
  void _close_flock_fd(const char* failure_text);

  const std::string _data_dir;
  HolderMutex _plain;
  ReentrantLock _flock_lock;  // held from `_acquire_flock` to `_release_flock`; guards the handle
  std::optional<DistributionLock> _flock_fd;  // the held cross-process lock
};

/// Both locks of a writer for one scope, taken and released in their order.
class [[nodiscard]] WriterScope {
 public:
  explicit WriterScope(SyncLock& lock);
  WriterScope(const WriterScope&) = delete;
  WriterScope& operator=(const WriterScope&) = delete;
  ~WriterScope();

 private:
  SyncLock& _lock;
  std::unique_lock<HolderMutex> _sync;
};

}  // namespace tidalcrest::sync
