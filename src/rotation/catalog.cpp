#include "rotation/catalog.hpp"

#include <algorithm>
#include <map>
#include <set>
#include <unordered_set>
#include <utility>

#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "manifest/paths.hpp"
#include "rotation/exclusion.hpp"
#include "siblings/distribution/directory_cursor.hpp"
#include "siblings/distribution/pinned_root.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

using artifact_rotation::Artifact;
using artifact_rotation::FEATURE_ARTIFACT_KINDS;
using artifact_rotation::manifest_file_kind;
using client_manifest::PinnedRoot;

constexpr std::int64_t FEATURE_ROTATION_BYTES_PER_GB = 1073741824;

// The member when it is set: there, and neither null, empty, zero nor false.
const Document* set_member(const Document& value, const char* key) {
  const Document* member = find_member(value, key);
  return member != nullptr && text::truthy(*member) ? member : nullptr;
}

// A string that is not blank, without its surrounding white space.
std::optional<std::string> stripped_text(const Document* value) {
  if (value == nullptr || !value->is_string()) return std::nullopt;
  std::string stripped = text::strip(value->get_ref<const std::string&>());
  if (stripped.empty()) return std::nullopt;
  return stripped;
}

void visit_artifact_section(const Document& raw_artifacts, const ManifestEntries& entries,
                            const RotationRowVisitor& visit) {
  for (const auto& raw : raw_artifacts) {
    if (!raw.is_object()) continue;
    const Document* named = set_member(raw, "path");
    if (named == nullptr) named = set_member(raw, "relative_path");
    if (named == nullptr) continue;
    const std::string file_path = text::str(*named);
    const auto entry = entries.find(file_path);
    if (!entry || !entry->is_object()) {
      visit({file_path, raw, /*is_the_manifests=*/false});
      continue;
    }
    Document merged = entry->document();
    for (const auto& [key, value] : raw.get_ref<const Document::object_t&>()) merged[key] = value;
    visit({file_path, merged, /*is_the_manifests=*/false});
  }
}

void visit_files_in_path_order(const ManifestEntries& entries, const RotationRowVisitor& visit) {
  const auto by_path = [](const auto& a, const auto& b) { return a.first < b.first; };
  if (std::is_sorted(entries.begin(), entries.end(), by_path)) {  // as distributions list them, mostly
    for (const auto& [path, file_info] : entries) visit({path, file_info, /*is_the_manifests=*/true});
    return;
  }
  std::vector<ManifestEntries::value_type> sorted(entries.begin(), entries.end());
  std::sort(sorted.begin(), sorted.end(), by_path);
  for (const auto& [path, file_info] : sorted) visit({path, file_info, /*is_the_manifests=*/true});
}

bool is_rotatable_feature(const ArtifactDescriptor& artifact) {
  return !artifact.mandatory && artifact.artifact_kind == "feature";
}

std::optional<PinnedRoot> pinned_if_present(const std::string& data_dir) {
  try {
    return PinnedRoot(data_dir);
  } catch (const FileNotFoundError&) {
    return std::nullopt;
  }
}

}  // namespace

void _rotation_artifact_rows(const Manifest& manifest, const RotationRowVisitor& visit) {
  // A list is final, even an empty one.
  const Document* raw_artifacts = find_member(manifest.head(), "artifacts");
  if (raw_artifacts != nullptr && raw_artifacts->is_array()) {
    visit_artifact_section(*raw_artifacts, manifest.entries(), visit);
  } else {
    visit_files_in_path_order(manifest.entries(), visit);
  }
}

RotationLegacyScope _rotation_legacy_scope(const Document& manifest_data) {
  return {_rotation_manifest_default_named_universe(manifest_data),
          _rotation_manifest_default_market(manifest_data)};
}

