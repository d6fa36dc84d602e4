#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "siblings/distribution/pinned_root.hpp"

namespace tidalcrest::sync {

inline constexpr std::int64_t SYNC_HASH_CACHE_VERSION = 2;

/// A digest without its text form: a cache of a hundred thousand files stays small.
using Sha256Bytes = std::array<unsigned char, 32>;
/// Absent for anything but 64 lower-case hexadecimal digits.
std::optional<Sha256Bytes> sha256_bytes(std::string_view hex) noexcept;

/// The digest that a file had at one exact stat identity.
struct HashCacheEntry {
  Sha256Bytes sha256{};
  client_manifest::FileStat stat;
  friend bool operator==(const HashCacheEntry&, const HashCacheEntry&) = default;
};

/// The entries of a cache file, sorted by path. Never changed once read, and in two pieces of memory however
/// many they are: every process begins with them.
class HashCacheEntries {
 public:
  struct Row {
    std::uint32_t path_begin, path_size;
    HashCacheEntry entry;
    friend bool operator==(const Row&, const Row&) = default;
  };

  void reserve(std::size_t count, std::size_t path_bytes);
  /// False, and nothing is added, when the path is not greater than the last one.
  bool append(std::string_view path, const HashCacheEntry& entry);
  /// Null for an unknown path.
  const HashCacheEntry* find(std::string_view path) const noexcept;
  /// These entries and the newer ones, which count where both know a path.
  HashCacheEntries merged_with(const std::map<std::string, HashCacheEntry>& newer) const;

  const std::vector<Row>& rows() const noexcept { return _rows; }
  std::string_view path_of(const Row& row) const noexcept;
  friend bool operator==(const HashCacheEntries&, const HashCacheEntries&) = default;

 private:
  std::string _paths;  // one after the other
  std::vector<Row> _rows;
};

/// Reads the text of a cache file. A text of another version or shape is empty; an entry that could never be
/// hit (a missing or unreadable member, a digest that is none) is left out. Throws `UnicodeDecodeError` and
/// `JSONDecodeError`. A text in the form that `hash_cache_text` writes is read without a document of it.
HashCacheEntries parse_hash_cache(std::string_view text);

/// The text of a cache file: keys sorted at every level, the host's default separators.
std::string hash_cache_text(const HashCacheEntries& entries);

}  // namespace tidalcrest::sync
