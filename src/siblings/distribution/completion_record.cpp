#include "siblings/distribution/completion_record.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

#include "host/digest.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "host/text_scanner.hpp"
#include "siblings/distribution/manifest_document.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::local_cohort {
namespace {

constexpr std::int64_t SCHEMA_VERSION = 1;

const Document& member(const Document& record, const char* key) {
  const Document* value = find_member(record, key);
  if (value == nullptr) throw ValueError(fmt::format("completion record has no {}", key));
  return *value;
}

// Nothing here is a fraction: 1.0 is no schema version, though the two numbers compare equal.
void require_equal(const Document& record, const char* key, const Document& expected) {
  const Document& value = member(record, key);
  const bool same_kind = value.type_name() == expected.type_name() && !value.is_number_float();
  if (same_kind && value == expected) return;
  throw ValueError(
      fmt::format("completion record {} is {}, expected {}", key, text::repr(value), text::repr(expected)));
}

ArtifactIdentity parse_identity(const std::string& path, const Document& value) {
  const Document* sha256 = find_member(value, "sha256");
  const Document* size = find_member(value, "size_bytes");
  if (sha256 == nullptr || size == nullptr || !sha256->is_string() || !size->is_number_integer()) {
    throw ValueError("completion record has a bad artifact identity for " + text::repr(path));
  }
  ArtifactIdentity identity{sha256->get<std::string>(), size->get<std::int64_t>()};
  if (!is_sha256_text(identity.sha256) || identity.size_bytes < 0) {
    throw ValueError("completion record has a bad artifact identity for " + text::repr(path));
  }
  return identity;
}

ArtifactIdentities parse_identities(const Document& value) {
  if (!value.is_object()) throw ValueError("completion record artifact_identities is not an object");
  ArtifactIdentities identities;
  for (const auto& [path, identity] : value.get_ref<const Document::object_t&>()) {
    identities.emplace(client_manifest::validate_manifest_relative_path(path),
                       parse_identity(path, identity));
  }
  return identities;
}

std::vector<std::string> parse_active_paths(const Document& value, const ArtifactIdentities& identities) {
  if (!value.is_array()) throw ValueError("completion record active_relative_paths is not a list");
  std::vector<std::string> paths;
  paths.reserve(value.size());
  for (const Document& item : value) {
    if (!item.is_string()) throw ValueError("completion record active_relative_paths holds what is no path");
    const auto& path = item.get_ref<const std::string&>();
    if (!identities.contains(path))
      throw ValueError("completion record has no identity for " + text::repr(path));
    paths.push_back(path);
  }
  return paths;
}

void require_heading(const Document& record, const std::string& manifest_sha256,
                     std::size_t manifest_size_bytes) {
  require_equal(record, "schema_version", SCHEMA_VERSION);
  require_equal(record, "manifest_sha256", manifest_sha256);
  require_equal(record, "manifest_size_bytes", manifest_size_bytes);
  if (!member(record, "derived_artifacts").is_object()) {
    throw ValueError("completion record derived_artifacts is not an object");
  }
}

bool take_paths(TextScanner& scanner, std::vector<std::string_view>& paths) {
  if (scanner.rest().starts_with(']')) return true;
  do {
    const auto path = scanner.take_quoted();
    if (!path) return false;
    paths.push_back(*path);
  } while (scanner.take(","));
  return true;
}

// Sorted keys, so that none stands there twice.
bool take_identities(TextScanner& scanner, std::vector<RecordedIdentity>& identities) {
  if (scanner.rest().starts_with('}')) return true;
  do {
    const auto path = scanner.take_quoted();
    if (!path || !scanner.take(":{\"sha256\":")) return false;
    const auto sha256 = scanner.take_quoted();
    if (!sha256 || !scanner.take(",\"size_bytes\":")) return false;
    const auto size = scanner.take_integer();
    if (!size || *size < 0 || !scanner.take("}")) return false;
    if (!identities.empty() && identities.back().path >= *path) return false;
    if (!is_sha256_text(*sha256)) return false;
    client_manifest::check_manifest_relative_path(*path);
    identities.push_back({*path, *sha256, *size});
  } while (scanner.take(","));
  return true;
}

// The active paths mostly follow the order of the identities, so the next one is tried before a search.
bool knows_all_paths(const CompletedMembers& members) {
  const auto& identities = members.artifact_identities;
  std::size_t next = 0;
  return std::all_of(members.active_relative_paths.begin(), members.active_relative_paths.end(),
                     [&](std::string_view path) {
                       if (next == identities.size() || identities[next].path != path) {
                         const RecordedIdentity* identity = members.find(path);
                         if (identity == nullptr) return false;
                         next = static_cast<std::size_t>(identity - identities.data());
                       }
                       ++next;
                       return true;
                     });
}

constexpr std::size_t SHORT_MEMBERS_BYTES = 4096;  // mostly enough for what follows the two long members

// At least what `members_text` writes.
std::size_t members_bytes(const std::vector<std::string>& active_relative_paths,
                          const ArtifactIdentities& artifact_identities) {
  constexpr std::size_t quoted = 3;            // two quotes and a comma
  constexpr std::size_t identity_bytes = 120;  // a digest, the digits of a size, and two names
  std::size_t bytes = 64;
  for (const auto& path : active_relative_paths) bytes += path.size() + quoted;
  for (const auto& [path, identity] : artifact_identities) bytes += path.size() + identity_bytes;
  return bytes;
}

// The two members of a record that grow with the generation, as they stand at its begin.
std::string members_text(const std::vector<std::string>& active_relative_paths,
                         const ArtifactIdentities& artifact_identities) {
  // Written as it goes: a document of it would hold a large generation once more. Paths need no escape.
  std::string bytes = "{\"active_relative_paths\":[";
  bytes.reserve(members_bytes(active_relative_paths, artifact_identities) + SHORT_MEMBERS_BYTES);
  const char* separator = "";
  for (const auto& path : active_relative_paths)
    fmt::format_to(std::back_inserter(bytes), "{}\"{}\"", std::exchange(separator, ","), path);
  bytes += "],\"artifact_identities\":{";
  separator = "";
  for (const auto& [path, identity] : artifact_identities) {
    fmt::format_to(std::back_inserter(bytes), R"({}"{}":{{"sha256":"{}","size_bytes":{}}})",
                   std::exchange(separator, ","), path, identity.sha256, identity.size_bytes);
  }
  bytes += "}";
  return bytes;
}

bool take_members(TextScanner& scanner, CompletedMembers& members) {
  return scanner.take("{\"active_relative_paths\":[") && take_paths(scanner, members.active_relative_paths) &&
         scanner.take("],\"artifact_identities\":{") &&
         take_identities(scanner, members.artifact_identities) && scanner.take("}") &&
         knows_all_paths(members);
}

struct SplitRecord {
  CompletedMembers members;
  Document short_members;
};

// Reads a record whose long members are exactly as `build_completion_payload` wrote them, absent for any
// other. Every process that opens a cohort reads its record, and as any JSON it costs several times as much.
std::optional<SplitRecord> split_own_form(std::shared_ptr<const std::string> bytes) try {
  TextScanner scanner(*bytes);
  SplitRecord record;
  if (!take_members(scanner, record.members) || !scanner.take(",")) return std::nullopt;
  record.short_members = parse_strict_json(fmt::format("{{{}", scanner.rest()));
  const bool repeats_a_key = record.short_members.contains("active_relative_paths") ||
                             record.short_members.contains("artifact_identities");
  if (repeats_a_key) return std::nullopt;
  record.members.record = bytes;
  record.members.text = std::move(bytes);
  return record;
} catch (const ValueError&) {
  return std::nullopt;  // read as any JSON, the record tells its first fault
}

}  // namespace