void _fill_legacy_scope(ArtifactDescriptor& artifact, const RotationLegacyScope& legacy_scope,
                        ArtifactCatalog& catalog) {
  if (!FEATURE_ARTIFACT_KINDS().contains(artifact.kind)) return;
  if (artifact.named_universe.empty()) {
    auto universe = _feature_named_universe_from_path(artifact.relative_path);
    if (!universe) universe = legacy_scope.named_universe;
    artifact.named_universe = catalog.keep(universe.value_or(""));
  }
  if (artifact.market.empty()) artifact.market = catalog.keep(legacy_scope.market);
}

std::optional<std::string> _feature_named_universe_from_path(std::string_view file_path) {
  std::string path(file_path);
  std::replace(path.begin(), path.end(), '\\', '/');
  const std::vector<std::string> parts = text::split(path, "/");
  if (parts.size() < 3 || parts[0] != "features") return std::nullopt;
  std::string candidate = text::strip(parts[1]);
  if (candidate.empty() || candidate == "." || candidate == "..") return std::nullopt;
  if (candidate.find('\0') != std::string::npos) return std::nullopt;
  return candidate;
}

std::optional<std::string> _rotation_manifest_default_named_universe(const Document& manifest_data) {
  if (auto universe = stripped_text(find_member(manifest_data, "named_universe"))) return universe;
  const Document* universes = find_member(manifest_data, "named_universes");
  if (universes == nullptr || !universes->is_array() || universes->size() != 1) return std::nullopt;
  return stripped_text(&universes->front());
}

std::string _rotation_manifest_default_market(const Document& manifest_data) {
  for (const char* key : {"market", "market_name", "current_market"}) {
    if (auto market = stripped_text(find_member(manifest_data, key))) return *market;
  }
  return "crypto";
}

Artifacts _rotation_manifest_artifacts(const Manifest& manifest) {
  const RotationLegacyScope legacy_scope = _rotation_legacy_scope(manifest.head());
  ArtifactCatalog catalog(manifest.parsed(), manifest.entries().size());
  _rotation_artifact_rows(manifest, [&](const RotationRow& row) {
    const auto& [file_path, file_info, is_the_manifests] = row;
    if (manifest_file_kind(file_info) == "signals_index" || _manifest_file_is_sync_excluded(file_info))
      return;
    ArtifactDescriptor& artifact =
        is_the_manifests ? catalog.add(file_path, file_info) : catalog.add_copy(file_path, file_info);
    _fill_legacy_scope(artifact, legacy_scope, catalog);
  });
  return std::move(catalog).artifacts();
}

bool _rotation_artifacts_require_scoped_settings(const Artifacts& artifacts) {
  return std::any_of(artifacts.begin(), artifacts.end(),
                     [](const Artifact& artifact) { return is_rotatable_feature(*artifact); });
}

Document _rotation_catalog_context_from_manifest(const Manifest& manifest) {
  return _rotation_catalog_context(manifest, _rotation_manifest_artifacts(manifest));
}

Document _rotation_catalog_context(const Manifest& manifest, const Artifacts& artifacts) {
  std::set<std::string> markets;
  std::set<std::string> universes;
  std::map<std::string, std::set<std::string>> families;
  for (const auto& artifact : artifacts) {
    if (!is_rotatable_feature(*artifact)) continue;
    if (!artifact->market.empty()) markets.emplace(artifact->market);
    if (!artifact->named_universe.empty()) universes.emplace(artifact->named_universe);
    if (artifact->family.empty()) continue;
    auto& subfamilies = families[std::string(artifact->family)];
    if (!artifact->subfamily.empty()) subfamilies.emplace(artifact->subfamily);
  }

  const Document& scope = member_or_null(member_or_null(manifest.head(), "rotation"), "scope");
  const Document* scope_market = set_member(scope, "market");
  const Document* scope_universes = find_member(scope, "named_universes");
  const Document* scope_universe = set_member(scope, "named_universe");

  std::string market = markets.empty() ? std::string() : *markets.begin();
  if (scope_market != nullptr) market = text::str(*scope_market);
  Document named_universes = universes;
  if (scope_universes != nullptr && scope_universes->is_array()) {
    named_universes = Document::array();
    for (const auto& universe : *scope_universes) named_universes.push_back(text::str(universe));
  } else if (scope_universe != nullptr) {
    named_universes = Document::array({text::str(*scope_universe)});
  }
  Document family_lists = Document::object();
  for (const auto& [family, subfamilies] : families) family_lists[family] = subfamilies;
  return {{"current_market", market},
          {"market", market},
          {"current_universes", named_universes},
          {"named_universes", named_universes},
          {"families", std::move(family_lists)}};
}

