#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tidalcrest/sync/backoff.hpp"
#include "tidalcrest/sync/cohort_pin.hpp"
#include "tidalcrest/sync/collection.hpp"
#include "tidalcrest/sync/constants.hpp"
#include "tidalcrest/sync/document.hpp"
#include "tidalcrest/sync/era_callback.hpp"
#include "tidalcrest/sync/errors.hpp"
#include "tidalcrest/sync/freshness_guard.hpp"
#include "tidalcrest/sync/manifest.hpp"
#include "tidalcrest/sync/progress.hpp"
#include "tidalcrest/sync/records.hpp"
#include "tidalcrest/sync/rotation.hpp"
#include "tidalcrest/sync/search_consumer.hpp"

namespace tidalcrest::sync {

struct Seams;  // internal: what a test may replace

/// Everything that configures a manager. Nothing else does: no environment variable, no configuration file.
struct SyncOptions {
  std::string data_dir;    ///< an existing directory
  std::string server_url;  ///< API base URL; https, or http on a loopback host
  /// Bearer token supplier, asked afresh for each authenticated request, on the thread that makes it.
  std::function<std::string()> get_token = {};
  std::optional<std::string> token = {};  ///< a fixed token, when there is no supplier
  double poll_interval_s = SYNC_MANIFEST_POLL_INTERVAL_SECONDS;
  std::shared_ptr<RuntimeFreshnessGuard> runtime_freshness_guard = {};
  Document market_id = DEFAULT_AGENT_MARKET_ID;  ///< a positive integer
  Document sync_http_transport = nullptr;        ///< "auto", "urllib" or "curl"; null for the default
  Document sync_http_chunk_bytes = nullptr;      ///< a positive integer; null for 64 MiB
  Document sync_max_concurrency = nullptr;       ///< a positive integer; null for 8
  /// Gives the 32 bytes of the wallet secret, asked at each validation of the shuffle seed; absent stands for
  /// a result that is no byte string. Never kept.
  std::function<std::optional<std::string>()> get_wallet_secret = {};
  std::shared_ptr<SyncProgress> progress = {};
};

/// Data synchronization manager with background polling and IPC.
///
/// Owns one local data directory and keeps it in step with the server. What it shows is always one complete,
/// verified cohort; a failed sync, a crash or a newer manifest leaves the active one as it was. Every
/// operation is thread-safe unless it says otherwise. Several managers, also in other processes, may share a
/// directory.
///
/// What changes the data and what pins it take turns, and whoever waits hears a stop request of its backoff
/// context. On the thread that is inside one (a search consumer's refresh) or holds a pin, each of them
/// throws `StateError`; on a download worker (a token supplier, a display) it would wait for ever.
class SyncManager {
 public:
  /// The shared manager of a data directory, keyed by its real path. A later call replaces the token
  /// supplier, and what else it gives of suppliers, knobs and guard; its poll interval is ignored. Throws
  /// `ValueError` when the directory is already managed with another server or market, and what the
  /// constructor throws.
  static std::shared_ptr<SyncManager> get_or_create(SyncOptions options);
  /// Takes an instance out of the registry; an unknown directory is no failure.
  static void _evict(const std::string& data_dir);

  /// Reads what is on disk and comes up with the selected cohort when it is complete and proves itself;
  /// touches no network. Stays outside the registry. Throws `TypeError` (no token supplier), `ValueError`
  /// (empty or unsafe server URL, bad market id or knob, unsafe data directory), `FileNotFoundError` (no data
  /// directory), `ManifestError` (corrupt selector), `FeatureRotationStateError`.
  explicit SyncManager(SyncOptions options);
  /// For tests and embedders that replace the machine's clock, sleep, random source or free space.
  SyncManager(SyncOptions options, const Seams& seams);
  ~SyncManager();
  SyncManager(const SyncManager&) = delete;
  SyncManager& operator=(const SyncManager&) = delete;

