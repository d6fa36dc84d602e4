#pragma once

#include <condition_variable>
#include <thread>

#include "host/mutex.hpp"

namespace tidalcrest::sync {

/// A plain, not reentrant lock that knows its holder, so that code which may be called back under the lock
/// can tell that waiting for it would be waiting for itself. It may be released on another thread than the
/// one that took it.
class HolderMutex {
 public:
  void lock();
  /// False when it is held, also when the caller holds it.
  bool try_lock();
  void unlock();
  bool held_by_this_thread() const;

 private:
  mutable Mutex _mutex;
  std::condition_variable _free;
  bool _held GUARDED_BY(_mutex) = false;
  std::thread::id _holder GUARDED_BY(_mutex);
};

}  // namespace tidalcrest::sync
