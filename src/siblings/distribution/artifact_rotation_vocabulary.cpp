#include "siblings/distribution/artifact_rotation_vocabulary.hpp"

#include <string_view>
#include <unordered_set>

#include "host/json.hpp"
#include "host/text.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::artifact_rotation {
namespace {

using FeatureNames = std::unordered_set<std::string_view>;

std::string_view feature_name_of(std::string_view path) {
  static constexpr std::string_view extension = ".arrow";
  path.remove_prefix(path.rfind('/') + 1);  // the whole text when there is no slash
  if (path.ends_with(extension)) path.remove_suffix(extension.size());
  return path;
}

std::string universe_of(const Document& vocabulary) {
  const Document* universe = find_member(vocabulary, "named_universe");
  return universe != nullptr && universe->is_string() ? text::strip(universe->get_ref<const std::string&>())
                                                      : std::string();
}

// Without a manifest nothing but its place tells what a file is: "features/{universe}/.../{name}.arrow".
FeatureNames features_by_place(const std::string& universe, const PathSet& active_relative_paths) {
  static constexpr std::string_view directory = "features/";
  FeatureNames names;
  for (const auto& path : active_relative_paths) {
    if (!path.starts_with(directory)) continue;
    const auto slash = path.find('/', directory.size());
    ArtifactDescriptor artifact;
    if (slash != std::string::npos)
      artifact.named_universe = path.substr(directory.size(), slash - directory.size());
    if (universe.empty() || serves_named_universe(artifact, universe)) names.insert(feature_name_of(path));
  }
  return names;
}

FeatureNames held_features(const std::string& universe, const PathSet& active_relative_paths,
                           const Artifacts& manifest_artifacts) {
  if (manifest_artifacts.empty()) return features_by_place(universe, active_relative_paths);
  FeatureNames names;
  for (const auto& artifact : manifest_artifacts) {
    if (artifact->artifact_kind != "feature") continue;
    if (!artifact->mandatory && !active_relative_paths.contains(artifact->relative_path)) continue;
    if (universe.empty() || serves_named_universe(*artifact, universe)) {
      names.insert(feature_name_of(artifact->relative_path));
    }
  }
  return names;
}

const std::string& name_of_entry(const Document& entry) {
  const Document* name = entry.is_object() ? find_member(entry, "name") : &entry;
  if (name == nullptr || !name->is_string()) {
    throw VocabularyScopeError("vocabulary features must be names or objects with a name");
  }
  return name->get_ref<const std::string&>();
}

Document scoped_features(const Document& features, const FeatureNames& held) {
  if (features.is_object()) {
    Document scoped = Document::object();
    for (const auto& [name, entry] : features.get_ref<const Document::object_t&>()) {
      if (held.contains(name)) scoped[name] = entry;
    }
    return scoped;
  }
  if (!features.is_array()) throw VocabularyScopeError("vocabulary features must be an object or a list");
  Document scoped = Document::array();
  for (const auto& entry : features) {
    if (held.contains(name_of_entry(entry))) scoped.push_back(entry);
  }
  return scoped;
}

}  // namespace

Document scope_vocabulary_to_active_rotation(const Document& vocabulary, const PathSet& active_relative_paths,
                                             const Artifacts& manifest_artifacts) {
  const Document* features = find_member(vocabulary, "features");
  if (features == nullptr) throw VocabularyScopeError("vocabulary must be an object with features");
  const FeatureNames held = held_features(universe_of(vocabulary), active_relative_paths, manifest_artifacts);
  Document scoped = Document::object();
  for (const auto& [key, value] : vocabulary.get_ref<const Document::object_t&>()) {
    scoped[key] = key == "features" ? scoped_features(value, held) : value;
  }
  return scoped;
}

}  // namespace tidalcrest::sync::artifact_rotation
