#include "host/holder_mutex.hpp"

#include <chrono>

#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

constexpr auto STOP_CHECK_INTERVAL = std::chrono::milliseconds(100);

}  // namespace

void HolderMutex::lock() {
  MutexLock guard(_mutex);
  _refuse_to_wait_for_itself();
  while (_held) guard.wait(_free);
  _take();
}

void HolderMutex::lock(const std::function<void()>& stop_check) {
  while (true) {
    {
      MutexLock guard(_mutex);
      _refuse_to_wait_for_itself();
      const auto end = std::chrono::steady_clock::now() + STOP_CHECK_INTERVAL;
      while (_held && guard.wait_until(_free, end)) {
      }
      if (!_held) return _take();
    }
    stop_check();
  }
}

bool HolderMutex::try_lock() {
  const MutexLock guard(_mutex);
  if (_held) return false;
  _take();
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

void HolderMutex::_take() {
  _held = true;
  _holder = std::this_thread::get_id();
}

void HolderMutex::_refuse_to_wait_for_itself() const {
  if (_held && _holder == std::this_thread::get_id()) {
    throw StateError(
        "a sync, a transition or a pin of this thread is not over: the call would wait for itself");
  }
}

}  // namespace tidalcrest::sync
