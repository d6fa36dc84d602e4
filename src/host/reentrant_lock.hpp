#pragma once

#include <condition_variable>
#include <thread>

#include "host/mutex.hpp"

namespace tidalcrest::sync {

/// A reentrant mutual-exclusion lock that knows its holder: releasing it without holding it is a
/// `RuntimeError` and not undefined.
class ReentrantLock {
 public:
  void lock();
  void unlock();

 private:
  Mutex _mutex;
  std::condition_variable _free;
  std::thread::id _holder GUARDED_BY(_mutex);
  int _depth GUARDED_BY(_mutex) = 0;
};

}  // namespace tidalcrest::sync
