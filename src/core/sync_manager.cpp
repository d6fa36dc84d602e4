#include "tidalcrest/sync/sync_manager.hpp"

#include <fmt/format.h>

#include "core/loops.hpp"
#include "core/registry.hpp"
#include "core/wiring.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

void require_same_configuration(const SyncManager& manager, const std::string& key,
                                const SyncOptions& options, std::int64_t market_id) {
  if (manager.server_url() != options.server_url) {
    throw ValueError(fmt::format(
        "SyncManager for '{}' already exists with server_url='{}', cannot reuse with server_url='{}'", key,
        manager.server_url(), options.server_url));
  }
  if (manager.market_id() != market_id) {
    throw ValueError(
        fmt::format("SyncManager for '{}' already exists with market_id={}, cannot reuse with market_id={}",
                    key, manager.market_id(), market_id));
  }
}

}  // namespace

std::shared_ptr<SyncManager> SyncManager::get_or_create(SyncOptions options) {
  const std::string key = canonical_path(options.data_dir);
  const std::int64_t market_id = _coerce_agent_market_id(options.market_id);
  auto& registry = Registry::of_this_process();
  const MutexLock guard(registry._class_lock);
  const auto known = registry._instances.find(key);
  if (known == registry._instances.end()) {
    auto manager = std::make_shared<SyncManager>(std::move(options));
    registry._instances.emplace(key, manager);
    return manager;
  }
  const auto& manager = known->second;
  require_same_configuration(*manager, key, options, market_id);
  Wiring& wiring = *manager->_wiring;
  wiring.credentials.set_get_token(checked_token_supplier(options));
  if (options.get_wallet_secret)
    wiring.credentials.set_get_wallet_secret(std::move(options.get_wallet_secret));
  manager->_set_sync_runtime_knobs(options.sync_http_transport, options.sync_http_chunk_bytes,
                                   options.sync_max_concurrency);
  if (options.runtime_freshness_guard) wiring.freshness_guard.set(std::move(options.runtime_freshness_guard));
  return manager;
}

void SyncManager::_evict(const std::string& data_dir) {
  const std::string key = canonical_path(data_dir);
  std::shared_ptr<SyncManager> evicted;  // destroyed after the lock is free
  auto& registry = Registry::of_this_process();
  const MutexLock guard(registry._class_lock);
  if (auto node = registry._instances.extract(key)) evicted = std::move(node.mapped());
}

SyncManager::SyncManager(SyncOptions options) : SyncManager(std::move(options), Seams::real()) {}

SyncManager::SyncManager(SyncOptions options, const Seams& seams)
    : _wiring(std::make_shared<Wiring>(std::move(options), seams)),
      _loops(std::make_unique<Loops>(_wiring)) {}

SyncManager::~SyncManager() = default;

SyncResult SyncManager::sync() { return _wiring->driver.sync(); }

VerifyResult SyncManager::verify() const { return _wiring->verify.verify(); }

SyncResult SyncManager::repair(const std::vector<std::string>& corrupted_files) {
  return _wiring->repair.repair(corrupted_files);
}

SyncResult SyncManager::ensure_manifest_file_available(const std::string& file_path,
                                                       const Document& file_info) {
  return _wiring->requests.ensure_manifest_file_available(file_path, file_info);
}

std::vector<std::string> SyncManager::add_active_feature_paths(
    const std::vector<std::string>& relative_paths) {
  return _wiring->requests.add_active_feature_paths(relative_paths);
}

std::vector<std::string> SyncManager::request_for_sync() { return _wiring->requests.request_for_sync(); }

std::vector<std::string> SyncManager::_get_found_file_paths() const {
  return _wiring->requests._get_found_file_paths();
}

std::vector<std::string> SyncManager::request_feature_files_for_sync(
    const std::vector<std::string>& feature_names, const std::string& expression_type,
    const std::optional<std::string>& named_universe) {
  return _wiring->on_demand_features.request_feature_files_for_sync(feature_names, expression_type,
                                                                    named_universe);
}

CollectionReport SyncManager::collect_generations(std::int64_t keep, bool dry_run) {
  return _wiring->collector.collect_generations(keep, dry_run);
}

ActiveCohortPin SyncManager::pin_active_cohort_snapshot() const {
  return _wiring->views.pin_active_cohort_snapshot(_wiring);
}

VerifiedActiveCohortSnapshot SyncManager::active_cohort_snapshot() const {
  return _wiring->views.active_cohort_snapshot();
}

