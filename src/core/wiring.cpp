#include "core/wiring.hpp"

#include "core/guarded_progress.hpp"

namespace tidalcrest::sync {

struct SyncManager::Wiring::Checked {
  std::function<std::string()> get_token;
  std::int64_t market_id;

  explicit Checked(const SyncOptions& options) : get_token(checked_token_supplier(options)) {
    check_server_url(options.server_url);
    check_data_dir(options.data_dir);
    market_id = _coerce_agent_market_id(options.market_id);
    check_poll_interval(options.poll_interval_s);
  }
};

SyncManager::Wiring::Wiring(SyncOptions options, Seams given_seams)
    : Wiring(Checked(options), options, std::move(given_seams)) {}

SyncManager::Wiring::Wiring(Checked checked, SyncOptions& options, Seams given_seams)
    : data_dir(options.data_dir),
      server_url(options.server_url),
      market_id(checked.market_id),
      poll_interval(options.poll_interval_s),
      seams(std::move(given_seams)),
      progress(std::make_shared<GuardedProgress>(std::move(options.progress))),
      knobs(options.sync_http_transport, options.sync_http_chunk_bytes, options.sync_max_concurrency),
      hash_cache(data_dir),
      consumers(data_dir),
      active(load_cohort_pointer(data_dir)),
      lock(data_dir),
      http_client(seams),
      http(http_client, credentials, knobs),
      supersede_probe(http, active, server_url, market_id),
      file_downloader(data_dir, server_url, http, supersede_probe, active, hash_cache, freshness_guard,
                      progress, seams),
      downloads(file_downloader, knobs),
      vocabulary_files(data_dir, server_url, file_downloader, http, active, hash_cache),
      signals_index(data_dir, file_downloader, hash_cache, freshness_guard),
      shuffle_seed(server_url, http, active, seams),
      search_consumers(active),
      prefetched_features(data_dir),
      planner(
          data_dir, load_initial_rotation_state(data_dir, *active.get()), search_consumers,
          [this](const Manifest& manifest) {
            return prefetched_features._prefetched_feature_keep_paths(manifest);
          },
          seams),
      loader(data_dir, market_id, planner, active),
      stager(data_dir, market_id,
             {.downloads = downloads,
              .vocabulary_files = vocabulary_files,
              .signals_index = signals_index,
              .shuffle_seed = shuffle_seed,
              .hash_cache = hash_cache,
              .planner = planner,
              .search_consumers = search_consumers,
              .active = active},
             progress, seams),
      driver(data_dir, server_url, market_id,
             {.lock = lock,
              .loader = loader,
              .http = http,
              .hash_cache = hash_cache,
              .planner = planner,
              .shuffle_seed = shuffle_seed,
              .stager = stager,
              .active = active},
             progress, seams),
      views(data_dir, lock, active),
      verify(data_dir, shuffle_seed, active),
      repair(lock, loader, stager, driver, active),
      completeness(hash_cache, shuffle_seed),
      needs_sync(data_dir, server_url, market_id,
                 {.http = http, .planner = planner, .completeness = completeness, .active = active}),
      repair_queue(data_dir, state, active,
                   [this](const std::vector<std::string>& files) { repair.repair(files); }),
      poll_loop(data_dir, poll_interval,
                {.state = state,
                 .lock = lock,
                 .repair_queued_files = [this] { repair_queue._repair_queued_files(); },
                 .needs_sync = [this] { return needs_sync.needs_sync(); },
                 .sync_with_manifest_refresh = [this] { driver._sync_with_manifest_refresh(); }}),
      active_era(server_url, market_id, http),
      transition(data_dir, server_url, market_id,
                 {.state = state,
                  .lock = lock,
                  .loader = loader,
                  .http = http,
                  .active_era = active_era,
                  .planner = planner,
                  .stager = stager,
                  .search_consumers = search_consumers,
                  .active = active},
                 seams),
      era_target{.data_dir = data_dir,
                 .manifest_era_number = [this]() -> std::optional<Document> {
                   const auto manifest = active.get()->manifest;
                   return manifest ? std::optional(manifest->era_number()) : std::nullopt;
                 },
                 .http_get = [this](const std::string& url,
                                    const std::string& token) { return http_client._http_get(url, token); },
                 .trigger_era_transition =
                     [this](const Document& new_era_number, const std::function<void()>& kill_searches_fn,
                            const std::function<void()>& restart_searches_fn) {
                       transition.trigger_era_transition(new_era_number, kill_searches_fn,
                                                         restart_searches_fn);
                     }},
      old_era_cleanup(data_dir, active),
      request_gate(
          data_dir, [this] { return state.in_transition(); }, [this] { return state.running(); }),
      requests(data_dir, {.gate = request_gate,
                          .coalescing = coalescing,
                          .lock = lock,
                          .driver = driver,
                          .repair = repair,
                          .planner = planner,
                          .views = views,
                          .active = active}),
      on_demand_features({.gate = request_gate,
                          .coalescing = coalescing,
                          .lock = lock,
                          .loader = loader,
                          .stager = stager,
                          .driver = driver,
                          .hash_cache = hash_cache,
                          .prefetched = prefetched_features,
                          .active = active}),
      collector(data_dir, lock, seams) {
  credentials.set_get_token(std::move(checked.get_token));
  credentials.set_get_wallet_secret(std::move(options.get_wallet_secret));
  freshness_guard.set(std::move(options.runtime_freshness_guard));
  loader.verify_at_start();
  hash_cache.await_loaded();
}

}  // namespace tidalcrest::sync
