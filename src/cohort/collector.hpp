#pragma once

#include <string>

#include "cohort/sync_lock.hpp"
#include "host/seams.hpp"
#include "tidalcrest/sync/collection.hpp"

namespace tidalcrest::sync {

/// How many of the newest complete generations a collection keeps: the selected one and the one before, so
/// that a snapshot taken without a pin stays readable for one more publication.
inline constexpr std::int64_t DEFAULT_KEPT_GENERATIONS = 2;

/// Makes room: removes generation roots that nobody needs any more. Never called by the system itself.
///
/// A root goes unless it is selected, pinned by any process, or among the newest `keep` complete ones;
/// leftovers of failed stagings go when they are older than a day; abandoned staging roots of repairs go at
/// once. A writer: it holds the sync lock and the exclusive distribution lock; a dry run holds the latter
/// shared, as a reader does. A root is renamed out of the way before it is deleted, so that a kill in the
/// middle leaves no half of a generation under its name.
class Collector {
 public:
  Collector(std::string data_dir, SyncLock& lock, Seams seams)
      : _data_dir(std::move(data_dir)), _lock(lock), _seams(std::move(seams)) {}

  /// Throws `ValueError` for a negative `keep`, `OSError`.
  CollectionReport collect_generations(std::int64_t keep = DEFAULT_KEPT_GENERATIONS,
                                       bool dry_run = false) const;

 private:
  const std::string _data_dir;
  SyncLock& _lock;
  const Seams _seams;
};

}  // namespace tidalcrest::sync