CompletionRecord build_completion_payload(const std::string& manifest_bytes,
                                          const std::vector<std::string>& active_relative_paths,
                                          const ArtifactIdentities& artifact_identities,
                                          const std::map<std::string, Document>& derived_artifacts) {
  for (const auto& path : active_relative_paths) {
    if (!artifact_identities.contains(path)) throw ValueError("no artifact identity for " + text::repr(path));
  }
  for (const auto& [path, identity] : artifact_identities) {
    client_manifest::validate_manifest_relative_path(path);
    if (!is_sha256_text(identity.sha256) || identity.size_bytes < 0) {
      throw ValueError("bad artifact identity for " + text::repr(path));
    }
  }
  Document derived = Document::object();
  for (const auto& [path, mapping] : derived_artifacts) derived[path] = mapping;
  std::string bytes = members_text(active_relative_paths, artifact_identities);
  fmt::format_to(
      std::back_inserter(bytes),
      R"(,"derived_artifacts":{},"manifest_sha256":"{}","manifest_size_bytes":{},"schema_version":{}}})",
      dump_json(derived, {.sort_keys = true, .compact = true}), sha256_hex(manifest_bytes),
      manifest_bytes.size(), SCHEMA_VERSION);
  return {std::move(bytes)};
}

const RecordedIdentity* CompletedMembers::find(std::string_view path) const {
  const auto found =
      std::lower_bound(artifact_identities.begin(), artifact_identities.end(), path,
                       [](const auto& identity, auto wanted) { return identity.path < wanted; });
  return found != artifact_identities.end() && found->path == path ? &*found : nullptr;
}

CompletedMembers parse_completion_record(std::string bytes, const std::string& manifest_sha256,
                                         std::size_t manifest_size_bytes) {
  auto exact = std::make_shared<const std::string>(std::move(bytes));
  if (auto own = split_own_form(exact)) {
    require_heading(own->short_members, manifest_sha256, manifest_size_bytes);
    return std::move(own->members);
  }
  const Document record = parse_strict_json(*exact);
  if (!record.is_object()) throw ValueError("completion record is not an object");
  require_heading(record, manifest_sha256, manifest_size_bytes);
  const ArtifactIdentities identities = parse_identities(member(record, "artifact_identities"));
  const auto paths = parse_active_paths(member(record, "active_relative_paths"), identities);
  CompletedMembers members;
  members.record = std::move(exact);
  members.text = std::make_shared<const std::string>(members_text(paths, identities));
  TextScanner scanner(*members.text);
  take_members(scanner, members);
  return members;
}

}  // namespace tidalcrest::sync::local_cohort
