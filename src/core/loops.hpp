#pragma once

#include <memory>

#include "core/lifecycle.hpp"
#include "core/wiring.hpp"
#include "era/old_era_cleanup.hpp"

namespace tidalcrest::sync {

/// The threads of one manager. Kept apart from the collaborators, which the threads own a share of: what a
/// thread owns never owns the thread.
struct SyncManager::Loops {
  explicit Loops(const std::shared_ptr<Wiring>& wiring);

  OldEraCleanupThread cleanup;
  Lifecycle lifecycle;
};

}  // namespace tidalcrest::sync
