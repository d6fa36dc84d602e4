#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tidalcrest/sync/manifest_entries.hpp"

namespace tidalcrest::sync::artifact_rotation {

/// The kinds that count as feature artifacts.
const std::set<std::string>& FEATURE_ARTIFACT_KINDS();

/// What rotation knows of one file. Unknown texts are empty, an unknown size is 0.
struct ArtifactDescriptor {
  std::string relative_path;
  std::string kind;
  std::string artifact_kind;
  std::int64_t size_bytes = 0;
  bool mandatory = false;  ///< always held; never chosen, never left out
  std::string market;
  std::string named_universe;
  std::string family;
  std::string subfamily;
};

/// Descriptors are made once per manifest and shared by every list that names them. Never null.
using Artifact = std::shared_ptr<const ArtifactDescriptor>;
using Artifacts = std::vector<Artifact>;

/// The entry's `kind` when that is a string, else empty.
std::string_view manifest_file_kind(const FileEntry& file_info);
/// The entry's own `mandatory` when it is a boolean, else everything that is not a feature is mandatory. The
/// entry's own `family` and `subfamily`, else the first two `__` segments of a file stem of at least four.
ArtifactDescriptor artifact_descriptor_from_manifest_file(std::string_view file_path,
                                                          const FileEntry& file_info,
                                                          const std::set<std::string>& feature_kinds);

/// Whether the artifact serves the universe: it is its own, or it belongs to none (a file straight below an
/// epoch's directory, or one that names no universe).
bool serves_named_universe(const ArtifactDescriptor& artifact, const std::string& named_universe);
/// The middle segment of exactly `named_universes/{universe}/vocabulary.json`, as written.
std::optional<std::string> vocabulary_named_universe_from_path(std::string_view relative_path);

}  // namespace tidalcrest::sync::artifact_rotation
