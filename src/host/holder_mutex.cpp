#include "host/holder_mutex.hpp"

namespace tidalcrest::sync {

void HolderMutex::lock() {
  std::unique_lock guard(_mutex);
  _free.wait(guard, [this] { return !_held; });
  _held = true;
  _holder = std::this_thread::get_id();
}

bool HolderMutex::try_lock() {
  const std::lock_guard guard(_mutex);
  if (_held) return false;
  _held = true;
  _holder = std::this_thread::get_id();
  return true;
}

void HolderMutex::unlock() {
  const std::lock_guard guard(_mutex);
  _held = false;
  _holder = {};
  _free.notify_one();  // under the lock: the next holder may destroy the mutex
}

bool HolderMutex::held_by_this_thread() const {
  const std::lock_guard guard(_mutex);
  return _held && _holder == std::this_thread::get_id();
}

}  // namespace tidalcrest::sync
