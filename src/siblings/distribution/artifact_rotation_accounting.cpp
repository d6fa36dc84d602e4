#include "siblings/distribution/artifact_rotation_accounting.hpp"

#include "host/json.hpp"
#include "host/path_set.hpp"
#include "host/text.hpp"
#include "siblings/distribution/artifact_rotation_algorithms.hpp"

namespace tidalcrest::sync::artifact_rotation {
namespace {

PathSet set_of(const std::vector<std::string>& paths) { return {paths.begin(), paths.end()}; }

std::optional<std::string> text_setting(const Document& settings_payload, const char* key) {
  const Document* value = find_member(settings_payload, key);
  if (value == nullptr || !value->is_string()) return std::nullopt;
  return value->get<std::string>();
}

SelectionScope scope_of(const Document& settings_payload) {
  SelectionScope scope;
  scope.market = text_setting(settings_payload, "market");
  scope.family = text_setting(settings_payload, "family");
  scope.subfamily = text_setting(settings_payload, "subfamily");
  const Document* universes = find_member(settings_payload, "named_universes");
  if (universes != nullptr && universes->is_array()) {
    for (const auto& universe : *universes) scope.named_universes.push_back(text::str(universe));
  }
  return scope;
}

}  // namespace

StatusAccounting rotation_status_accounting(const std::vector<std::string>& active_paths,
                                            const std::optional<Artifacts>& artifacts,
                                            const Document& settings_payload,
                                            const std::vector<std::string>& existing_relative_paths) {
  StatusAccounting accounting;
  const PathSet active = set_of(active_paths);
  const PathSet existing = set_of(existing_relative_paths);
  PathSet known;
  if (artifacts) {
    for (const auto& artifact : *artifacts) known.insert(artifact->relative_path);
    for (const auto& artifact : artifacts_in_scope(*artifacts, "feature", scope_of(settings_payload))) {
      const std::string_view path = artifact->relative_path;
      accounting.eligible_relative_paths.emplace_back(path);
      (active.contains(path) ? accounting.selected_relative_paths : accounting.skipped_relative_paths)
          .emplace_back(path);
    }
  }
  for (const auto& path : active_paths) {
    if (artifacts && !known.contains(path)) {
      accounting.departed_relative_paths.push_back(path);
    } else if (!existing.contains(path)) {
      accounting.missing_active_relative_paths.push_back(path);
    }
  }
  return accounting;
}

std::set<std::string> rotation_cleanup_keep_paths(const ManifestEntries& entries,
                                                  const std::set<std::string>& protected_paths,
                                                  const std::vector<std::string>& metadata_relative_paths) {
  std::set<std::string> keep = protected_paths;
  keep.insert(metadata_relative_paths.begin(), metadata_relative_paths.end());
  for (const auto& [path, file_info] : entries) {
    const bool feature = FEATURE_ARTIFACT_KINDS().contains(manifest_file_kind(file_info));
    if (!feature || file_info.value("mandatory") == true) keep.emplace(path);
  }
  return keep;
}

}  // namespace tidalcrest::sync::artifact_rotation
