#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "host/mutex.hpp"
#include "integrity/hash_cache_file.hpp"
#include "siblings/distribution/directory_cursor.hpp"
#include "siblings/distribution/pinned_root.hpp"
#include "tidalcrest/sync/manifest_entries.hpp"

namespace tidalcrest::sync {

inline constexpr const char* SYNC_HASH_CACHE_FILENAME = ".sync_hash_cache.json";

/// Answers one question without reading a file: is this still the file with this digest? An entry belongs to
/// a relative path, whichever root the file was measured in, and is valid for one exact stat identity.
/// Advisory: a bad file reads as empty, a failed write is a warning, and a crash between an update and a
/// persist loses only speed. Thread-safe; `_hash_cache_lock` is a leaf, held for map operations only.
class HashCache {
 public:
  /// Begins to load the cache file of the data directory; a large one on a thread of its own.
  explicit HashCache(const std::string& data_dir);
  /// Waits until the file is loaded; every member below does.
  const HashCacheEntries& await_loaded() const;

  /// `expected_sha` when the file with this stat is known to have it, else absent.
  std::optional<std::string> _cached_local_sha(const std::string& file_path,
                                               const client_manifest::FileStat& stat,
                                               const std::string& expected_sha,
                                               std::optional<std::int64_t> expected_size = {}) const;
  void _remember_local_sha(const std::string& file_path, const client_manifest::FileIdentity& identity);
  /// Stats the file below `root`; a failure remembers nothing.
  void _remember_local_sha(const std::string& root, const std::string& file_path,
                           const std::string& actual_sha);
  /// Writes the cache when it has changed since the last time.
  void _persist_hash_cache();

  /// Whether the file below `root` is what the entry declares; false counts as not present. `cache_allowed`
  /// false hashes the file in full and leaves the cache alone. A hit costs one stat. `after_block` is called
  /// while a file is hashed and may end it by throwing. Throws `ManifestError` for an unsafe path only.
  bool _local_file_matches_manifest(const client_manifest::PinnedRoot& root, const std::string& file_path,
                                    const FileEntry& file_info, bool cache_allowed = true,
                                    const std::function<void()>& after_block = {});
  /// The same with the stats of a loop over many members; `cursor` walks `root`.
  bool _local_file_matches_manifest(const client_manifest::PinnedRoot& root,
                                    client_manifest::DirectoryCursor& cursor, const std::string& file_path,
                                    const FileEntry& file_info, bool cache_allowed = true,
                                    const std::function<void()>& after_block = {});

 private:
  std::launch _loading_policy() const;
  HashCacheEntries _load_hash_cache() const;
  bool _is_cached(const std::string& file_path, const client_manifest::FileStat& stat,
                  std::string_view expected_sha) const;
  const HashCacheEntry* _newest(const std::string& file_path, const HashCacheEntry* loaded) const
      REQUIRES(_hash_cache_lock);
  template <class Stat>
  bool _matches(const client_manifest::PinnedRoot& root, Stat&& stat_member, const std::string& file_path,
                const FileEntry& file_info, bool cache_allowed, const std::function<void()>& after_block);

  const std::string _hash_cache_path;
  const std::shared_future<HashCacheEntries> _loading;
  mutable Mutex _hash_cache_lock;
  // What was measured since the loading; it counts before what was loaded.
  std::map<std::string, HashCacheEntry> _remembered GUARDED_BY(_hash_cache_lock);
  std::atomic<bool> _has_remembered = false;  // keeps a proof of many members off the lock
  bool _hash_cache_dirty GUARDED_BY(_hash_cache_lock) = false;
};

}  // namespace tidalcrest::sync
