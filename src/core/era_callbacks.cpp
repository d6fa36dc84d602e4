#include "core/era_callbacks.hpp"

#include <algorithm>

#include "host/log.hpp"

namespace tidalcrest::sync {

void EraCallbacks::register_era_callback(EraCallback callback) {
  auto registered = std::make_shared<const EraCallback>(std::move(callback));
  const MutexLock guard(_era_callbacks_lock);
  _era_callbacks.push_back(std::move(registered));
}

void EraCallbacks::unregister_era_callback(const EraCallback& callback) {
  if (callback.identity == nullptr) return;    // equal to none, not to every other one without
  std::shared_ptr<const EraCallback> removed;  // destroyed after the lock is free
  const MutexLock guard(_era_callbacks_lock);
  const auto found = std::find_if(_era_callbacks.begin(), _era_callbacks.end(),
                                  [&](const auto& known) { return known->identity == callback.identity; });
  if (found == _era_callbacks.end()) return;
  removed = std::move(*found);
  _era_callbacks.erase(found);
}

void EraCallbacks::_notify_era_callbacks(const std::string& event_type, std::int64_t era_number) {
  std::vector<std::shared_ptr<const EraCallback>> callbacks;
  {
    const MutexLock guard(_era_callbacks_lock);
    callbacks = _era_callbacks;
  }
  for (const auto& callback : callbacks) {
    try {
      callback->call(event_type, era_number);
    } catch (const std::exception& failure) {
      log::emit(LogLevel::warning,
                fmt::sprintf("Era callback failed (%s): %s", callback->label, failure.what()), nullptr,
                log::exception_text(failure));
    }
  }
}

}  // namespace tidalcrest::sync
