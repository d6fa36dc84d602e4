#include "siblings/distribution/artifact_catalog.hpp"

#include <algorithm>
#include <cstddef>
#include <deque>
#include <iterator>
#include <utility>
#include <vector>

namespace tidalcrest::sync::artifact_rotation {
namespace {

constexpr std::ptrdiff_t RECENT_TEXTS = 4;

}  // namespace

struct ArtifactCatalog::Contents {
  SharedManifest manifest;
  std::deque<std::string> texts;  // neither moves what it holds when it grows
  std::deque<Document> entries;
  std::vector<ArtifactDescriptor> descriptors;
};

ArtifactCatalog::ArtifactCatalog(SharedManifest manifest, std::size_t expected)
    : _contents(std::make_shared<Contents>()) {
  _contents->manifest = std::move(manifest);
  _contents->descriptors.reserve(expected);
}

std::string_view ArtifactCatalog::keep(std::string text) {
  auto& texts = _contents->texts;
  // Neighbours mostly say the same.
  const auto recent = texts.end() - std::min<std::ptrdiff_t>(RECENT_TEXTS, std::ssize(texts));
  const auto known = std::find(recent, texts.end(), text);
  return known != texts.end() ? *known : texts.emplace_back(std::move(text));
}

FileEntry ArtifactCatalog::keep(Document entry) { return _contents->entries.emplace_back(std::move(entry)); }

ArtifactDescriptor& ArtifactCatalog::add(std::string_view file_path, const FileEntry& file_info,
                                         const KindSet& feature_kinds) {
  return _contents->descriptors.emplace_back(
      artifact_descriptor_from_manifest_file(file_path, file_info, feature_kinds));
}

Artifacts ArtifactCatalog::artifacts() const {
  Artifacts artifacts;
  artifacts.reserve(_contents->descriptors.size());
  for (const auto& descriptor : _contents->descriptors) artifacts.emplace_back(_contents, &descriptor);
  return artifacts;
}

}  // namespace tidalcrest::sync::artifact_rotation
