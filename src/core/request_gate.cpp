#include "core/request_gate.hpp"

#include <filesystem>

#include "host/local_path.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

void RequestGate::require_open(const std::string& operation) const {
  std::error_code ignored;
  if (_in_transition() || std::filesystem::exists(join_path(_data_dir, TRANSITION_LOCK_FILENAME), ignored)) {
    throw StateError("Sync is in era transition mode \u2014 " + operation + " rejected");
  }
  if (!_running()) throw StateError("Sync thread is not running. Call start() or acquire() first.");
}

}  // namespace tidalcrest::sync
