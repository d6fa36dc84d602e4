#pragma once

#include <string>
#include <vector>

#include "cohort/active_cohort_views.hpp"
#include "cohort/active_view.hpp"
#include "cohort/sync_lock.hpp"
#include "core/coalescing.hpp"
#include "core/request_gate.hpp"
#include "core/sync_driver.hpp"
#include "integrity/repair.hpp"
#include "rotation/planner.hpp"
#include "tidalcrest/sync/records.hpp"

namespace tidalcrest::sync {

/// What worker processes and search code ask of a manager. When many ask for a sync at once, one runs it and
/// the others wait for it. Lock order: the sync lock, then the flock; the coalescing lock is a leaf.
class ConsumerRequests {
 public:
  struct Collaborators {
    const RequestGate& gate;
    Coalescing& coalescing;
    SyncLock& lock;
    SyncDriver& driver;
    const Repair& repair;
    RotationPlanner& planner;
    const ActiveCohortViews& views;
    const ActiveViewHolder& active;
  };
  ConsumerRequests(std::string data_dir, Collaborators collaborators)
      : _data_dir(std::move(data_dir)), _with(collaborators) {}

  /// Ensure one manifest file exists locally through the sync boundary. Nothing for a file that this client
  /// never fetches.
  SyncResult ensure_manifest_file_available(const std::string& file_path, const Document& file_info) const;
  /// Add feature paths to the active rotation state and persist it; gives the merged paths, none without a
  /// state.
  std::vector<std::string> add_active_feature_paths(const std::vector<std::string>& relative_paths) const;
  /// Runs or joins a sync and gives local found PnL paths, newest first: those that this call's sync brought,
  /// or all when it brought none.
  std::vector<std::string> request_for_sync() const;
  /// Get all found signal and strategy PnL file paths, ordered newest first.
  std::vector<std::string> _get_found_file_paths() const;

 private:
  SyncResult _run_coalesced_sync() const;
  std::vector<std::string> _newest_first(const std::vector<std::string>& delta) const;

  const std::string _data_dir;
  const Collaborators _with;
};

}  // namespace tidalcrest::sync
