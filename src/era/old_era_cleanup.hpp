#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "cohort/active_view.hpp"
#include "host/background_thread.hpp"
#include "host/mutex.hpp"

namespace tidalcrest::sync {

/// Removes the era-named directories ("era_12", "era12") that earlier layouts and eras left directly below
/// the data directory. Takes no lock: consumers read from the active cohort, which is in none of them.
class OldEraCleanup {
 public:
  OldEraCleanup(std::string data_dir, const ActiveViewHolder& active)
      : _data_dir(std::move(data_dir)), _active(active) {}

  /// Gives the bytes freed. `keep_current` spares the directory of the manifest's era; without it the data at
  /// the root goes too: `manifest.json`, `shuffle_seed.enc` and every directory whose name begins with no
  /// dot. Symbolic links are removed, never followed. Any failure (`OSError`) passes through with part of the
  /// work done.
  std::int64_t cleanup_old_eras(bool keep_current = true) const;
  /// The same for a thread: logs what came of it.
  void _cleanup_old_eras_background(bool keep_current) const;

 private:
  const std::string _data_dir;
  const ActiveViewHolder& _active;
};

/// At most one cleanup thread at a time.
class OldEraCleanupThread {
 public:
  /// Starts a thread that shares ownership of `cleanup`; dropped while one runs.
  void _schedule_cleanup_old_eras(std::shared_ptr<const OldEraCleanup> cleanup, bool keep_current);

 private:
  Mutex _cleanup_lock;  // a leaf
  std::unique_ptr<BackgroundThread> _cleanup_thread GUARDED_BY(_cleanup_lock);
};

}  // namespace tidalcrest::sync
