#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "cohort/active_view.hpp"
#include "cohort/cohort_loader.hpp"
#include "cohort/cohort_stager.hpp"
#include "cohort/sync_lock.hpp"
#include "core/manager_state.hpp"
#include "era/era_current.hpp"
#include "host/seams.hpp"
#include "rotation/planner.hpp"
#include "rotation/search_refresh.hpp"
#include "transport/manager_http.hpp"

namespace tidalcrest::sync {

/// Moves a running manager to an era with searches stopped: the only road on which its era changes.
///
/// Searches are stopped, and requests refused, before the locks are taken; a running sync ends first.
/// Notifications, search refreshes and the restart come after the locks are free, so callbacks may call back
/// into the manager. Until the publication the previous cohort stays active; after it nothing rolls back.
/// After a failure the searches stay stopped.
///
/// The marker file `.transition_lock` is in the data directory meanwhile, for every process that shares it.
/// It holds the process id for whoever looks at it and is never read back. A process that dies leaves it, and
/// requests stay refused until the next transition has ended.
class EraTransition {
 public:
  struct Collaborators {
    ManagerState& state;
    SyncLock& lock;
    CohortLoader& loader;
    const ManagerHttp& http;
    const ActiveEra& active_era;
    RotationPlanner& planner;
    CohortStager& stager;
    const SearchConsumers& search_consumers;
    const ActiveViewHolder& active;
  };
  using SearchesFn = std::function<void()>;

  EraTransition(std::string data_dir, std::string server_url, std::int64_t market_id,
                Collaborators collaborators, Seams seams);

  /// `new_era_number` as the server gave it. Runs again on the era that superseded the target, as often as
  /// that happens. Throws `TypeError` before anything changes for a number that cannot be compared with the
  /// present one; `EraError`, `LibraryUpdateRequired`, `SyncError`, and what the callbacks and staging throw.
  void trigger_era_transition(const Document& new_era_number, const SearchesFn& kill_searches_fn = {},
                              const SearchesFn& restart_searches_fn = {});

 private:
  const std::string _data_dir;
  const std::string _server_url;
  const std::int64_t _market_id;
  const Collaborators _with;
  const Seams _seams;
};

}  // namespace tidalcrest::sync
