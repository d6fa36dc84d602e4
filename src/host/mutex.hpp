#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// What clang checks of locks and what they guard (`./dev tidy`); other compilers see none of it.
#if defined(__clang__)
#define TIDALCREST_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define TIDALCREST_THREAD_SAFETY(attribute)
#endif

/// The member is read and written under that lock only.
#define GUARDED_BY(lock) TIDALCREST_THREAD_SAFETY(guarded_by(lock))
/// The function is called with that lock held.
#define REQUIRES(lock) TIDALCREST_THREAD_SAFETY(requires_capability(lock))

namespace tidalcrest::sync {

/// A plain mutex whose use is checked at compile time: the standard one carries no annotations.
class TIDALCREST_THREAD_SAFETY(capability("mutex")) Mutex {
 public:
  /// For the few who cannot wait; everybody else takes a `MutexLock`.
  bool try_lock() TIDALCREST_THREAD_SAFETY(try_acquire_capability(true)) { return _mutex.try_lock(); }
  void unlock() TIDALCREST_THREAD_SAFETY(release_capability()) { _mutex.unlock(); }

 private:
  friend class MutexLock;
  std::mutex _mutex;
};

/// Holds a mutex for its scope.
class TIDALCREST_THREAD_SAFETY(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) TIDALCREST_THREAD_SAFETY(acquire_capability(mutex))
      : _lock(mutex._mutex) {}
  ~MutexLock() TIDALCREST_THREAD_SAFETY(release_capability()) {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  /// Sleeps without the mutex and holds it again. May wake for no reason: the caller's condition is asked in
  /// a loop in its own function, where the analysis sees the lock, and not in a predicate, where it does not.
  void wait(std::condition_variable& changed) { changed.wait(_lock); }
  /// The same with a bound; false once the time has passed.
  bool wait_until(std::condition_variable& changed, std::chrono::steady_clock::time_point deadline) {
    return changed.wait_until(_lock, deadline) == std::cv_status::no_timeout;
  }

 private:
  std::unique_lock<std::mutex> _lock;
};

}  // namespace tidalcrest::sync
