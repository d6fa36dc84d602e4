#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "cohort/active_view.hpp"
#include "cohort/sync_lock.hpp"
#include "core/consumer_count.hpp"
#include "core/era_callbacks.hpp"
#include "core/manager_state.hpp"
#include "era/era_monitor.hpp"
#include "host/background_thread.hpp"
#include "host/event.hpp"
#include "host/mutex.hpp"
#include "host/seams.hpp"

namespace tidalcrest::sync {

class SyncManager;

/// The bounds of a stop. The monitor has its own for the era thread.
struct StopPatience {
  int transition_checks = 100;  ///< 0.1 s apart
  std::chrono::duration<double> poll_thread = std::chrono::seconds(30);
};

/// Counts the consumers of a manager, and starts and stops its threads.
///
/// Lock order, outermost first: the registry's `_class_lock`, `_consumer_lock`, the sync lock, the flock.
/// `release` holds the first two while it stops the threads. The threads share ownership of what they use and
/// never of this object; a thread that misses its join is left to end by itself. Every operation may be
/// called from a callback on one of the threads: nobody waits for itself.
class Lifecycle {
 public:
  struct Collaborators {
    ManagerState& state;
    ConsumerCount& consumers;
    SyncLock& lock;
    std::shared_ptr<EraCallbacks> era_callbacks;
    std::shared_ptr<const ActiveViewHolder> active;
    /// The body of the poll thread; owns all that it uses.
    std::function<void(const std::shared_ptr<const Event>& stop)> poll_loop;
    /// A monitor that is not started yet, with the two callbacks.
    std::function<std::shared_ptr<EraMonitor>(std::function<void()> kill_searches_fn,
                                              std::function<void()> restart_searches_fn)>
        make_era_thread;
  };
  Lifecycle(std::string data_dir, Collaborators collaborators, Seams seams, StopPatience patience = {});
  /// Stops threads that still run.
  ~Lifecycle();
  Lifecycle(const Lifecycle&) = delete;
  Lifecycle& operator=(const Lifecycle&) = delete;

  /// Register as consumer, start threads if first.
  void acquire();
  /// Deregister as consumer, stop threads if last, and take the manager of this directory out of the
  /// registry. Gives that manager, for the caller to let go of when this object is no longer in use.
  [[nodiscard]] std::shared_ptr<SyncManager> release();
  /// Return the current number of active consumers.
  std::int64_t consumer_count() const noexcept { return _with.consumers.value(); }
  /// Start background sync polling loop: the poll thread only. `StateError` when it is running already.
  void start();
  /// Stop background sync polling loop. Blocks until a sync or transition in progress has ended, within
  /// bounds.
  void stop();
  /// Whether the poll thread runs.
  bool is_alive() const;

 private:
  /// False when the poll thread is meant to run already; then it starts nothing.
  bool _start_sync_thread();
  bool _start_internal();
  void _start_era_thread();
  std::function<void()> _notifier(const std::string& event_type) const;
  void _stop_internal();
  void _stop_era_thread();
  void _wait_for_transition() const;

  const std::string _data_dir;
  const Collaborators _with;
  const Seams _seams;
  const StopPatience _patience;

  Mutex _consumer_lock;  // over changes of the count, with the starts and stops that follow from them
  std::atomic<bool> _consumer_lifecycle_started = false;  // threads were started by `acquire`
  mutable Mutex _threads_mutex;                           // a leaf, never held while waiting for a thread
  std::shared_ptr<BackgroundThread> _sync_thread GUARDED_BY(_threads_mutex);
  std::shared_ptr<EraMonitor> _era_thread GUARDED_BY(_threads_mutex);
};

}  // namespace tidalcrest::sync
