#include "manifest/persistence.hpp"

#include <fmt/format.h>

#include <utility>

#include "download/local_files.hpp"
#include "host/digest.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/local_path.hpp"
#include "host/log.hpp"
#include "host/text.hpp"
#include "host/unusable.hpp"
#include "manifest/as_manifest_error.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/manifest_document.hpp"
#include "siblings/distribution/parsed_manifests.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

// Absent when the root manifest cannot be read.
std::optional<std::string> local_manifest_sha256(const std::string& data_dir) {
  try {
    return client_manifest::hash_contained_regular_file(data_dir, "manifest.json", "local manifest.json",
                                                        SYNC_HASH_FILE_CHUNK_BYTES);
  } catch (const OSError&) {
    return std::nullopt;  // advisory: without a manifest there is nothing to speak of
  }
}

struct RecordedGeneration {
  std::int64_t version;
  std::int64_t era_number;
};

// Absent as a whole when either number is missing or is none.
std::optional<RecordedGeneration> recorded_generation(const Document& metadata) {
  const Document* version = find_member(metadata, "version");
  const Document* era_number = find_member(metadata, "era_number");
  if (version == nullptr || era_number == nullptr) return std::nullopt;
  const auto version_number = try_int(*version);
  const auto era = try_int(*era_number);
  if (!version_number || !era) return std::nullopt;
  return RecordedGeneration{*version_number, *era};
}

bool is_recorded_server_hash(const Document& metadata, const std::string& hint) {
  for (const char* key : {"server_manifest_sha256", "server_manifest_body_sha256"}) {
    const Document* known = find_member(metadata, key);
    if (known != nullptr && text::truthy(*known) && text::str(*known) == hint) return true;
  }
  return false;
}

}  // namespace

std::string _manifest_sync_metadata_path(const std::string& data_dir) {
  return join_path(data_dir, MANIFEST_SYNC_METADATA_FILENAME);
}

Document _load_manifest_sync_metadata(const std::string& data_dir) {
  try {
    const auto bytes = client_manifest::read_contained_regular_file_if_present(
        data_dir, MANIFEST_SYNC_METADATA_FILENAME, "manifest sync metadata");
    if (!bytes) return Document::object();
    Document metadata = parse_json(*bytes);
    return metadata.is_object() ? metadata : Document::object();
  } catch (const std::exception& failure) {
    log::debug("manifest sync metadata of %s reads as empty: %s", data_dir, failure.what());
    return Document::object();
  }
}

void _write_manifest_sync_metadata(const std::string& data_dir, const Document& manifest_data,
                                   const Seams& seams,
                                   const std::optional<std::string>& server_manifest_sha256,
                                   const std::optional<std::string>& server_manifest_body_sha256) {
  const auto local_sha256 = local_manifest_sha256(data_dir);
  if (!local_sha256) return;
  const Document metadata = {
      {"version", int_or_zero(member_or_null(manifest_data, "version"))},
      {"era_number", int_or_zero(member_or_null(manifest_data, "era_number"))},
      {"server_manifest_sha256", server_manifest_sha256.value_or("")},
      {"server_manifest_body_sha256", server_manifest_body_sha256.value_or("")},
      {"local_manifest_sha256", *local_sha256},
      {"updated_at", seams.wall_seconds()},
  };
  _atomic_write(_manifest_sync_metadata_path(data_dir), dump_json(metadata, {.sort_keys = true}));
}

bool _manifest_hash_hint_matches_local_state(const std::string& data_dir, std::int64_t local_version,
                                             std::int64_t local_era_number,
                                             const Document& server_manifest_sha_hint) {
  if (!text::truthy(server_manifest_sha_hint)) return true;  // nothing to compare
  const std::string hint = text::str(server_manifest_sha_hint);
  const auto local_sha256 = local_manifest_sha256(data_dir);
  if (!local_sha256) return false;
  const Document metadata = _load_manifest_sync_metadata(data_dir);
  const auto recorded = recorded_generation(metadata);
  if (recorded && recorded->version == local_version && recorded->era_number == local_era_number &&
      is_recorded_server_hash(metadata, hint)) {
    // Proves that the file is the one that the recorded server hash spoke of.
    const Document* recorded_local = find_member(metadata, "local_manifest_sha256");
    return recorded_local != nullptr && *recorded_local == *local_sha256;
  }
  return *local_sha256 == hint;
}

void _write_manifest_json(const std::string& data_dir, const Document& manifest_data, const Seams& seams,
                          const std::optional<std::string>& server_manifest_sha256,
                          const std::optional<std::string>& server_manifest_body_sha256) {
  _atomic_write(join_path(data_dir, "manifest.json"), dump_json(manifest_data));
  const auto given = [](const std::optional<std::string>& hash) { return hash && !hash->empty(); };
  if (!given(server_manifest_sha256) && !given(server_manifest_body_sha256)) return;
  _write_manifest_sync_metadata(data_dir, manifest_data, seams, server_manifest_sha256,
                                server_manifest_body_sha256);
}

Document _parse_full_distribution_manifest_bytes(std::string_view body, const std::string& label) {
  return as_manifest_error([&] { return client_manifest::parse_distribution_manifest_bytes(body, label); });
}

SharedManifest _parse_full_distribution_manifest(std::shared_ptr<const std::string> body,
                                                 const std::string& label) {
  return as_manifest_error(
      [&] { return client_manifest::parse_distribution_manifest(std::move(body), label); });
}

SharedManifest _shared_full_distribution_manifest(const std::shared_ptr<const std::string>& body,
                                                  const std::string& label) {
  return as_manifest_error([&] { return client_manifest::shared_manifest(body, sha256_hex(*body), label); });
}

Document _read_distribution_manifest_file(const std::string& path, const std::string& label) {
  const auto read = [&] {
    const auto unreadable = [&label](const std::exception& failure) {
      return ManifestError(fmt::format("Unable to read {}: {}", label, failure.what()));
    };
    try {
      return client_manifest::read_regular_file_path(path, label);
    } catch (const Failure& failure) {
      if (!is_unusable(failure)) throw;
      throw unreadable(failure);
    }
  };
  return _parse_full_distribution_manifest_bytes(read(), label);
}

}  // namespace tidalcrest::sync