artifact_rotation::FeatureBudget _rotation_feature_budget_bytes(
    const rotation_settings::RotationSettings& settings) {
  const auto& budget = settings.feature_budget_gb;
  if (std::holds_alternative<std::monostate>(budget)) return std::monostate{};
  if (std::holds_alternative<artifact_rotation::FullDownload>(budget))
    return artifact_rotation::FULL_DOWNLOAD;
  return static_cast<std::int64_t>(std::get<double>(budget)) * FEATURE_ROTATION_BYTES_PER_GB;
}

void _apply_rotation_result_fields(SyncResult& result, const RotationSelection& selection) {
  result.active_relative_paths = selection.active_relative_paths;
  result.mandatory_relative_paths = selection.mandatory_relative_paths();
  result.skipped_relative_paths = selection.skipped_relative_paths();
  result.rotation_seed = selection.seed;
  result.feature_budget_bytes = selection.feature_budget_bytes;
}

RotationPlan _rotation_plan_with_required_paths(RotationPlan rotation_plan, const Manifest& manifest,
                                                const std::vector<std::string>& required_paths) {
  RotationSelection& selection = rotation_plan.selection;
  const RotationLegacyScope legacy_scope = _rotation_legacy_scope(manifest.head());
  ArtifactCatalog catalog(manifest.parsed());
  std::unordered_set<std::string> active(selection.active_relative_paths.begin(),
                                         selection.active_relative_paths.end());
  for (const auto& required_path : required_paths) {
    const std::string path = _safe_manifest_relative_path(required_path);
    if (active.contains(path)) continue;
    const auto file_info = manifest.entries().find(path);
    if (!file_info) throw SyncError("required cohort artifact is absent from manifest: " + path);
    if (_manifest_file_is_sync_excluded(*file_info)) {
      throw SyncError("required cohort artifact is excluded from sync: " + path);
    }
    _fill_legacy_scope(catalog.add_copy(path, *file_info), legacy_scope, catalog);
    active.insert(path);
  }
  for (const Artifact& artifact : std::move(catalog).artifacts()) {
    (artifact->mandatory ? selection.mandatory_artifacts : selection.rotatable_artifacts).push_back(artifact);
  }
  selection.rebuild_active_relative_paths();
  rotation_plan.candidate_state.active_relative_paths = selection.active_relative_paths;
  return rotation_plan;
}

std::vector<std::string> _existing_rotation_paths(const std::string& data_dir,
                                                  const std::vector<std::string>& relative_paths) {
  std::vector<std::string> existing;
  const auto root = pinned_if_present(data_dir);
  if (!root) return existing;
  client_manifest::DirectoryCursor cursor(*root);
  for (const auto& relative_path : relative_paths) {
    const std::string path = _safe_manifest_relative_path(relative_path);
    try {
      cursor.stat_regular_file(path, "rotation artifact");
      existing.push_back(path);
    } catch (const FileNotFoundError&) {
      // Not there: left out.
    }
  }
  return existing;
}

std::optional<std::int64_t> _manifest_era_number_or_none(const Manifest& manifest) {
  return try_int(manifest.era_number());
}

std::vector<std::string> _manifest_prefetched_feature_paths(const Manifest& manifest,
                                                            const std::vector<std::string>& paths) {
  std::set<std::string> features;
  for (const auto& given : paths) {
    const std::string path = text::strip(given);
    const auto file_info = manifest.entries().find(path);
    if (!path.empty() && file_info && manifest_file_kind(*file_info) == "feature") features.insert(path);
  }
  return {features.begin(), features.end()};
}

}  // namespace tidalcrest::sync
