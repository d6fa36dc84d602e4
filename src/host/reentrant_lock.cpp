#include "host/reentrant_lock.hpp"

#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

void ReentrantLock::lock() {
  MutexLock guard(_mutex);
  const auto self = std::this_thread::get_id();
  while (_depth != 0 && _holder != self) guard.wait(_free);
  _holder = self;
  ++_depth;
}

void ReentrantLock::unlock() {
  const MutexLock guard(_mutex);
  if (_depth == 0 || _holder != std::this_thread::get_id()) {
    throw RuntimeError("cannot release un-acquired lock");
  }
  --_depth;
  _free.notify_one();  // under the lock: the next holder may destroy the mutex
}

}  // namespace tidalcrest::sync
