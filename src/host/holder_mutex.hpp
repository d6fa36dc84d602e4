#pragma once

#include <condition_variable>
#include <functional>
#include <thread>

#include "host/mutex.hpp"

namespace tidalcrest::sync {

/// A plain, not reentrant lock that knows its holder, so that code which may be called back under the lock
/// can tell that waiting for it would be waiting for itself. It may be released on another thread than the
/// one that took it.
class HolderMutex {
 public:
  /// Throws `StateError` when this thread holds it: it would wait for itself.
  void lock();
  /// The same, and asks `stop_check` every 0.1 s of the wait; what that throws ends it.
  void lock(const std::function<void()>& stop_check);
  /// False when it is held, also when the caller holds it.
  bool try_lock();
  void unlock();
  bool held_by_this_thread() const;

 private:
  void _take() REQUIRES(_mutex);
  void _refuse_to_wait_for_itself() const REQUIRES(_mutex);

  mutable Mutex _mutex;
  std::condition_variable _free;
  bool _held GUARDED_BY(_mutex) = false;
  std::thread::id _holder GUARDED_BY(_mutex);
};

}  // namespace tidalcrest::sync
