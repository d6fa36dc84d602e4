#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "siblings/distribution/artifact_rotation_descriptors.hpp"
#include "siblings/distribution/parsed_manifest.hpp"

namespace tidalcrest::sync::artifact_rotation {

/// Makes artifacts of one manifest, in one piece of memory with all that their texts refer to: every artifact
/// keeps the whole of it alive. Not thread-safe.
class ArtifactCatalog {
 public:
  /// `manifest` may be null; `expected` artifacts get their memory at once.
  explicit ArtifactCatalog(SharedManifest manifest, std::size_t expected = 0);
  ArtifactCatalog(const ArtifactCatalog&) = delete;
  ArtifactCatalog& operator=(const ArtifactCatalog&) = delete;

  /// Adds an artifact whose path and entry are the manifest's own. The reference is good until the next one
  /// is added.
  ArtifactDescriptor& add(std::string_view file_path, const FileEntry& file_info);
  /// The same for a path and an entry that nobody keeps: their texts are copied.
  ArtifactDescriptor& add_copy(std::string_view file_path, const FileEntry& file_info);
  /// A copy of a text, for as long as any artifact.
  std::string_view keep(std::string_view text);

  /// In the order in which they were added; nothing can be added any more.
  Artifacts artifacts() &&;

 private:
  struct Contents;
  std::shared_ptr<Contents> _contents;
};

}  // namespace tidalcrest::sync::artifact_rotation
