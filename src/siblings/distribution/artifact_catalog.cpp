#include "siblings/distribution/artifact_catalog.hpp"

#include <algorithm>
#include <deque>
#include <iterator>
#include <utility>
#include <vector>

namespace tidalcrest::sync::artifact_rotation {
namespace {

constexpr std::ptrdiff_t RECENT_TEXTS = 8;  // more than one artifact has

}  // namespace

struct ArtifactCatalog::Contents {
  SharedManifest manifest;
  std::deque<std::string> texts;  // does not move what it holds when it grows
  std::vector<ArtifactDescriptor> descriptors;
};

ArtifactCatalog::ArtifactCatalog(SharedManifest manifest, std::size_t expected)
    : _contents(std::make_shared<Contents>()) {
  _contents->manifest = std::move(manifest);
  _contents->descriptors.reserve(expected);
}

ArtifactDescriptor& ArtifactCatalog::add(std::string_view file_path, const FileEntry& file_info) {
  return _contents->descriptors.emplace_back(
      artifact_descriptor_from_manifest_file(file_path, file_info, FEATURE_ARTIFACT_KINDS()));
}

ArtifactDescriptor& ArtifactCatalog::add_copy(std::string_view file_path, const FileEntry& file_info) {
  ArtifactDescriptor& artifact = add(file_path, file_info);
  for (std::string_view* text :
       {&artifact.relative_path, &artifact.kind, &artifact.artifact_kind, &artifact.market,
        &artifact.named_universe, &artifact.family, &artifact.subfamily}) {
    *text = keep(*text);
  }
  return artifact;
}

std::string_view ArtifactCatalog::keep(std::string_view text) {
  auto& texts = _contents->texts;
  // Neighbours mostly say the same.
  const auto recent = texts.end() - std::min<std::ptrdiff_t>(RECENT_TEXTS, std::ssize(texts));
  const auto known = std::find(recent, texts.end(), text);
  return known != texts.end() ? *known : texts.emplace_back(text);
}

Artifacts ArtifactCatalog::artifacts() && {
  const std::shared_ptr<const Contents> contents = std::move(_contents);
  Artifacts artifacts;
  artifacts.reserve(contents->descriptors.size());
  for (const auto& descriptor : contents->descriptors) artifacts.emplace_back(contents, &descriptor);
  return artifacts;
}

}  // namespace tidalcrest::sync::artifact_rotation
