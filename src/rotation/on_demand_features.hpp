#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cohort/active_view.hpp"
#include "cohort/cohort_loader.hpp"
#include "cohort/cohort_stager.hpp"
#include "cohort/sync_lock.hpp"
#include "core/coalescing.hpp"
#include "core/request_gate.hpp"
#include "core/sync_driver.hpp"
#include "integrity/hash_cache.hpp"
#include "rotation/prefetched_features.hpp"

namespace tidalcrest::sync {

/// Brings in feature files that the present rotation subset does not hold, by widening the active cohort
/// through its common publisher. Lock order: the sync lock, the flock, then the prefetched-feature lock.
class OnDemandFeatures {
 public:
  struct Collaborators {
    const RequestGate& gate;
    const Coalescing& coalescing;
    SyncLock& lock;
    CohortLoader& loader;
    CohortStager& stager;
    SyncDriver& driver;
    HashCache& hash_cache;
    PrefetchedFeatures& prefetched;
    const ActiveViewHolder& active;
  };
  explicit OnDemandFeatures(Collaborators collaborators) : _with(collaborators) {}

  /// Ensures that the manifest's files of the named features, and their companions, are in the active cohort,
  /// and gives their local paths. Names are stripped, sorted and taken once each; no name gives no path, also
  /// during a transition. Throws `StateError` and what `sync` throws.
  std::vector<std::string> request_feature_files_for_sync(
      const std::vector<std::string>& feature_names, const std::string& expression_type = "SIGNAL",
      const std::optional<std::string>& named_universe = {}) const;

 private:
  struct Wanted {
    std::vector<std::string> names;
    std::string expression_type;
    std::optional<std::string> named_universe;
  };
  /// The caller holds both locks.
  std::vector<std::string> _request_feature_files_for_sync_impl(const Wanted& wanted) const;
  bool _is_whole_member(const ActiveView& view, const std::string& path) const;

  const Collaborators _with;
};

}  // namespace tidalcrest::sync
