#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tidalcrest/sync/manifest_entries.hpp"

namespace tidalcrest::sync::artifact_rotation {

using KindSet = std::set<std::string, std::less<>>;
/// The kinds that count as feature artifacts.
const KindSet& FEATURE_ARTIFACT_KINDS();

/// What rotation knows of one file. Unknown texts are empty, an unknown size is 0. The texts live as long as
/// what the descriptor was made from (see `ArtifactCatalog`).
struct ArtifactDescriptor {
  std::string_view relative_path;
  std::string_view kind;
  std::string_view artifact_kind;
  std::int64_t size_bytes = 0;
  bool mandatory = false;  ///< always held; never chosen, never left out
  std::string_view market;
  std::string_view named_universe;
  std::string_view family;
  std::string_view subfamily;
};

/// Descriptors are made by an `ArtifactCatalog`, for a whole manifest at once, and shared by every list that
/// names them; each keeps what its texts refer to. Never null.
using Artifact = std::shared_ptr<const ArtifactDescriptor>;
using Artifacts = std::vector<Artifact>;

/// The entry's `kind` when that is a string, else empty.
std::string_view manifest_file_kind(const FileEntry& file_info);
/// The entry's own `mandatory` when it is a boolean, else everything that is not a feature is mandatory. The
/// entry's own `family` and `subfamily`, else the first two `__` segments of a file stem of at least four.
ArtifactDescriptor artifact_descriptor_from_manifest_file(std::string_view file_path,
                                                          const FileEntry& file_info,
                                                          const KindSet& feature_kinds);

/// Whether the artifact serves the universe: it is its own, or it belongs to none (a file straight below an
/// epoch's directory, or one that names no universe).
bool serves_named_universe(const ArtifactDescriptor& artifact, std::string_view named_universe);
/// The middle segment of exactly `named_universes/{universe}/vocabulary.json`, as written.
std::optional<std::string> vocabulary_named_universe_from_path(std::string_view relative_path);

}  // namespace tidalcrest::sync::artifact_rotation
