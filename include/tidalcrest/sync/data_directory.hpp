#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "tidalcrest/sync/collection.hpp"
#include "tidalcrest/sync/document.hpp"
#include "tidalcrest/sync/records.hpp"

namespace tidalcrest::sync {

/// A data directory by itself: what can be asked of it and done to it without a server, a token or a manager.
///
/// Nothing is remembered between calls: each looks at the disk as it stands. Every operation is thread-safe
/// and may run beside managers of any process.
class DataDirectory {
 public:
  /// `FileNotFoundError` when it does not exist, `ValueError` when it is no safe directory.
  explicit DataDirectory(std::string path);

  const std::string& path() const noexcept { return _path; }

  /// The selected cohort, whole on disk by its completion record; its bytes are not measured. Takes no lock
  /// and waits for nobody. `LocalCohortError` when nothing is selected or the generation is not complete,
  /// `ManifestJsonError`, `OSError`.
  VerifiedActiveCohortSnapshot active_cohort_snapshot() const;

  /// Whether some process holds the exclusive distribution lock at this moment: a sync, a repair, a
  /// transition or a collection is at work. Never waits. Throws `OSError`.
  bool is_busy() const;

  /// How the directory stands, as one JSON object; neither waits for a lock nor takes the exclusive one. What
  /// is damaged is reported below "problems" and not thrown.
  ///
  /// - "data_dir"; "state": "empty" (nothing selected), "active" or "damaged" (no complete cohort behind the
  ///   selector)
  /// - "cohort": null, or "era_number", "version", "market_id", "manifest_sha256", "root_dir", and the counts
  ///   "manifest_files", "members" and "member_bytes"
  /// - "generations": how many roots are "complete", and how many "unfinished"
  /// - "rotation": the object of `feature_rotation_status_payload`, or null
  /// - "consumers": of the process that last wrote the count, or null
  /// - "busy": `is_busy`
  /// - "transition": null, or the "process_id" of the marker file; one that stays belongs to a process that
  /// died
  /// - "progress": null, or what a sync shows of itself: "phase" ("syncing", "backoff"), "era_number",
  ///   "version", "updated_at" (Unix time), "files", "bytes", "files_arrived", "bytes_arrived", "backoff";
  ///   and "running", false for what a killed sync left behind
  /// - "problems": list of texts
  Document status() const;

  /// As `SyncManager::verify`, for what is selected on disk; it waits for a writer to end. Throws
  /// `LocalCohortError` when nothing is selected, and `SyncError` without a usable wallet secret.
  VerifyResult verify(const std::function<std::optional<std::string>()>& get_wallet_secret) const;

  /// As `SyncManager::collect_generations`.
  CollectionReport collect_generations(std::int64_t keep = 2, bool dry_run = false) const;

  /// As `SyncManager::cleanup_old_eras(true)`. Throws `LocalCohortError` when nothing is selected: no
  /// directory is known to be old then.
  std::int64_t cleanup_old_eras() const;

 private:
  const std::string _path;
};

}  // namespace tidalcrest::sync
