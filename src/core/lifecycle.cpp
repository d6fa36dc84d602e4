#include "core/lifecycle.hpp"

#include <filesystem>
#include <utility>

#include "core/registry.hpp"
#include "host/integer.hpp"
#include "host/log.hpp"
#include "siblings/telemetry/logging_style.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

constexpr double TRANSITION_CHECK_SECONDS = 0.1;

void report_era_thread_state(const char* source_file, std::int64_t source_line) {
  logging_style::log_library_surface_event(
      "Era synchronization", "error",
      {.sub_service = "sync",
       .component = "state",
       .metadata = {{"reason", "era_thread_start_state"}},
       .source_function = "_start_internal",
       .source_file = std::filesystem::path(source_file).filename().string(),
       .source_line = source_line});
}

}  // namespace

Lifecycle::Lifecycle(std::string data_dir, Collaborators collaborators, Seams seams, StopPatience patience)
    : _data_dir(std::move(data_dir)),
      _with(std::move(collaborators)),
      _seams(std::move(seams)),
      _patience(patience) {}

Lifecycle::~Lifecycle() {
  if (!_sync_thread && !_era_thread) return;
  try {
    _stop_internal();
  } catch (const std::exception& failure) {
    log::warning("Failed to stop the threads of %s: %s", _data_dir, failure.what());
  }
}

void Lifecycle::acquire() {
  const MutexLock guard(_consumer_lock);
  _with.consumers.set(_with.consumers.value() + 1);
  if (_consumer_lifecycle_started || !_start_internal()) return;
  _consumer_lifecycle_started = true;
}

std::shared_ptr<SyncManager> Lifecycle::release() {
  auto& registry = Registry::of_this_process();
  const MutexLock class_guard(registry._class_lock);  // eviction must not race a creation
  const MutexLock guard(_consumer_lock);
  const std::int64_t count = _with.consumers.value();
  if (count <= 0) return nullptr;
  _with.consumers.set(count - 1);
  if (count > 1) return nullptr;
  _stop_internal();
  auto evicted = registry._instances.extract(canonical_path(_data_dir));
  return evicted ? std::move(evicted.mapped()) : nullptr;
}

void Lifecycle::start() {
  if (!_start_sync_thread()) throw StateError("SyncManager already running");
}

void Lifecycle::stop() {
  if (_with.state.running()) _stop_internal();
}

bool Lifecycle::is_alive() const {
  const MutexLock guard(_threads_mutex);
  return _sync_thread && _sync_thread->is_alive();
}

bool Lifecycle::_start_sync_thread() {
  const MutexLock guard(_threads_mutex);
  if (_with.state.running()) return false;
  auto stop = _with.state.renew_stop_event();
  _with.state.set_running(true);
  try {
    _sync_thread = std::make_shared<BackgroundThread>(
        "tc-poll", [poll_loop = _with.poll_loop, stop = std::move(stop)] { poll_loop(stop); });
  } catch (...) {
    _with.state.set_running(false);
    throw;
  }
  return true;
}

bool Lifecycle::_start_internal() {
  if (!_start_sync_thread()) return false;
  _start_era_thread();
  return true;
}

void Lifecycle::_start_era_thread() {
  std::shared_ptr<EraMonitor> era_thread;
  {
    const MutexLock guard(_threads_mutex);
    if (_era_thread) return;
    _era_thread = _with.make_era_thread(_notifier("kill"), _notifier("restart"));
    era_thread = _era_thread;
  }
  try {
    era_thread->start();
  } catch (const StateError&) {
    report_era_thread_state(__FILE__, __LINE__);
  }
}

std::function<void()> Lifecycle::_notifier(const std::string& event_type) const {
  return [event_type, callbacks = _with.era_callbacks, active = _with.active] {
    const auto manifest = active->get()->manifest;
    callbacks->_notify_era_callbacks(event_type, manifest ? try_int(manifest->era_number()).value_or(0) : 0);
  };
}

// On a thread of the manager's own this runs inside one of its callbacks: what that thread would have to end
// first, its transition, its sync and itself, is not waited for.
void Lifecycle::_stop_internal() {
  std::shared_ptr<BackgroundThread> sync_thread;
  {
    const MutexLock guard(_threads_mutex);
    _with.state.stop_event()->set();
    sync_thread = _sync_thread;
  }
  _stop_era_thread();
  _wait_for_transition();
  const bool inside_sync = _with.lock._sync_lock().held_by_this_thread();
  if (!inside_sync) const std::lock_guard wait_for_sync(_with.lock._sync_lock());
  if (sync_thread) sync_thread->join_for(_patience.poll_thread);
  {
    const MutexLock guard(_threads_mutex);
    if (_sync_thread == sync_thread) {  // else another stop ended this run, and a new one began
      _with.state.set_running(false);
      _consumer_lifecycle_started = false;
      _sync_thread = nullptr;
    }
  }
  if (!inside_sync) _with.lock.close_leftover_flock();
}

void Lifecycle::_stop_era_thread() {
  std::shared_ptr<EraMonitor> era_thread;
  {
    const MutexLock guard(_threads_mutex);
    era_thread = std::exchange(_era_thread, nullptr);
  }
  if (!era_thread) return;
  try {
    era_thread->stop();
  } catch (const std::exception& failure) {
    log::warning("Failed to stop era thread: %s", failure.what());
  }
}

void Lifecycle::_wait_for_transition() const {
  if (_with.state.in_transition_on_this_thread()) return;
  for (int check = 0; check < _patience.transition_checks && _with.state.in_transition(); ++check) {
    _seams.sleep(TRANSITION_CHECK_SECONDS);
  }
}

}  // namespace tidalcrest::sync