  /// Full sync: manifest, compare, download, verify, atomic write. Blocks until other syncs of this
  /// directory, in any process, have ended. Throws the `SyncError` family, `AuthError`, `OSError`, and
  /// `SyncBackoffCancelled` when the calling thread's backoff context asks to stop. `EraError` among others
  /// when the server, or another process here, has gone on to another era: `trigger_era_transition` follows
  /// it.
  SyncResult sync();

  /// Verify one descriptor-pinned active cohort and operational seed pair. Changes nothing.
  VerifyResult verify() const;
  /// Re-download members through the complete-cohort staging boundary. Throws as `sync`; an unsafe path is a
  /// `ManifestError`.
  SyncResult repair(const std::vector<std::string>& corrupted_files);

  /// Hold the writer lock order while consumers read one exact cohort. Throws `StateError` when no proven
  /// cohort is active or another process has published since, `FileNotFoundError`, `LocalCohortError`,
  /// `OSError`.
  ActiveCohortPin pin_active_cohort_snapshot() const;
  /// Return one exact snapshot after a stable-selector readback. Throws as the pin.
  VerifiedActiveCohortSnapshot active_cohort_snapshot() const;
  /// Return the exact manifest-selected generation root. Throws as the pin.
  std::string active_cohort_data_dir() const;

  // --- What workers ask ---

  /// Ensure one manifest file exists locally through the sync boundary. Throws as `repair`.
  SyncResult ensure_manifest_file_available(const std::string& file_path, const Document& file_info);
  /// Add feature paths to the active rotation state and persist it; gives the merged paths, none without a
  /// state. Waits for a sync that runs.
  std::vector<std::string> add_active_feature_paths(const std::vector<std::string>& relative_paths);
  /// Cross-process sync trigger, returns file paths: local found PnL paths, newest first. When several
  /// threads ask at once, one runs the sync and the others wait for it, 30 seconds at most. Throws
  /// `StateError` while an era transition runs in any process, and while no poll thread runs; and what `sync`
  /// throws.
  std::vector<std::string> request_for_sync();
  /// Get all found signal and strategy PnL file paths, ordered newest first.
  std::vector<std::string> _get_found_file_paths() const;
  /// Ensures that the manifest's files of the named features, and their companions, are in the active cohort,
  /// and gives their local paths. Throws as `request_for_sync`.
  std::vector<std::string> request_feature_files_for_sync(
      const std::vector<std::string>& feature_names, const std::string& expression_type = "SIGNAL",
      const std::optional<std::string>& named_universe = {});
  /// Makes room: removes generation roots that are not selected, not pinned by any process and not among the
  /// newest `keep` complete ones, and what failed stagings left. Waits for syncs; never runs by itself.
  /// Throws `ValueError`, `OSError`.
  CollectionReport collect_generations(std::int64_t keep = 2, bool dry_run = false);

  // --- Running by itself ---

  /// Register as consumer, start threads if first: one that polls for new manifests, and one that follows the
  /// era. Each call wants its `release`. Throws what starting a thread throws; the consumer is counted all
  /// the same.
  void acquire();
  /// Deregister as consumer, stop threads if last, and take the manager out of the registry. Blocks as `stop`
  /// does, and `get_or_create` for any directory waits meanwhile. No effect without consumers. May be called
  /// from an era callback, but from nothing that a sync calls under its locks (token suppliers, search
  /// consumers).
  void release();
  /// Return the current number of active consumers. Includes those that a dead process left in
  /// `.consumer_count`.
  std::int64_t consumer_count() const noexcept;
  /// Start background sync polling loop, and no era monitoring: see `EraThread`. `StateError` when it runs
  /// already.
  void start();
  /// Stop background sync polling loop. Waits of the threads' own syncs end at once; a sync of another thread
  /// is waited for without a bound, a transition for 10 seconds at most, the poll thread for 30.
  void stop();
  /// Health check returning thread responsiveness: whether the poll thread runs. The era thread is not
  /// considered.
  bool is_alive() const;
  /// Lightweight sync check using version plus local integrity state; true on every doubt. Throws
  /// `SyncUnavailableError`, and `ManifestError` or `ValueError` for an answer that is no version answer of
  /// the market.
  bool needs_sync() const;
  /// Return the current human-readable sync status, if any.
  std::optional<std::string> status() const;
  /// Cross-process corruption report, queues async repair. Returns without waiting. Throws `StateError` when
  /// no poll thread runs and `ValueError` for a path that the manifest does not hold.
  void report_corruption(const std::string& file_path);

