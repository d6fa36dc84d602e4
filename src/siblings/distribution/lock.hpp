#pragma once

#include <string>

#include "host/descriptor.hpp"

namespace tidalcrest::sync {

/// A held cross-process lock of one data directory. Released by the destructor, and by the kernel when the
/// process dies. Move-only.
class DistributionLock {
 public:
  explicit DistributionLock(int descriptor) noexcept : _descriptor(descriptor) {}
  DistributionLock(DistributionLock&& other) noexcept = default;
  DistributionLock& operator=(DistributionLock&& other) noexcept;  // releases, then takes over
  ~DistributionLock();
  void release();  ///< idempotent; throws `OSError`, and the lock is gone even then
  void close();    ///< idempotent; closing releases

 private:
  Descriptor _descriptor;
};

/// Blocks until the lock is held, shared or exclusive, across processes and across handles of this process.
/// Each call opens the lock file anew. While it waits it looks at the calling thread's stop signal
/// (`SyncBackoffCancelled`) and logs at debug level what it waits for, and after how long it came.
/// `FileNotFoundError` for a missing data directory; `OSError` where the file system does not exclude at all,
/// which each process tries out once per data directory.
DistributionLock acquire_distribution_lock(const std::string& data_dir, bool exclusive);

/// Whether somebody holds the lock exclusively at this moment. Never waits: takes the shared lock for an
/// instant where it can. False where the directory was never locked. Throws `FileNotFoundError`, `OSError`.
bool distribution_lock_is_busy(const std::string& data_dir);

}  // namespace tidalcrest::sync
