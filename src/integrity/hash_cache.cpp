#include "integrity/hash_cache.hpp"

#include <filesystem>

#include "download/local_files.hpp"
#include "host/integer.hpp"
#include "host/log.hpp"
#include "host/parallel.hpp"
#include "host/unusable.hpp"
#include "manifest/paths.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/file_blocks.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

using client_manifest::FileIdentity;
using client_manifest::FileStat;
using client_manifest::PinnedRoot;

// What a look at a local file gives, absent for a file that cannot be looked at.
template <class Look>
auto absent_when_unreadable(Look&& look) -> std::optional<decltype(look())> {
  try {
    return look();
  } catch (const Failure& failure) {
    if (!is_unusable(failure)) throw;
    return std::nullopt;
  }
}

// What an entry declares of its file, as long as the entry lives.
struct Declared {
  std::string_view sha256;
  std::optional<std::int64_t> size_bytes;
};

// Absent for a declaration that no file can match.
std::optional<Declared> declared_identity(const FileEntry& file_info) {
  Declared declared;
  if (const Document size = file_info.value("size_bytes"); !size.is_null()) {
    declared.size_bytes = try_int(size);
    if (!declared.size_bytes || *declared.size_bytes < 0) return std::nullopt;
  }
  declared.sha256 = file_info.text("sha256").value_or(std::string_view());
  if (declared.sha256.empty()) return std::nullopt;
  return declared;
}

}  // namespace

HashCache::HashCache(const std::string& data_dir)
    : _hash_cache_path((std::filesystem::path(data_dir) / SYNC_HASH_CACHE_FILENAME).string()),
      _loading(std::async(_loading_policy(), [this] { return _load_hash_cache(); })) {}

// Without a thread to be had, or worth having, the first who asks loads it.
std::launch HashCache::_loading_policy() const {
  std::error_code unknown;
  const auto size = std::filesystem::file_size(_hash_cache_path, unknown);
  const bool worth_a_thread = !unknown && size >= WORTH_A_THREAD_BYTES;
  return worth_a_thread ? std::launch::async | std::launch::deferred : std::launch::deferred;
}

const HashCacheEntries& HashCache::await_loaded() const { return _loading.get(); }

HashCacheEntries HashCache::_load_hash_cache() const {
  std::error_code ignored;
  if (!std::filesystem::exists(_hash_cache_path, ignored)) return {};
  try {
    return parse_hash_cache(client_manifest::read_regular_file_path(_hash_cache_path, "sync hash cache"));
  } catch (const std::exception& failure) {
    log::warning("Ignoring unreadable sync hash cache: %s", failure.what());
    return {};
  }
}

// A hit requires the expected digest itself: the cache says whether this is still the file with this digest,
// and never what a digest is.
std::optional<std::string> HashCache::_cached_local_sha(const std::string& file_path, const FileStat& stat,
                                                        const std::string& expected_sha,
                                                        std::optional<std::int64_t> expected_size) const {
  if (expected_size && *expected_size != stat.size_bytes) return std::nullopt;
  if (!_is_cached(file_path, stat, expected_sha)) return std::nullopt;
  return expected_sha;
}

bool HashCache::_is_cached(const std::string& file_path, const FileStat& stat,
                           std::string_view expected_sha) const {
  const auto expected_bytes = sha256_bytes(expected_sha);
  if (!expected_bytes) return false;
  const auto is_expected = [&](const HashCacheEntry* entry) {
    return entry != nullptr && *entry == HashCacheEntry{*expected_bytes, stat};
  };
  const HashCacheEntry* loaded = await_loaded().find(file_path);
  if (!_has_remembered) return is_expected(loaded);
  const MutexLock lock(_hash_cache_lock);
  return is_expected(_newest(file_path, loaded));
}

const HashCacheEntry* HashCache::_newest(const std::string& file_path, const HashCacheEntry* loaded) const {
  const auto remembered = _remembered.find(file_path);
  return remembered != _remembered.end() ? &remembered->second : loaded;
}