std::string SyncManager::active_cohort_data_dir() const { return _wiring->views.active_cohort_data_dir(); }

void SyncManager::acquire() { _loops->lifecycle.acquire(); }

void SyncManager::release() { const auto evicted = _loops->lifecycle.release(); }  // may be this manager

std::int64_t SyncManager::consumer_count() const noexcept { return _loops->lifecycle.consumer_count(); }

void SyncManager::start() { _loops->lifecycle.start(); }

void SyncManager::stop() { _loops->lifecycle.stop(); }

bool SyncManager::is_alive() const { return _loops->lifecycle.is_alive(); }

bool SyncManager::needs_sync() const { return _wiring->needs_sync.needs_sync(); }

std::optional<std::string> SyncManager::status() const { return _wiring->state.status_message(); }

void SyncManager::report_corruption(const std::string& file_path) {
  RepairQueue::report_corruption({_wiring, &_wiring->repair_queue}, file_path);
}

void SyncManager::trigger_era_transition(const Document& new_era_number,
                                         const std::function<void()>& kill_searches_fn,
                                         const std::function<void()>& restart_searches_fn) {
  const auto wiring = _wiring;  // a callback may let go of this manager
  wiring->transition.trigger_era_transition(new_era_number, kill_searches_fn, restart_searches_fn);
}

std::int64_t SyncManager::cleanup_old_eras(bool keep_current) const {
  return _wiring->old_era_cleanup.cleanup_old_eras(keep_current);
}

void SyncManager::_schedule_cleanup_old_eras(bool keep_current) {
  _loops->cleanup._schedule_cleanup_old_eras({_wiring, &_wiring->old_era_cleanup}, keep_current);
}

std::shared_ptr<const Manifest> SyncManager::get_manifest() const { return _wiring->active.get()->manifest; }

std::shared_ptr<const Document> SyncManager::vocabulary() const { return _wiring->active.get()->vocabulary; }

const std::string& SyncManager::data_dir() const noexcept { return _wiring->data_dir; }

const std::string& SyncManager::server_url() const noexcept { return _wiring->server_url; }

std::int64_t SyncManager::market_id() const noexcept { return _wiring->market_id; }

double SyncManager::poll_interval_s() const noexcept { return _wiring->poll_interval; }

std::string SyncManager::active_data_dir() const { return _wiring->active.get()->data_dir; }

std::optional<RotationState> SyncManager::active_rotation_state() const {
  return _wiring->planner.active_rotation_state();
}

void SyncManager::_set_sync_runtime_knobs(const Document& sync_http_transport,
                                          const Document& sync_http_chunk_bytes,
                                          const Document& sync_max_concurrency) {
  _wiring->knobs.set(sync_http_transport, sync_http_chunk_bytes, sync_max_concurrency);
}

std::shared_ptr<RuntimeFreshnessGuard> SyncManager::runtime_freshness_guard() const {
  return _wiring->freshness_guard.get();
}

void SyncManager::set_runtime_freshness_guard(std::shared_ptr<RuntimeFreshnessGuard> guard) {
  _wiring->freshness_guard.set(std::move(guard));
}

void SyncManager::register_era_callback(EraCallback callback) {
  _wiring->era_callbacks.register_era_callback(std::move(callback));
}

void SyncManager::unregister_era_callback(const EraCallback& callback) {
  _wiring->era_callbacks.unregister_era_callback(callback);
}

void SyncManager::_record_signals_index_update(const Document& signals_index_update) const {
  _wiring->signals_index._record_signals_index_update(signals_index_update);
}

void SyncManager::_notify_era_callbacks(const std::string& event_type, std::int64_t era_number) {
  _wiring->era_callbacks._notify_era_callbacks(event_type, era_number);
}

void SyncManager::register_rotation_search_consumer(std::shared_ptr<RotationSearchConsumer> consumer) {
  _wiring->search_consumers.register_rotation_search_consumer(std::move(consumer));
}

void SyncManager::unregister_rotation_search_consumer(const RotationSearchConsumer& consumer) {
  _wiring->search_consumers.unregister_rotation_search_consumer(consumer);
}

void SyncManager::refresh_running_searches_for_rotation(const RotationState& rotation_state,
                                                        const Document& vocabulary,
                                                        const Manifest* manifest) const {
  _wiring->search_consumers.refresh_running_searches_for_rotation(rotation_state, &vocabulary, manifest);
}

}  // namespace tidalcrest::sync
