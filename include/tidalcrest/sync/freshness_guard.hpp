#pragma once

#include <memory>
#include <mutex>
#include <string>

namespace tidalcrest::sync {

/// Told of every file that a download put into the data directory itself, under the locks of the sync.
class RuntimeFreshnessGuard {
 public:
  virtual ~RuntimeFreshnessGuard() = default;
  virtual void record_sync_update(const std::string& relative_path, const std::string& kind,
                                  const std::string& sha256) = 0;
};

/// The manager's current guard; null when there is none. Thread-safe.
class FreshnessGuardHolder {
 public:
  std::shared_ptr<RuntimeFreshnessGuard> get() const {
    const std::lock_guard lock(_mutex);
    return _guard;
  }
  void set(std::shared_ptr<RuntimeFreshnessGuard> guard) {
    const std::lock_guard lock(_mutex);
    _guard.swap(guard);  // the one before goes after the lock: its destructor is the host's
  }

 private:
  mutable std::mutex _mutex;  // guards `_guard`
  std::shared_ptr<RuntimeFreshnessGuard> _guard;
};

}  // namespace tidalcrest::sync
