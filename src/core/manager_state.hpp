#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "host/event.hpp"
#include "host/mutex.hpp"

namespace tidalcrest::sync {

/// What the lifecycle, the poll loop, the requests and the transition tell each other. Thread-safe. A late
/// read is harmless: what must not overlap is kept apart by the sync lock, and the readers ask again.
///
/// | value          | written by   | read by                                         |
/// |----------------|--------------|-------------------------------------------------|
/// | running        | lifecycle    | lifecycle, consumer requests, corruption reports |
/// | stop event     | lifecycle    | poll loop, repair threads                       |
/// | in transition  | transition   | poll loop, lifecycle, consumer requests         |
/// | status message | transition   | `status`                                        |
class ManagerState {
 public:
  /// The poll thread is meant to run.
  bool running() const noexcept { return _running; }
  void set_running(bool running) noexcept { _running = running; }

  /// Ends the poll loop, and the waits of the threads that run under it.
  std::shared_ptr<Event> stop_event() const {
    const MutexLock guard(_mutex);
    return _stop_event;
  }
  /// A cleared event for the threads of a new run. A thread that outlived its stop keeps the event that was
  /// set for it, so that a new start never revives it.
  std::shared_ptr<Event> renew_stop_event() {
    const MutexLock guard(_mutex);
    _stop_event = std::make_shared<Event>();
    return _stop_event;
  }

  /// An era transition is running in this manager.
  bool in_transition() const noexcept { return _transition_thread.load() != std::thread::id{}; }
  /// It runs on the calling thread, which is inside one of its callbacks.
  bool in_transition_on_this_thread() const noexcept {
    return _transition_thread.load() == std::this_thread::get_id();
  }
  void enter_transition() noexcept { _transition_thread = std::this_thread::get_id(); }
  void leave_transition() noexcept { _transition_thread = std::thread::id{}; }

  std::optional<std::string> status_message() const {
    const MutexLock guard(_mutex);
    return _status_message;
  }
  void set_status_message(std::optional<std::string> message) {
    const MutexLock guard(_mutex);
    _status_message = std::move(message);
  }

 private:
  std::atomic<bool> _running = false;
  std::atomic<std::thread::id> _transition_thread;  // the id of no thread when none runs
  mutable Mutex _mutex;                             // a leaf
  std::shared_ptr<Event> _stop_event GUARDED_BY(_mutex) = std::make_shared<Event>();
  std::optional<std::string> _status_message GUARDED_BY(_mutex);
};

}  // namespace tidalcrest::sync
