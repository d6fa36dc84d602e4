#include "cohort/active_cohort_views.hpp"

#include "host/local_path.hpp"
#include "siblings/distribution/lock.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

// In the order of acquisition, so that destruction lets go the other way round.
struct ActiveCohortPin::Held {
  Held(std::shared_ptr<const void> owner, SyncLock& lock, const std::string& data_dir)
      : owner(std::move(owner)),
        sync(lock.wait_for_sync_lock()),
        distribution(acquire_distribution_lock(data_dir, /*exclusive=*/false)),
        pin(local_cohort::pin_active_cohort(data_dir)) {}

  std::shared_ptr<const void> owner;  // of the lock below; goes last
  std::unique_lock<HolderMutex> sync;
  DistributionLock distribution;
  local_cohort::Pin pin;
  std::unique_ptr<const VerifiedActiveCohortSnapshot> snapshot;
};

ActiveCohortPin::ActiveCohortPin(std::unique_ptr<Held> held) noexcept : _held(std::move(held)) {}
ActiveCohortPin::ActiveCohortPin(ActiveCohortPin&&) noexcept = default;
ActiveCohortPin& ActiveCohortPin::operator=(ActiveCohortPin&&) noexcept = default;
ActiveCohortPin::~ActiveCohortPin() = default;

const VerifiedActiveCohortSnapshot& ActiveCohortPin::snapshot() const noexcept { return *_held->snapshot; }

void ActiveCohortPin::release() {
  const auto held = std::move(_held);  // let go of on every way out
  if (held) held->pin.root.assert_root_unchanged();
}

ActiveCohortPin ActiveCohortViews::pin_active_cohort_snapshot(std::shared_ptr<const void> owner) const {
  auto held = std::make_unique<ActiveCohortPin::Held>(std::move(owner), _lock, _data_dir);
  held->snapshot = std::make_unique<const VerifiedActiveCohortSnapshot>(
      _active_cohort_snapshot_locked(held->pin.selection.get()));
  return ActiveCohortPin(std::move(held));
}

VerifiedActiveCohortSnapshot ActiveCohortViews::active_cohort_snapshot() const {
  ActiveCohortPin pin = pin_active_cohort_snapshot(/*owner=*/nullptr);
  VerifiedActiveCohortSnapshot snapshot = pin.snapshot();
  pin.release();
  return snapshot;
}

std::string ActiveCohortViews::active_cohort_data_dir() const { return active_cohort_snapshot().root_dir(); }

VerifiedActiveCohortSnapshot ActiveCohortViews::_active_cohort_snapshot_locked(
    const local_cohort::Selection* pinned_selection) const {
  const auto view = _active.get();
  const auto& selection = view->cohort;
  if (!selection) throw StateError("No verified immutable local cohort is active");
  const std::string base_dir = absolute_path(selection->base_dir);
  const std::string root_dir = absolute_path(selection->root_dir);
  const std::string& manifest_bytes = *selection->manifest_bytes;
  if (base_dir != absolute_path(_data_dir)) {
    throw StateError("Active cohort base differs from the sync manager data directory");
  }
  if (absolute_path(view->data_dir) != root_dir) {
    throw StateError("Active cohort path differs from verified selection");
  }
  if (!view->manifest_bytes || *view->manifest_bytes != manifest_bytes) {
    throw StateError("Active cohort manifest bytes differ from verified selection");
  }
  if (pinned_selection != nullptr && (absolute_path(pinned_selection->base_dir) != base_dir ||
                                      absolute_path(pinned_selection->root_dir) != root_dir ||
                                      *pinned_selection->manifest_bytes != manifest_bytes)) {
    throw StateError("Pinned active cohort differs from the sync manager selection");
  }
  return {base_dir, root_dir, manifest_bytes};
}

}  // namespace tidalcrest::sync
