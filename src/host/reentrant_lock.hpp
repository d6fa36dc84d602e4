#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

namespace tidalcrest::sync {

/// A reentrant mutual-exclusion lock that knows its holder: releasing it without holding it is a
/// `RuntimeError` and not undefined.
class ReentrantLock {
 public:
  void lock();
  void unlock();

 private:
  std::mutex _mutex;  // guards the two members below
  std::condition_variable _free;
  std::thread::id _holder;
  int _depth = 0;
};

}  // namespace tidalcrest::sync
