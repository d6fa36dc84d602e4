#include "host/event.hpp"

namespace tidalcrest::sync {

void Event::set() {
  const std::lock_guard lock(_mutex);
  _set = true;
  _changed.notify_all();  // under the lock: a waiter that wakes may destroy the event
}

void Event::clear() {
  const std::lock_guard lock(_mutex);
  _set = false;
}

bool Event::is_set() const {
  const std::lock_guard lock(_mutex);
  return _set;
}

bool Event::wait_for(std::chrono::duration<double> timeout) const {
  std::unique_lock lock(_mutex);
  // An absurdly long wait would overflow the clock's own duration type.
  const auto bounded = std::min(timeout, std::chrono::duration<double>(std::chrono::hours(24 * 365)));
  _changed.wait_for(lock, bounded, [this] { return _set; });
  return _set;
}

}  // namespace tidalcrest::sync
