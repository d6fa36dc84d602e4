#pragma once

#include <string>
#include <vector>

#include "cohort/active_view.hpp"
#include "cohort/cohort_loader.hpp"
#include "cohort/cohort_stager.hpp"
#include "cohort/sync_lock.hpp"
#include "core/sync_driver.hpp"
#include "tidalcrest/sync/records.hpp"

namespace tidalcrest::sync {

/// Brings named files back through the same staging boundary that new data uses. A writer: takes the sync
/// lock, then the flock with the exclusive distribution lock.
class Repair {
 public:
  Repair(SyncLock& lock, CohortLoader& loader, CohortStager& stager, SyncDriver& driver,
         const ActiveViewHolder& active)
      : _lock(lock), _loader(loader), _stager(stager), _driver(driver), _active(active) {}

  /// Re-download members through the complete-cohort staging boundary. A name that the manifest does not know
  /// is passed over; one that is no safe path is a `ManifestError` and repairs nothing. Throws as `sync`.
  SyncResult repair(const std::vector<std::string>& corrupted_files) const;

 private:
  SyncResult _repair_locked(const std::vector<std::string>& corrupted_files) const;

  SyncLock& _lock;
  CohortLoader& _loader;
  CohortStager& _stager;
  SyncDriver& _driver;
  const ActiveViewHolder& _active;
};

}  // namespace tidalcrest::sync
