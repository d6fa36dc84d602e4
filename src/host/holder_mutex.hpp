#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

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
  mutable std::mutex _mutex;  // guards the two members below
  std::condition_variable _free;
  bool _held = false;
  std::thread::id _holder;
};

}  // namespace tidalcrest::sync
