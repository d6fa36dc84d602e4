#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/seams.hpp"
#include "siblings/distribution/parsed_manifest.hpp"
#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

inline constexpr const char* MANIFEST_SYNC_METADATA_FILENAME = ".manifest_sync_metadata.json";

// The sync metadata records what the server said about the root `manifest.json`, so that a later version
// probe can be compared with the local state without a fetch. It is advisory: missing, corrupt or stale, it
// costs one fetch and fails nothing. Writers run under the distribution lock; every write is whole.

std::string _manifest_sync_metadata_path(const std::string& data_dir);
/// An empty object for a file that is missing or bad.
Document _load_manifest_sync_metadata(const std::string& data_dir);
/// Writes nothing when the root manifest cannot be read. `SyncError` when the metadata cannot be written.
void _write_manifest_sync_metadata(const std::string& data_dir, const Document& manifest_data,
                                   const Seams& seams,
                                   const std::optional<std::string>& server_manifest_sha256 = {},
                                   const std::optional<std::string>& server_manifest_body_sha256 = {});
/// Whether the root manifest is the one that the server's hash speaks of: by the recorded hashes when they
/// are those of this version and era, by its own digest otherwise. The hint may have any type; an empty one
/// gives true.
bool _manifest_hash_hint_matches_local_state(const std::string& data_dir, std::int64_t local_version,
                                             std::int64_t local_era_number,
                                             const Document& server_manifest_sha_hint);
/// Writes the metadata too when at least one of the hashes is given. `SyncError`.
void _write_manifest_json(const std::string& data_dir, const Document& manifest_data, const Seams& seams,
                          const std::optional<std::string>& server_manifest_sha256 = {},
                          const std::optional<std::string>& server_manifest_body_sha256 = {});
/// All of these name the label in every failure, which is a `ManifestError`.
Document _parse_full_distribution_manifest_bytes(std::string_view body, const std::string& label);
/// The same, kept as its text where that is plain.
SharedManifest _parse_full_distribution_manifest(std::shared_ptr<const std::string> body,
                                                 const std::string& label);
/// The same, without parsing when the manifest of these bytes is still held.
SharedManifest _shared_full_distribution_manifest(const std::shared_ptr<const std::string>& body,
                                                  const std::string& label);
Document _read_distribution_manifest_file(const std::string& path, const std::string& label);

}  // namespace tidalcrest::sync
