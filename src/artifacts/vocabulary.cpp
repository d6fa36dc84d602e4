#include "artifacts/vocabulary.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <utility>

#include "artifacts/functions_file.hpp"
#include "artifacts/manifest_entry.hpp"
#include "artifacts/retired_tokens.hpp"
#include "artifacts/wrapped_failures.hpp"
#include "host/digest.hpp"
#include "host/equality.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "manifest/paths.hpp"
#include "siblings/distribution/artifact_rotation.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/functions/vocabulary.hpp"
#include "siblings/simulation/named_universe.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* REQUIRED_KEYS[] = {"era_number", "features", "metadata", "named_universe"};  // sorted

void require_keys(const Document& vocabulary) {
  std::vector<std::string> missing;
  for (const char* const key : REQUIRED_KEYS) {
    if (!find_member(vocabulary, key)) missing.emplace_back(key);
  }
  if (missing.empty()) return;
  throw SyncError(fmt::format("vocabulary.json missing required keys: {}", text::list_text(missing)));
}

void require_era(const Document& vocabulary, std::int64_t expected_era_number) {
  const Document& era_number = *find_member(vocabulary, "era_number");
  if (host_equal(era_number, expected_era_number)) return;
  throw EraError(fmt::format("vocabulary.json era_number={} does not match manifest era_number={}",
                             text::str(era_number), expected_era_number));
}

void require_universe(const Document* declared, const std::string& expected_universe, const char* label) {
  if (declared && host_equal(*declared, expected_universe)) return;
  throw SyncError(fmt::format("vocabulary.json {} does not match manifest path {}", label,
                              text::repr(expected_universe)));
}

// Every test of a vocabulary, without copying it.
void check_vocabulary(const Document& vocabulary, std::int64_t expected_era_number,
                      const std::optional<std::string>& named_universe) {
  if (!vocabulary.is_object()) throw SyncError("vocabulary.json must contain a JSON object");
  require_keys(vocabulary);
  require_era(vocabulary, expected_era_number);
  const Document& metadata = *find_member(vocabulary, "metadata");
  if (!metadata.is_object()) throw SyncError("vocabulary.json metadata must be an object");
  const Document* const own_universe = find_member(vocabulary, "named_universe");
  const std::string expected_universe =
      named_universe ? _validate_named_universe(*named_universe) : _validate_named_universe(*own_universe);
  require_universe(own_universe, expected_universe, "named_universe");
  require_universe(find_member(metadata, "named_universe"), expected_universe, "metadata.named_universe");
  _validate_no_retired_function_tokens(vocabulary);
}

Document parse_vocabulary(std::string_view data) {
  try {
    return parse_json(data);
  } catch (const std::exception& failure) {
    throw SyncError(fmt::format("vocabulary.json is not valid JSON: {}", failure.what()));
  }
}

std::string read_vocabulary(const std::string& data_dir, const std::string& file_path) {
  return wrap_unusable("vocabulary.json is not readable", [&] {
    try {
      return client_manifest::read_contained_regular_file(data_dir, file_path, "vocabulary file");
    } catch (const FileNotFoundError&) {
      throw SyncError("vocabulary.json is missing");
    }
  });
}

}  // namespace

std::vector<std::string> _iter_vocabulary_entry_names(const Document& value) {
  std::vector<std::string> names;
  _walk_vocabulary_entry_names(value, [&names](const std::string& name) { names.push_back(name); });
  return names;
}

std::string _validate_named_universe(const Document& named_universe) {
  std::string universe = _normalize_named_universe(named_universe);
  if (universe.empty()) throw SyncError("named_universe is required");
  if (_is_unsafe_named_universe(universe)) {
    throw SyncError(
        fmt::format("named_universe must be a single safe path segment: {}", text::repr(named_universe)));
  }
  return universe;
}

std::optional<std::string> _vocabulary_named_universe_from_path(std::string_view file_path) {
  // A valid path is its own normal form, so the cheap question can come first: nearly no path of a manifest
  // is a vocabulary's, and a path is only worth validating when it is.
  const auto universe = artifact_rotation::vocabulary_named_universe_from_path(file_path);
  if (!universe) return std::nullopt;
  try {
    _safe_manifest_relative_path(std::string(file_path));
  } catch (const ManifestError&) {
    return std::nullopt;
  }
  return _validate_named_universe(*universe);
}

std::vector<std::string> _vocabulary_manifest_paths(const Manifest& manifest) {
  std::vector<std::string> paths;
  for (const auto& [path, entry] : manifest.entries()) {
    if (_vocabulary_named_universe_from_path(path)) paths.emplace_back(path);
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

std::vector<std::string> _require_vocabulary_manifest_paths(const Manifest& manifest) {
  std::vector<std::string> paths = _vocabulary_manifest_paths(manifest);
  if (paths.empty()) throw SyncError("manifest is missing per-universe vocabulary.json entries");
  return paths;
}

Document _validate_vocabulary_data(const Document& vocabulary, std::int64_t expected_era_number,
                                   const std::optional<std::string>& named_universe) {
  check_vocabulary(vocabulary, expected_era_number, named_universe);
  return vocabulary;
}

Document _validate_vocabulary_bytes(std::string_view data, std::int64_t expected_era_number,
                                    const std::optional<std::string>& named_universe) {
  Document vocabulary = parse_vocabulary(data);
  check_vocabulary(vocabulary, expected_era_number, named_universe);
  return vocabulary;
}

Vocabularies _validate_manifest_vocabulary_files(const std::string& data_dir, const Manifest& manifest) {
  const std::vector<std::string> paths = _require_vocabulary_manifest_paths(manifest);
  const Document functions = _validate_functions_file(data_dir, manifest);
  Vocabularies vocabularies = Document::object();
  for (const std::string& file_path : paths) {
    const std::string universe = *_vocabulary_named_universe_from_path(file_path);
    const std::string bytes = read_vocabulary(data_dir, file_path);
    const std::string expected_sha = ManifestEntry(manifest, file_path).text("sha256");
    if (expected_sha.empty()) {
      throw SyncError(fmt::format("manifest files[\"{}\"].sha256 is required", file_path));
    }
    if (sha256_hex(bytes) != expected_sha) throw IntegrityError(file_path + " sha256 mismatch");
    const std::int64_t era_number = to_int(manifest.era_number());
    const Document vocabulary = _validate_vocabulary_bytes(bytes, era_number, universe);
    vocabularies[universe] = merge_functions_vocabulary(functions, vocabulary, universe, era_number);
  }
  return vocabularies;
}

Document _first_vocabulary_metadata(const Vocabularies& vocabularies) {
  for (const auto& [universe, vocabulary] : vocabularies.get_ref<const Document::object_t&>()) {
    if (!vocabulary.is_object()) continue;
    const Document* const metadata = find_member(vocabulary, "metadata");
    if (!metadata) return Document::object();
    if (metadata->is_object()) return *metadata;
  }
  return Document::object();
}

}  // namespace tidalcrest::sync