  /// Moves the directory to an era, with searches stopped: calls `kill_searches_fn`, takes the locks, updates
  /// the library where the era wants it, publishes the era's cohort, lets go of the locks, tells the rest of
  /// the SDK, and calls `restart_searches_fn`. Runs again when that era is superseded meanwhile. The previous
  /// cohort stays active on a failure before the publication; the searches stay stopped on any failure.
  /// Throws `TypeError` (an era number that cannot be compared), `EraError`, `LibraryUpdateRequired`, what
  /// `sync` and the callbacks throw.
  void trigger_era_transition(const Document& new_era_number,
                              const std::function<void()>& kill_searches_fn = {},
                              const std::function<void()>& restart_searches_fn = {});

  /// Deletes the era-named directories of earlier eras and gives the bytes freed. Without `keep_current` the
  /// data at the root goes too; hidden directories stay. Throws `OSError` with part of the work done.
  std::int64_t cleanup_old_eras(bool keep_current = true) const;
  /// The same on a background thread, at most one at a time; a call during a run is dropped.
  void _schedule_cleanup_old_eras(bool keep_current = true);

  /// Return current local Manifest or None (null).
  std::shared_ptr<const Manifest> get_manifest() const;
  /// The merged validated vocabularies of the active cohort by named universe; null when there is none.
  std::shared_ptr<const Document> vocabulary() const;
  /// The data directory as passed.
  const std::string& data_dir() const noexcept;
  const std::string& server_url() const noexcept;
  std::int64_t market_id() const noexcept;
  double poll_interval_s() const noexcept;
  /// Root of the active data as this manager believes it: a generation root, or the data directory.
  std::string active_data_dir() const;
  std::optional<RotationState> active_rotation_state() const;

  /// Changes the given knobs; null keeps a value. Throws `ValueError`.
  void _set_sync_runtime_knobs(const Document& sync_http_transport = nullptr,
                               const Document& sync_http_chunk_bytes = nullptr,
                               const Document& sync_max_concurrency = nullptr);

  /// The guard that downloads tell; null for none. Thread-safe.
  std::shared_ptr<RuntimeFreshnessGuard> runtime_freshness_guard() const;
  void set_runtime_freshness_guard(std::shared_ptr<RuntimeFreshnessGuard> guard);

  /// For a caller that holds a fresh signals index: "relative_path", "sha256" and "local_path" of the update
  /// object, and "kind" if it has one, go to the freshness guard and the hash cache. Throws `KeyError`.
  void _record_signals_index_update(const Document& signals_index_update) const;

  void register_era_callback(EraCallback callback);
  void unregister_era_callback(const EraCallback& callback);
  void _notify_era_callbacks(const std::string& event_type, std::int64_t era_number);

  void register_rotation_search_consumer(std::shared_ptr<RotationSearchConsumer> consumer);
  void unregister_rotation_search_consumer(const RotationSearchConsumer& consumer);
  /// Prepares and delivers; for a caller that rotated by itself. `manifest` null: the active one.
  void refresh_running_searches_for_rotation(const RotationState& rotation_state, const Document& vocabulary,
                                             const Manifest* manifest = nullptr) const;

 private:
  friend class EraThread;  // watches a manager without owning it
  struct Wiring;           // the collaborators, shared with running threads; never moved
  struct Loops;            // what starts and stops the threads
  std::shared_ptr<Wiring> _wiring;
  std::unique_ptr<Loops> _loops;  // declared after `_wiring`: the threads are stopped first
};

}  // namespace tidalcrest::sync
