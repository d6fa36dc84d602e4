#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "siblings/distribution/artifact_rotation_descriptors.hpp"
#include "siblings/distribution/parsed_manifest.hpp"

namespace tidalcrest::sync::artifact_rotation {

/// Makes the artifacts of one manifest, in one piece of memory with all that their texts refer to: every
/// artifact keeps the whole of it alive. Not thread-safe while it is filled.
class ArtifactCatalog {
 public:
  /// `manifest` may be null; `expected` artifacts get their memory at once.
  explicit ArtifactCatalog(SharedManifest manifest, std::size_t expected = 0);

  /// Texts and entries that are not the manifest's own, for as long as any artifact.
  std::string_view keep(std::string text);
  FileEntry keep(Document entry);

  /// The path and the entry are the manifest's own, or kept. The reference is good until the next one is
  /// added.
  ArtifactDescriptor& add(std::string_view file_path, const FileEntry& file_info,
                          const KindSet& feature_kinds = FEATURE_ARTIFACT_KINDS());
  /// In the order in which they were added.
  Artifacts artifacts() const;

 private:
  struct Contents;
  std::shared_ptr<Contents> _contents;
};

}  // namespace tidalcrest::sync::artifact_rotation
