#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "host/event.hpp"
#include "host/mutex.hpp"

namespace tidalcrest::sync {

/// A thread that can be waited for with a bound, and left to end by itself.
///
/// The body owns all that it touches, by value or by shared pointer, and never this object: a thread that is
/// left running then does no harm. What the body owned is gone before the thread counts as ended.
class BackgroundThread {
 public:
  /// Starts at once. Throws `std::system_error` when the system has no thread to give.
  BackgroundThread(const std::string& name, std::function<void()> body);
  BackgroundThread(const BackgroundThread&) = delete;
  BackgroundThread& operator=(const BackgroundThread&) = delete;
  /// Leaves a running thread to itself.
  ~BackgroundThread();

  bool is_alive() const { return !_ended->is_set(); }
  /// Waits at most that long for the thread to end, and gives whether it has. The thread itself does not
  /// wait.
  bool join_for(std::chrono::duration<double> patience);

 private:
  bool _is_this_thread() const { return is_alive() && _id == std::this_thread::get_id(); }

  const std::shared_ptr<Event> _ended = std::make_shared<Event>();
  Mutex _join_mutex;
  std::thread _thread GUARDED_BY(_join_mutex);
  std::thread::id _id;  // never changes after construction
};

}  // namespace tidalcrest::sync
