#include "host/holder_mutex.hpp"

namespace tidalcrest::sync {

void HolderMutex::lock() {
  MutexLock guard(_mutex);
  while (_held) guard.wait(_free);
  _held = true;
  _holder = std::this_thread::get_id();
}

bool HolderMutex::try_lock() {
  const MutexLock guard(_mutex);
  if (_held) return false;
  _held = true;
  _holder = std::this_thread::get_id();
  return true;
}

void HolderMutex::unlock() {
  const MutexLock guard(_mutex);
  _held = false;
  _holder = {};
  _free.notify_one();  // under the lock: the next holder may destroy the mutex
}

bool HolderMutex::held_by_this_thread() const {
  const MutexLock guard(_mutex);
  return _held && _holder == std::this_thread::get_id();
}

}  // namespace tidalcrest::sync
