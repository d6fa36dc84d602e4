#include "core/poll_loop.hpp"

#include "host/log.hpp"
#include "host/scope_exit.hpp"
#include "host/stoppable.hpp"

namespace tidalcrest::sync {

void PollLoop::_poll_loop(const std::shared_ptr<const Event>& stop) {
  const ScopedBackoffContext context(context_stopped_by(stop, _data_dir));
  while (!stop->is_set()) {
    try {
      if (!_with.state.in_transition()) _poll_once();
    } catch (const std::exception& failure) {
      log::warning("Poll loop iteration failed: %s", failure.what());
    }
    stop->wait_for(std::chrono::duration<double>(_poll_interval));
  }
}

void PollLoop::_poll_once() {
  if (_with.state.in_transition()) return;
  _with.repair_queued_files();  // a failure ends the cycle without a sync
  const std::unique_lock sync_lock(_with.lock._sync_lock(), std::try_to_lock);
  if (!sync_lock) return;  // a sync is already running
  try {
    _sync_if_needed();
  } catch (const std::exception& failure) {
    log::warning("Poll once failed: %s", failure.what());
  }
}

void PollLoop::_sync_if_needed() {
  if (_with.state.in_transition() || !_with.needs_sync()) return;
  // Asked again: the question waited on the network, and a transition can start in that time.
  if (_with.state.in_transition()) return;
  _with.lock._acquire_flock();
  const ScopeExit release([this] { _with.lock._release_flock(); });
  _with.sync_with_manifest_refresh();
}

}  // namespace tidalcrest::sync
