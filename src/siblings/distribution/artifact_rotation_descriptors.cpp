#include "siblings/distribution/artifact_rotation_descriptors.hpp"

#include <string_view>

#include "host/never_destroyed.hpp"
#include "siblings/distribution/sync_progress.hpp"
#include "siblings/era_config/epoch_name.hpp"

namespace tidalcrest::sync::artifact_rotation {
namespace {

std::string_view text_member(const FileEntry& file_info, std::string_view key) {
  return file_info.text(key).value_or(std::string_view());
}

std::string_view file_stem(std::string_view path) {
  path.remove_prefix(path.rfind('/') + 1);  // the whole text when there is no slash
  return path.substr(0, path.rfind('.'));
}

struct FamilyNames {
  std::string_view family;
  std::string_view subfamily;
};

// A stem of fewer than four segments belongs to no family.
FamilyNames family_names_from_stem(std::string_view stem) {
  const auto first = stem.find("__");
  const auto second = first == std::string_view::npos ? first : stem.find("__", first + 2);
  const auto third = second == std::string_view::npos ? second : stem.find("__", second + 2);
  if (third == std::string_view::npos) return {};
  const FamilyNames names{stem.substr(0, first), stem.substr(first + 2, second - first - 2)};
  return names.family.empty() || names.subfamily.empty() ? FamilyNames{} : names;
}

bool is_mandatory(const FileEntry& file_info, std::string_view artifact_kind) {
  const Document own = file_info.value("mandatory");
  return own.is_boolean() ? own.get<bool>() : artifact_kind != "feature";
}

}  // namespace

const KindSet& FEATURE_ARTIFACT_KINDS() {
  static const auto& kinds = never_destroyed<const KindSet>(KindSet{"feature"});
  return kinds;
}

std::string_view manifest_file_kind(const FileEntry& file_info) { return text_member(file_info, "kind"); }

ArtifactDescriptor artifact_descriptor_from_manifest_file(std::string_view file_path,
                                                          const FileEntry& file_info,
                                                          const KindSet& feature_kinds) {
  ArtifactDescriptor artifact;
  artifact.relative_path = file_path;
  artifact.kind = manifest_file_kind(file_info);
  artifact.artifact_kind = text_member(file_info, "artifact_kind");
  if (artifact.artifact_kind.empty()) {
    artifact.artifact_kind = feature_kinds.contains(artifact.kind) ? "feature" : artifact.kind;
  }
  artifact.size_bytes = manifest_file_size(file_info).second;
  artifact.mandatory = is_mandatory(file_info, artifact.artifact_kind);
  artifact.market = text_member(file_info, "market");
  artifact.named_universe = text_member(file_info, "named_universe");
  artifact.family = text_member(file_info, "family");
  artifact.subfamily = text_member(file_info, "subfamily");
  const FamilyNames from_stem = family_names_from_stem(file_stem(file_path));
  if (artifact.family.empty()) artifact.family = from_stem.family;
  if (artifact.subfamily.empty()) artifact.subfamily = from_stem.subfamily;
  return artifact;
}

bool serves_named_universe(const ArtifactDescriptor& artifact, std::string_view named_universe) {
  const std::string_view own = artifact.named_universe;
  return own == named_universe || own.empty() || own == epoch_value(EpochName::SIGNAL_IS) ||
         own == epoch_value(EpochName::STRATEGY_IS);
}

std::optional<std::string> vocabulary_named_universe_from_path(std::string_view relative_path) {
  static constexpr std::string_view prefix = "named_universes/";
  static constexpr std::string_view suffix = "/vocabulary.json";
  std::string_view universe = relative_path;
  if (universe.size() <= prefix.size() + suffix.size()) return std::nullopt;
  if (!universe.starts_with(prefix) || !universe.ends_with(suffix)) return std::nullopt;
  universe.remove_prefix(prefix.size());
  universe.remove_suffix(suffix.size());
  if (universe.find('/') != std::string_view::npos) return std::nullopt;
  return std::string(universe);
}

}  // namespace tidalcrest::sync::artifact_rotation
