#include "integrity/hash_cache_file.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <numeric>

#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "host/text_scanner.hpp"
#include "tidalcrest/sync/document.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

constexpr std::size_t TYPICAL_ENTRY_BYTES = 256;
constexpr std::size_t TYPICAL_PATH_BYTES = 64;
constexpr std::size_t ENTRY_BYTES_BESIDE_PATH = 224;

// Absent for an entry that could never be hit.
std::optional<HashCacheEntry> entry_of(const Document& value) {
  const Document& digits = member_or_null(value, "sha256");
  const auto sha256 = digits.is_string() ? sha256_bytes(digits.get_ref<const std::string&>()) : std::nullopt;
  const auto number = [&value](const char* key) { return try_int(member_or_null(value, key)); };
  const auto size_bytes = number("size_bytes"), mtime_ns = number("mtime_ns"), ctime_ns = number("ctime_ns"),
             device = number("device"), inode = number("inode");
  if (!sha256 || !size_bytes || !mtime_ns || !ctime_ns || !device || !inode) return std::nullopt;
  return HashCacheEntry{*sha256, {*size_bytes, *mtime_ns, *ctime_ns, *device, *inode}};
}

HashCacheEntries entries_of(const Document& document) {
  const Document& files = member_or_null(document, "files");
  if (member_or_null(document, "version") != SYNC_HASH_CACHE_VERSION || !files.is_object()) return {};
  std::map<std::string, HashCacheEntry> entries;
  for (const auto& [path, value] : files.get_ref<const Document::object_t&>()) {
    if (const auto entry = entry_of(value)) entries.emplace(path, *entry);
  }
  return HashCacheEntries().merged_with(entries);
}

constexpr int NO_DIGIT = 256;

constexpr std::array<int, 256> hex_values() {
  std::array<int, 256> values{};
  values.fill(NO_DIGIT);
  for (int digit = 0; digit < 10; ++digit) values['0' + digit] = digit;
  for (int digit = 0; digit < 6; ++digit) values['a' + digit] = 10 + digit;
  return values;
}
constexpr std::array<int, 256> HEX_VALUES = hex_values();

std::string_view as_text(const Sha256Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// One entry as `hash_cache_text` writes it.
std::optional<HashCacheEntry> take_entry(TextScanner& scanner) {
  HashCacheEntry entry;
  const auto take_number = [&scanner](std::string_view key, std::int64_t& number) {
    const auto value = scanner.take(key) ? scanner.take_integer() : std::nullopt;
    if (value) number = *value;
    return value.has_value();
  };
  if (!take_number("{\"ctime_ns\": ", entry.stat.ctime_ns) ||
      !take_number(", \"device\": ", entry.stat.device) || !take_number(", \"inode\": ", entry.stat.inode) ||
      !take_number(", \"mtime_ns\": ", entry.stat.mtime_ns) || !scanner.take(", \"sha256\": ")) {
    return std::nullopt;
  }
  const auto digits = scanner.take_quoted();
  const auto sha256 = digits ? sha256_bytes(*digits) : std::nullopt;
  if (!sha256 || !take_number(", \"size_bytes\": ", entry.stat.size_bytes) || !scanner.take("}"))
    return std::nullopt;
  entry.sha256 = *sha256;
  return entry;
}

// The entries of a text that is exactly as `hash_cache_text` wrote it, absent for any other. Most processes
// begin with reading this file, and as any JSON it costs six times as much.
std::optional<HashCacheEntries> parse_own_form(std::string_view text) {
  TextScanner scanner(text);
  HashCacheEntries entries;
  if (!scanner.take("{\"files\": {")) return std::nullopt;
  const std::size_t typical_count = text.size() / TYPICAL_ENTRY_BYTES + 1;
  entries.reserve(typical_count, typical_count * TYPICAL_PATH_BYTES);
  do {
    const auto path = scanner.take_quoted();
    const auto entry = path && scanner.take(": ") ? take_entry(scanner) : std::nullopt;
    if (!entry || !entries.append(*path, *entry)) return std::nullopt;
  } while (scanner.take(", "));
  if (scanner.rest() != fmt::format("}}, \"version\": {}}}", SYNC_HASH_CACHE_VERSION)) return std::nullopt;
  return entries;
}

}  // namespace

