#pragma once

#include <chrono>
#include <condition_variable>

#include "host/mutex.hpp"

namespace tidalcrest::sync {

/// A flag that threads can wait for. All operations are thread-safe; `set` wakes every waiter at once.
class Event {
 public:
  void set();
  void clear();
  bool is_set() const;
  /// Waits until the flag is set or the time has passed; gives whether it is set.
  bool wait_for(std::chrono::duration<double> timeout) const;

 private:
  mutable Mutex _mutex;
  mutable std::condition_variable _changed;
  bool _set GUARDED_BY(_mutex) = false;
};

}  // namespace tidalcrest::sync
