#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync::local_cohort {

/// Digest and size of one member, as measured when its generation was completed.
struct ArtifactIdentity {
  std::string sha256;
  std::int64_t size_bytes = 0;
  friend bool operator==(const ArtifactIdentity&, const ArtifactIdentity&) = default;
};
using ArtifactIdentities = std::map<std::string, ArtifactIdentity>;

/// A completion record, opaque to its callers: strict JSON with schema_version, manifest_sha256,
/// manifest_size_bytes, active_relative_paths, artifact_identities and derived_artifacts.
struct CompletionRecord {
  std::string bytes;
};

/// `ValueError` when a path has no identity, or a path or an identity could not be read back.
CompletionRecord build_completion_payload(const std::string& manifest_bytes,
                                          const std::vector<std::string>& active_relative_paths,
                                          const ArtifactIdentities& artifact_identities,
                                          const std::map<std::string, Document>& derived_artifacts);

/// One member as a record names it.
struct RecordedIdentity {
  std::string_view path;
  std::string_view sha256;
  std::int64_t size_bytes = 0;
};

/// What a reader needs of a record. The members of a large generation are many, and every process that opens
/// it reads them, so their texts are views.
struct CompletedMembers {
  std::shared_ptr<const std::string> record;  ///< the exact bytes
  std::shared_ptr<const std::string> text;    ///< what the views go into: the record, or its own form
  std::vector<std::string_view> active_relative_paths;
  std::vector<RecordedIdentity> artifact_identities;  ///< sorted by path, each path once

  /// Null for a path that is no member.
  const RecordedIdentity* find(std::string_view path) const;
};
/// Reads a record back. `ValueError` saying what is wrong: not strict JSON, a wrong shape, another manifest.
CompletedMembers parse_completion_record(std::string bytes, const std::string& manifest_sha256,
                                         std::size_t manifest_size_bytes);

}  // namespace tidalcrest::sync::local_cohort
