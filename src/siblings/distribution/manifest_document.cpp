#include "siblings/distribution/manifest_document.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <unordered_set>

#include "host/json.hpp"
#include "host/text.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

constexpr std::size_t MANIFEST_BYTES_LIMIT = std::size_t{256} << 20;
constexpr std::size_t PATH_BYTES_LIMIT = 1024;
constexpr std::size_t SEGMENT_BYTES_LIMIT = 250;  // leaves room for ".tmp" in a file name of 255 bytes

// What the client keeps at the root of the data directory or of a generation. A member whose first segment is
// one of these would stand in its place.
constexpr std::array<std::string_view, 17> CLIENT_ROOT_NAMES = {
    "manifest.json",
    "shuffle_seed.enc",
    "shuffle_seed.enc.meta.json",
    "sync-progress.json",
    "feature-rotation-state.json",
    "rotation-settings.json",
    ".manifest_sync_metadata.json",
    ".sync_hash_cache.json",
    ".consumer_count",
    ".sync_flock",
    ".transition_lock",
    ".prefetched-features.json",
    ".tidalcrest-identity.json",
    ".search-tracking.json",
    ".cohort-manifest.json",
    ".cohort-complete.json",
    ".tidalcrest-cohorts",
};

constexpr std::array<bool, 256> allowed_characters() {
  std::array<bool, 256> allowed{};
  for (unsigned char c = '0'; c <= '9'; ++c) allowed[c] = true;
  for (unsigned char c = 'A'; c <= 'Z'; ++c) allowed[c] = true;
  for (unsigned char c = 'a'; c <= 'z'; ++c) allowed[c] = true;
  for (const char c : std::string_view("-._~!$&'()*+,;=:@/")) allowed[static_cast<unsigned char>(c)] = true;
  return allowed;
}
constexpr std::array<bool, 256> PATH_CHARACTERS = allowed_characters();

void validate_segment(std::string_view segment) {
  if (segment.empty()) throw ValueError("path has an empty segment");
  if (segment == "." || segment == "..") {
    throw ValueError(fmt::format("path has a relative segment {}", text::repr(segment)));
  }
  if (segment.size() > SEGMENT_BYTES_LIMIT) {
    throw ValueError(fmt::format("path has a segment longer than {} bytes", SEGMENT_BYTES_LIMIT));
  }
}

void validate_path(std::string_view path) {
  if (path.empty()) throw ValueError("path is empty");
  if (path.size() > PATH_BYTES_LIMIT) {
    throw ValueError(fmt::format("path is longer than {} bytes", PATH_BYTES_LIMIT));
  }
  if (path.front() == '/') throw ValueError("path begins with '/'");
  if (path.back() == '/') throw ValueError("path ends with '/'");
  for (std::size_t i = 0; i < path.size(); ++i) {
    if (!PATH_CHARACTERS[static_cast<unsigned char>(path[i])]) {
      throw ValueError(fmt::format("path has a character outside the allowed set at byte {}", i));
    }
  }
  for (std::string_view rest = path;;) {
    const auto slash = rest.find('/');
    validate_segment(rest.substr(0, slash));
    if (slash == std::string_view::npos) return;
    rest.remove_prefix(slash + 1);
  }
}

void refuse_client_name(std::string_view path) {
  if (path.ends_with(".tmp")) throw ValueError("path ends in '.tmp', the name of a staging file");
  const std::string_view first = path.substr(0, path.find('/'));
  if (std::find(CLIENT_ROOT_NAMES.begin(), CLIENT_ROOT_NAMES.end(), first) != CLIENT_ROOT_NAMES.end()) {
    throw ValueError(fmt::format("path uses the client's own name '{}'", first));
  }
}

// The directories that the keys of one manifest lie in. The hash of every prefix falls out of one pass over a
// key, and a known directory brings its own parents with it, so all keys together cost as much as their
// bytes.
class DirectoryPrefixes {
 public:
  void add_parents_of(std::string_view path) {
    const std::string_view directory = path.substr(0, path.rfind('/') + 1);
    if (directory == _last) return;  // neighbours mostly lie side by side
    _last = directory;
    _longest = std::max(_longest, directory.size());
    _marks.clear();
    std::size_t hash = HASH_START;
    for (std::size_t i = 0; i < path.size(); ++i) {
      if (path[i] == '/') _marks.push_back({path.substr(0, i), hash});
      hash = extend(hash, path[i]);
    }
    for (auto mark = _marks.rbegin(); mark != _marks.rend(); ++mark) {
      if (!_directories.insert(*mark).second) return;
    }
  }

  bool contains(std::string_view path) const {
    if (path.size() >= _longest) return false;
    std::size_t hash = HASH_START;
    for (const char c : path) hash = extend(hash, c);
    return _directories.contains({path, hash});
  }

