#include "host/event.hpp"

namespace tidalcrest::sync {

void Event::set() {
  const MutexLock lock(_mutex);
  _set = true;
  _changed.notify_all();  // under the lock: a waiter that wakes may destroy the event
}

void Event::clear() {
  const MutexLock lock(_mutex);
  _set = false;
}

bool Event::is_set() const {
  const MutexLock lock(_mutex);
  return _set;
}

bool Event::wait_for(std::chrono::duration<double> timeout) const {
  using Clock = std::chrono::steady_clock;
  // A wait beyond all measure would overflow the clock's own duration type; nan is no wait.
  using Seconds = std::chrono::duration<double>;
  const auto bounded =
      timeout > Seconds(0) ? std::min(timeout, Seconds(std::chrono::hours(24 * 365))) : Seconds(0);
  const auto deadline = Clock::now() + std::chrono::ceil<Clock::duration>(bounded);
  MutexLock lock(_mutex);
  while (!_set && lock.wait_until(_changed, deadline)) {
  }
  return _set;
}

}  // namespace tidalcrest::sync
