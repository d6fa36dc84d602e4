#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "artifacts/shuffle_seed.hpp"
#include "cohort/active_view.hpp"
#include "cohort/cohort_loader.hpp"
#include "cohort/cohort_stager.hpp"
#include "cohort/sync_lock.hpp"
#include "integrity/hash_cache.hpp"
#include "rotation/planner.hpp"
#include "siblings/distribution/sync_backoff.hpp"
#include "transport/manager_http.hpp"

namespace tidalcrest::sync {

/// How many attempts a sync makes when newer manifests keep arriving.
inline constexpr int SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT = 3;

/// The one operation that brings the local data in step with the server: a small version answer first, a
/// proof of the local state in place when the two agree, a full sync otherwise.
///
/// Lock order: the sync lock, then the flock with the exclusive distribution lock; both are held for the
/// whole of `sync`, its network calls and waits included.
class SyncDriver {
 public:
  struct Collaborators {
    SyncLock& lock;
    CohortLoader& loader;
    const ManagerHttp& http;
    HashCache& hash_cache;
    RotationPlanner& planner;
    const ShuffleSeed& shuffle_seed;
    CohortStager& stager;
    ActiveViewHolder& active;
  };

  SyncDriver(std::string data_dir, std::string server_url, std::int64_t market_id,
             Collaborators collaborators, std::shared_ptr<SyncProgress> progress, Seams seams);

  /// Full sync: manifest, compare, download, verify, atomic write. Takes all locks.
  SyncResult sync();
  /// Runs a sync, restarting it if an in-flight manifest generation is stale. The caller holds both locks.
  SyncResult _sync_with_manifest_refresh();
  /// One attempt. The caller holds both locks.
  SyncResult _sync_impl();

 private:
  struct VersionHints {
    std::optional<std::int64_t> version;
    std::optional<std::int64_t> era;
    Document manifest_sha = nullptr;  // null when absent; the first non-empty hash of the answer otherwise
  };
  VersionHints _probe_version() const;
  void _parse_version_answer(const std::string& body, VersionHints& hints) const;
  struct PlannedCohort {
    PathList active_relative_paths;
    RotationState candidate_state;
  };
  /// Absent when the fast path does not apply or the local data needs repair.
  std::optional<SyncResult> _try_fast_path(const VersionHints& hints);
  bool _fast_path_applies(const ActiveView& view, const VersionHints& hints) const;
  void _prove_local_state(const ActiveView& view, const PlannedCohort& planned, SyncResult& result);
  std::vector<std::string> _prove_active_members(const ActiveView& view, const PathList& paths) const;
  bool _prove_member(const client_manifest::PinnedRoot& root, client_manifest::DirectoryCursor& cursor,
                     const Manifest& manifest, const std::string& file_path,
                     const sync_backoff::StopCheck& stop_check) const;
  SyncResult _full_sync();
  bool _is_active_manifest(const Manifest& server_manifest, const std::string& body) const;
  void _refuse_backward_steps(const ActiveView& view, const Manifest& server_manifest,
                              const std::string& body) const;
  PlannedCohort _plan(const Manifest& manifest, bool is_new_manifest, SyncResult& result);

  const std::string _data_dir;
  const std::string _server_url;
  const std::int64_t _market_id;
  const Collaborators _with;
  const std::shared_ptr<SyncProgress> _progress;  // never null
  const Seams _seams;
};

}  // namespace tidalcrest::sync