std::optional<Sha256Bytes> sha256_bytes(std::string_view hex) noexcept {
  Sha256Bytes bytes;
  if (hex.size() != 2 * bytes.size()) return std::nullopt;
  int seen = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const int value = HEX_VALUES[static_cast<unsigned char>(hex[2 * i])] * 16 +
                      HEX_VALUES[static_cast<unsigned char>(hex[2 * i + 1])];
    seen |= value;
    bytes[i] = static_cast<unsigned char>(value);
  }
  if (seen >= NO_DIGIT) return std::nullopt;
  return bytes;
}

void HashCacheEntries::reserve(std::size_t count, std::size_t path_bytes) {
  _rows.reserve(count);
  _paths.reserve(path_bytes);
}

bool HashCacheEntries::append(std::string_view path, const HashCacheEntry& entry) {
  if (!_rows.empty() && path <= path_of(_rows.back())) return false;
  _rows.push_back(
      {static_cast<std::uint32_t>(_paths.size()), static_cast<std::uint32_t>(path.size()), entry});
  _paths += path;
  return true;
}

const HashCacheEntry* HashCacheEntries::find(std::string_view path) const noexcept {
  const auto found = std::lower_bound(_rows.begin(), _rows.end(), path,
                                      [this](const Row& row, auto wanted) { return path_of(row) < wanted; });
  return found != _rows.end() && path_of(*found) == path ? &found->entry : nullptr;
}

HashCacheEntries HashCacheEntries::merged_with(const std::map<std::string, HashCacheEntry>& newer) const {
  HashCacheEntries merged;
  // Mostly the same paths.
  merged.reserve(std::max(_rows.size(), newer.size()),
                 std::max(_paths.size(), newer.size() * TYPICAL_PATH_BYTES));
  auto next = newer.begin();
  for (const Row& row : _rows) {
    const std::string_view path = path_of(row);
    for (; next != newer.end() && next->first < path; ++next) merged.append(next->first, next->second);
    if (next == newer.end() || next->first != path) merged.append(path, row.entry);
  }
  for (; next != newer.end(); ++next) merged.append(next->first, next->second);
  return merged;
}

std::string_view HashCacheEntries::path_of(const Row& row) const noexcept {
  return std::string_view(_paths).substr(row.path_begin, row.path_size);
}

HashCacheEntries parse_hash_cache(std::string_view text) {
  if (auto entries = parse_own_form(text)) return *std::move(entries);
  return entries_of(parse_json(text));
}

std::string hash_cache_text(const HashCacheEntries& entries) {
  std::string text = "{\"files\": {";
  text.reserve(std::accumulate(
      entries.rows().begin(), entries.rows().end(), std::size_t{64},
      [](auto bytes, const auto& row) { return bytes + row.path_size + ENTRY_BYTES_BESIDE_PATH; }));
  const char* separator = "";
  for (const auto& row : entries.rows()) {
    const auto& [sha256, stat] = row.entry;
    fmt::format_to(
        std::back_inserter(text),
        "{}{}: {{\"ctime_ns\": {}, \"device\": {}, \"inode\": {}, \"mtime_ns\": {}, \"sha256\": \"{}\", "
        "\"size_bytes\": {}}}",
        separator, dump_json(std::string(entries.path_of(row))), stat.ctime_ns, stat.device, stat.inode,
        stat.mtime_ns, text::hex(as_text(sha256)), stat.size_bytes);
    separator = ", ";
  }
  fmt::format_to(std::back_inserter(text), "}}, \"version\": {}}}", SYNC_HASH_CACHE_VERSION);
  return text;
}

}  // namespace tidalcrest::sync
