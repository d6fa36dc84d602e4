#pragma once

#include <memory>

#include "host/event.hpp"
#include "host/mutex.hpp"

namespace tidalcrest::sync {

/// How long a request waits for a sync that another caller runs, in seconds; running out of it is no failure.
inline constexpr double COALESCING_WAIT_SECONDS = 30.0;

/// The event that exists only while a requested sync runs. Coalescing saves work and is no correctness
/// device: two callers may both find none and both install one; the later replaces the earlier.
class Coalescing {
 public:
  std::shared_ptr<Event> current() const {
    const MutexLock guard(_coalescing_lock);
    return _coalescing_event;
  }
  std::shared_ptr<Event> install() {
    const MutexLock guard(_coalescing_lock);
    _coalescing_event = std::make_shared<Event>();
    return _coalescing_event;
  }
  /// Wakes those who wait for `event`, and leaves none.
  void finish(const std::shared_ptr<Event>& event) {
    const MutexLock guard(_coalescing_lock);
    event->set();
    _coalescing_event = nullptr;
  }

 private:
  mutable Mutex _coalescing_lock;  // a leaf, never held across a sync or a wait
  std::shared_ptr<Event> _coalescing_event GUARDED_BY(_coalescing_lock);
};

}  // namespace tidalcrest::sync
