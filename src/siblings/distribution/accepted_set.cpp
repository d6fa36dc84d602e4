#include "siblings/distribution/accepted_set.hpp"

#include <fmt/format.h>

#include <functional>

#include "host/digest.hpp"
#include "host/equality.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "manifest/sanitising.hpp"
#include "rotation/exclusion.hpp"
#include "siblings/distribution/manifest_document.hpp"
#include "siblings/distribution/pinned_root.hpp"
#include "siblings/distribution/sync_progress.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

using Visit = std::function<void(const std::string& path)>;

std::string declared_path(const ParsedManifest& manifest) {
  auto path = validate_signals_index_manifest_declaration(manifest);
  if (!path) throw ValueError("manifest declares no signals_index");
  return *std::move(path);
}

// The first two checks prove the bytes; only their texts hold the phrases that stand for a damaged transfer.
void check_bytes(const FileEntry& entry, const std::string& path, std::string_view body) {
  const auto [size_known, expected_size] = manifest_file_size(entry);
  if (!size_known)
    throw ValueError(fmt::format("manifest files[{}].size_bytes is required", text::repr(path)));
  if (static_cast<std::uint64_t>(expected_size) != body.size()) {
    throw ValueError(fmt::format("signals_index sidecar size mismatch: expected {} bytes, got {}",
                                 expected_size, body.size()));
  }
  const auto sha256 = entry.text("sha256");
  if (!sha256) {
    throw ValueError(fmt::format("manifest files[{}].sha256 is required", text::repr(path)));
  }
  const std::string actual = sha256_hex(body);
  if (*sha256 != actual) {
    throw ValueError(
        fmt::format("signals_index sidecar sha256 mismatch: expected {}, got {}", *sha256, actual));
  }
}

Document parse_index(std::string_view body) {
  Document index;
  try {
    index = parse_strict_json(body);
  } catch (const ValueError& failure) {
    throw ValueError(fmt::format("signals_index is not valid JSON: {}", failure.what()));
  }
  if (!index.is_object()) throw TypeError("signals_index must contain a JSON object");
  const Document* schema = find_member(index, "schema_version");
  if (schema == nullptr || !schema->is_number_integer() || *schema != 1) {
    throw ValueError(fmt::format("signals_index schema_version must be 1, got {}",
                                 schema == nullptr ? "None" : text::repr(*schema)));
  }
  return index;
}

void check_identity(const Document& index, const Document& manifest, const char* key) {
  const Document* found = find_member(index, key);
  const Document* expected = find_member(manifest, key);
  if (found == nullptr || expected == nullptr || !host_equal(*found, *expected)) {
    throw ValueError(fmt::format("signals_index {}={} does not match manifest {}={}", key,
                                 text::repr(member_or_null(index, key)), key,
                                 text::repr(member_or_null(manifest, key))));
  }
}

// Calls `visit` with each path that the entries of one section list, after checking the section's shape.
void for_each_member(const Document& index, const std::string& section, const Visit& visit) {
  const Document* entries = find_member(index, section);
  if (entries == nullptr || !entries->is_object()) {
    throw TypeError(fmt::format("signals_index {} must be a JSON object", section));
  }
  for (const auto& [id, entry] : entries->get_ref<const Document::object_t&>()) {
    if (!entry.is_object()) {
      throw TypeError(fmt::format("signals_index {}[{}] must be a JSON object", section, text::repr(id)));
    }
    const Document* files = find_member(entry, "files");
    if (files == nullptr) continue;
    if (!files->is_array()) {
      throw TypeError(fmt::format("signals_index {}[{}].files must be a list", section, text::repr(id)));
    }
    for (const Document& path : *files) {
      if (!path.is_string()) {
        throw TypeError(fmt::format("signals_index {}[{}].files holds a path that is no string: {}", section,
                                    text::repr(id), text::repr(path)));
      }
      visit(path.get_ref<const std::string&>());
    }
  }
}

Visit valid_path_of(const std::string& section) {
  return [section](const std::string& path) {
    try {
      validate_manifest_relative_path(path);
    } catch (const ValueError& failure) {
      throw ValueError(fmt::format("signals_index {} lists an invalid path {}: {}", section, text::repr(path),
                                   failure.what()));
    }
  };
}

Visit known_path_of(const std::string& section, const ManifestEntries& entries) {
  return [section, valid = valid_path_of(section), &entries](const std::string& path) {
    valid(path);
    if (!entries.contains(path) && !_is_retired_found_pnl_long_file(path)) {
      throw ValueError(
          fmt::format("signals_index {} lists {}, which the manifest does not", section, text::repr(path)));
    }
  };
}

}  // namespace

AcceptedSet validate_accepted_distribution_set(const ParsedManifest& manifest, std::string_view body) {
  const std::string path = declared_path(manifest);
  const auto entry = manifest.entries().find(path);
  if (!entry) throw ValueError(fmt::format("manifest files has no entry for {}", text::repr(path)));
  check_bytes(*entry, path, body);
  Document index = parse_index(body);
  check_identity(index, manifest.head(), "era_number");
  check_identity(index, manifest.head(), "market_id");
  for_each_member(index, "found_signals", known_path_of("found_signals", manifest.entries()));
  for_each_member(index, "found_strategies", known_path_of("found_strategies", manifest.entries()));
  for_each_member(index, "useful_signals", valid_path_of("useful_signals"));
  return {std::move(index)};
}

AcceptedSet load_accepted_distribution_set(const std::string& data_dir, const ParsedManifest& manifest) {
  const std::string sidecar_path = declared_path(manifest);
  const PinnedRoot root(data_dir);
  AcceptedSet accepted = validate_accepted_distribution_set(
      manifest, root.read_regular_file(sidecar_path, "signals_index sidecar"));
  const Visit require_member = [&](const std::string& path) {
    const auto entry = manifest.entries().find(path);
    if (!entry || _manifest_file_is_sync_excluded(*entry)) return;
    root.stat_regular_file(path, "accepted set member");
  };
  for_each_member(accepted.signals_index_document, "found_signals", require_member);
  for_each_member(accepted.signals_index_document, "found_strategies", require_member);
  return accepted;
}

}  // namespace tidalcrest::sync::client_manifest
