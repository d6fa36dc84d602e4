#pragma once

#include <memory>
#include <string>

#include "cohort/active_view.hpp"
#include "cohort/sync_lock.hpp"
#include "siblings/distribution/local_cohort.hpp"
#include "tidalcrest/sync/cohort_pin.hpp"

namespace tidalcrest::sync {

/// Gives readers one exact cohort. A reader takes the writer's locks in the writer's order, then verifies
/// that what the manager believes, what the selector on disk says and what the opened root is are one and the
/// same. A divergence is a `StateError`, never repaired here: the next sync decides.
class ActiveCohortViews {
 public:
  ActiveCohortViews(std::string data_dir, SyncLock& lock, const ActiveViewHolder& active)
      : _data_dir(std::move(data_dir)), _lock(lock), _active(active) {}

  /// The pin shares `owner`, which keeps the locks alive that it lets go of.
  ActiveCohortPin pin_active_cohort_snapshot(std::shared_ptr<const void> owner) const;
  /// One exact snapshot after a stable-selector readback; no lock is held after return.
  VerifiedActiveCohortSnapshot active_cohort_snapshot() const;
  /// The exact manifest-selected generation root.
  std::string active_cohort_data_dir() const;

 private:
  /// The caller holds the sync lock. `pinned_selection` null: absent.
  VerifiedActiveCohortSnapshot _active_cohort_snapshot_locked(
      const local_cohort::Selection* pinned_selection) const;

  const std::string _data_dir;
  SyncLock& _lock;
  const ActiveViewHolder& _active;
};

}  // namespace tidalcrest::sync