 private:
  struct Directory {
    std::string_view path;
    std::size_t hash;
    bool operator==(const Directory& other) const { return hash == other.hash && path == other.path; }
  };
  struct KnownHash {
    std::size_t operator()(const Directory& directory) const noexcept { return directory.hash; }
  };
  static constexpr std::size_t HASH_START = 14695981039346656037u;
  static constexpr std::size_t extend(std::size_t hash, char c) {
    return (hash ^ static_cast<unsigned char>(c)) * 1099511628211u;
  }

  std::unordered_set<Directory, KnownHash> _directories;
  std::vector<Directory> _marks;
  std::string_view _last;    // with its slash
  std::size_t _longest = 0;  // of any directory, with its slash
};

void validate_entries(const ManifestEntries& entries, const std::string& label) {
  DirectoryPrefixes directories;
  for (const auto& [path, entry] : entries) {
    try {
      validate_path(path);
      refuse_client_name(path);
    } catch (const ValueError& failure) {
      throw ValueError(
          fmt::format("{} files has an invalid path {}: {}", label, text::repr(path), failure.what()));
    }
    if (!entry.is_object()) {
      throw ValueError(fmt::format("{} files[{}] must be a JSON object, got {}", label, text::repr(path),
                                   text::type_name(entry.document())));
    }
    directories.add_parents_of(path);
  }
  for (const auto& [path, entry] : entries) {
    if (directories.contains(path)) {
      throw ValueError(
          fmt::format("{} files has a path that is also a directory: {}", label, text::repr(path)));
    }
  }
}

void validate_files(const Document& files, const std::string& label) {
  if (!files.is_object()) {
    throw ValueError(fmt::format("{} files must be a JSON object, got {}", label, text::type_name(files)));
  }
  validate_entries(ManifestEntries(files), label);
}

void require_size(std::string_view body, const std::string& label) {
  if (body.size() <= MANIFEST_BYTES_LIMIT) return;
  throw ValueError(
      fmt::format("{} is too large: {} bytes, at most {}", label, body.size(), MANIFEST_BYTES_LIMIT));
}

Document parse_document(std::string_view body, const std::string& label) {
  try {
    return parse_strict_json(body);
  } catch (const ValueError& failure) {
    throw ManifestJsonError(fmt::format("{} is not valid JSON: {}", label, failure.what()));
  }
}

}  // namespace

Document parse_distribution_manifest_bytes(std::string_view body, const std::string& label) {
  require_size(body, label);
  Document document = parse_document(body, label);
  if (!document.is_object()) throw ValueError(fmt::format("{} must contain a JSON object", label));
  if (const Document* files = find_member(document, "files")) validate_files(*files, label);
  return document;
}

SharedManifest parse_distribution_manifest(std::shared_ptr<const std::string> body,
                                           const std::string& label) {
  require_size(*body, label);
  auto manifest = text::is_valid_utf8(*body) ? ParsedManifest::of_plain_text(body) : nullptr;
  if (!manifest)
    return std::make_shared<const ParsedManifest>(parse_distribution_manifest_bytes(*body, label));
  validate_entries(manifest->entries(), label);
  return manifest;
}

void check_manifest_relative_path(std::string_view path) { validate_path(path); }

const std::string& validate_manifest_relative_path(const std::string& path) {
  validate_path(path);
  return path;
}

std::string validate_manifest_relative_path(const Document& path) {
  if (!path.is_string()) {
    throw TypeError(fmt::format("path must be a string, got {}", text::type_name(path)));
  }
  return validate_manifest_relative_path(path.get_ref<const std::string&>());
}

std::optional<std::string> validate_signals_index_manifest_declaration(const ParsedManifest& manifest) {
  const Document* declaration = find_member(manifest.head(), "signals_index");
  if (declaration == nullptr || declaration->is_null()) return std::nullopt;
  if (!declaration->is_object()) {
    throw TypeError(
        fmt::format("manifest signals_index must be a JSON object, got {}", text::type_name(*declaration)));
  }
  const Document* path = find_member(*declaration, "path");
  if (path == nullptr || !path->is_string()) throw TypeError("manifest signals_index.path must be a string");
  const std::string& relative_path = path->get_ref<const std::string&>();
  try {
    validate_path(relative_path);
  } catch (const ValueError& failure) {
    throw ValueError(fmt::format("manifest signals_index.path {} is invalid: {}", text::repr(relative_path),
                                 failure.what()));
  }
  const Document* schema = find_member(*declaration, "schema_version");
  if (schema == nullptr || !schema->is_number_integer() || *schema != 1) {
    throw ValueError(fmt::format("manifest signals_index.schema_version must be 1, got {}",
                                 schema == nullptr ? "None" : text::repr(*schema)));
  }
  const auto entry = manifest.entries().find(relative_path);
  if (entry && entry->text("kind") != "signals_index") {
    throw ValueError(fmt::format("manifest files[{}].kind must be signals_index", text::repr(relative_path)));
  }
  return relative_path;
}

}  // namespace tidalcrest::sync::client_manifest
