#pragma once

#include <functional>
#include <memory>
#include <string>

#include "cohort/sync_lock.hpp"
#include "core/manager_state.hpp"
#include "host/event.hpp"

namespace tidalcrest::sync {

/// The body of the poll thread. It survives every ordinary failure: a bad cycle is logged and the next one
/// starts on time. It never blocks on the sync lock, but holds it while it waits for the distribution lock
/// and while it syncs.
class PollLoop {
 public:
  struct Collaborators {
    const ManagerState& state;
    SyncLock& lock;
    std::function<void()> repair_queued_files;
    std::function<bool()> needs_sync;
    std::function<void()> sync_with_manifest_refresh;  // runs under both locks
  };
  PollLoop(std::string data_dir, double poll_interval, Collaborators collaborators)
      : _data_dir(std::move(data_dir)), _poll_interval(poll_interval), _with(std::move(collaborators)) {}

  /// Polls until `stop` is set, which also ends the waits of a sync that runs meanwhile.
  void _poll_loop(const std::shared_ptr<const Event>& stop);
  /// Single poll cycle: check version, sync if needed, process repairs.
  void _poll_once();

 private:
  void _sync_if_needed();

  const std::string _data_dir;
  const double _poll_interval;  // seconds
  const Collaborators _with;
};

}  // namespace tidalcrest::sync
