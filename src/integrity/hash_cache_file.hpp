#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
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

using HashCacheEntries = std::unordered_map<std::string, HashCacheEntry>;

/// Reads the text of a cache file. A text of another version or shape is empty; an entry that could never be
/// hit (a missing or unreadable member, a digest that is none) is left out. Throws `UnicodeDecodeError` and
/// `JSONDecodeError`. Builds nothing but the entries, whatever the size of the text.
HashCacheEntries parse_hash_cache(std::string_view text);

/// The text of a cache file: keys sorted at every level, the host's default separators.
std::string hash_cache_text(std::vector<std::pair<std::string, HashCacheEntry>> entries);

}  // namespace tidalcrest::sync