void HashCache::_remember_local_sha(const std::string& file_path, const FileIdentity& identity) {
  const auto measured = sha256_bytes(identity.sha256);
  if (!measured) return;  // no digest; it could never be asked for
  const HashCacheEntry entry{*measured, static_cast<const FileStat&>(identity)};
  const HashCacheEntry* loaded = await_loaded().find(file_path);
  const MutexLock lock(_hash_cache_lock);
  const HashCacheEntry* known = _newest(file_path, loaded);
  if (known != nullptr && *known == entry) return;
  _remembered.insert_or_assign(file_path, entry);
  _has_remembered = true;
  _hash_cache_dirty = true;
}

void HashCache::_remember_local_sha(const std::string& root, const std::string& file_path,
                                    const std::string& actual_sha) {
  const std::string safe_path = _safe_manifest_relative_path(file_path);
  const auto stat = absent_when_unreadable([&] {
    return client_manifest::stat_contained_regular_file(root, safe_path, "manifest hash-cache file");
  });
  if (stat) _remember_local_sha(file_path, FileIdentity{*stat, actual_sha});
}

void HashCache::_persist_hash_cache() {
  const HashCacheEntries& loaded = await_loaded();
  HashCacheEntries entries;
  {
    const MutexLock lock(_hash_cache_lock);
    if (!_hash_cache_dirty) return;
    entries = loaded.merged_with(_remembered);
    _hash_cache_dirty = false;
  }
  try {
    _atomic_write(_hash_cache_path, hash_cache_text(entries));
  } catch (const std::exception& failure) {
    log::warning("Failed to persist sync hash cache: %s", failure.what());
    const MutexLock lock(_hash_cache_lock);
    _hash_cache_dirty = true;
  }
}

bool HashCache::_local_file_matches_manifest(const PinnedRoot& root, const std::string& file_path,
                                             const FileEntry& file_info, bool cache_allowed,
                                             const std::function<void()>& after_block) {
  const auto stat_member = [&root](const std::string& path) {
    return root.stat_regular_file(path, "manifest file");
  };
  return _matches(root, stat_member, file_path, file_info, cache_allowed, after_block);
}

bool HashCache::_local_file_matches_manifest(const PinnedRoot& root, client_manifest::DirectoryCursor& cursor,
                                             const std::string& file_path, const FileEntry& file_info,
                                             bool cache_allowed, const std::function<void()>& after_block) {
  const auto stat_member = [&cursor](const std::string& path) {
    return cursor.stat_regular_file(path, "manifest file");
  };
  return _matches(root, stat_member, file_path, file_info, cache_allowed, after_block);
}

template <class Stat>
bool HashCache::_matches(const PinnedRoot& root, Stat&& stat_member, const std::string& file_path,
                         const FileEntry& file_info, bool cache_allowed,
                         const std::function<void()>& after_block) {
  const std::string& safe_path = _safe_manifest_relative_path(file_path);
  const auto expected = declared_identity(file_info);
  if (!expected) return false;
  const auto has_declared_size = [&expected](const FileStat& stat) {
    return !expected->size_bytes || *expected->size_bytes == stat.size_bytes;
  };
  const auto stat = absent_when_unreadable([&] { return stat_member(safe_path); });
  if (!stat || !has_declared_size(*stat)) return false;  // a wrong size costs no hash
  if (cache_allowed && _is_cached(file_path, *stat, expected->sha256)) return true;
  const auto identity = absent_when_unreadable([&] {
    return root.identify_regular_file(safe_path, "manifest file", client_manifest::DEFAULT_BLOCK_BYTES,
                                      after_block);
  });
  if (!identity || !has_declared_size(*identity)) return false;
  if (cache_allowed) _remember_local_sha(file_path, *identity);  // also when it is the wrong digest
  return identity->sha256 == expected->sha256;
}

}  // namespace tidalcrest::sync
