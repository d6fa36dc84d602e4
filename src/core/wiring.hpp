#pragma once

#include <memory>
#include <string>

#include "artifacts/shuffle_seed.hpp"
#include "artifacts/signals_index.hpp"
#include "artifacts/vocabulary_files.hpp"
#include "cohort/active_cohort_views.hpp"
#include "cohort/active_view.hpp"
#include "cohort/cohort_loader.hpp"
#include "cohort/cohort_stager.hpp"
#include "cohort/collector.hpp"
#include "cohort/sync_lock.hpp"
#include "core/coalescing.hpp"
#include "core/construction.hpp"
#include "core/consumer_count.hpp"
#include "core/consumer_requests.hpp"
#include "core/era_callbacks.hpp"
#include "core/manager_state.hpp"
#include "core/needs_sync.hpp"
#include "core/poll_loop.hpp"
#include "core/repair_queue.hpp"
#include "core/sync_driver.hpp"
#include "download/parallel_downloader.hpp"
#include "era/era_current.hpp"
#include "era/era_monitor.hpp"
#include "era/old_era_cleanup.hpp"
#include "era/transition.hpp"
#include "host/seams.hpp"
#include "integrity/completeness.hpp"
#include "integrity/hash_cache.hpp"
#include "integrity/repair.hpp"
#include "integrity/verify.hpp"
#include "manifest/identity.hpp"
#include "rotation/on_demand_features.hpp"
#include "rotation/planner.hpp"
#include "rotation/prefetched_features.hpp"
#include "rotation/search_refresh.hpp"
#include "tidalcrest/sync/sync_manager.hpp"
#include "transport/manager_http.hpp"

namespace tidalcrest::sync {

/// The collaborators of one manager: the only place that knows them all. Declaration order is construction
/// order; each receives exactly what it needs. Shared with running threads; never moved.
struct SyncManager::Wiring {
  Wiring(SyncOptions options, Seams given_seams);

  const std::string data_dir;
  const std::string server_url;
  const std::int64_t market_id;
  const double poll_interval;
  const Seams seams;
  const std::shared_ptr<SyncProgress> progress;  // never null

  Credentials credentials;
  RuntimeKnobs knobs;
  FreshnessGuardHolder freshness_guard;
  HashCache hash_cache;
  ConsumerCount consumers;
  ManagerState state;
  ActiveViewHolder active;
  SyncLock lock;
  EraCallbacks era_callbacks;

  HttpClient http_client;
  ManagerHttp http;
  SupersedeProbe supersede_probe;
  FileDownloader file_downloader;
  ParallelDownloader downloads;

  VocabularyFiles vocabulary_files;
  SignalsIndex signals_index;
  ShuffleSeed shuffle_seed;

  SearchConsumers search_consumers;
  PrefetchedFeatures prefetched_features;
  RotationPlanner planner;

  CohortLoader loader;
  CohortStager stager;
  SyncDriver driver;
  ActiveCohortViews views;
  Verify verify;
  Repair repair;

  CompletenessTest completeness;
  NeedsSync needs_sync;
  RepairQueue repair_queue;
  PollLoop poll_loop;
  ActiveEra active_era;
  EraTransition transition;
  EraTarget era_target;
  OldEraCleanup old_era_cleanup;

  RequestGate request_gate;
  Coalescing coalescing;
  ConsumerRequests requests;
  OnDemandFeatures on_demand_features;
  Collector collector;

 private:
  // The arguments are checked, in their order, before any member above is built.
  struct Checked;
  Wiring(Checked checked, SyncOptions& options, Seams given_seams);
};

}  // namespace tidalcrest::sync
