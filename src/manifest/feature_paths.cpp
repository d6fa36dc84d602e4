#include "manifest/feature_paths.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "host/text.hpp"
#include "manifest/paths.hpp"
#include "siblings/era_config/epoch_name.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

constexpr std::string_view FEATURES_DIRECTORY = "features/";
constexpr std::string_view FEATURE_SUFFIX = ".arrow";
constexpr std::string_view STEM_SEPARATOR = "__";
constexpr std::size_t FEATURE_PATH_SEGMENTS = 4;  // "features/{named_universe}/{epoch}/{feature_name}.arrow"
constexpr std::size_t FAMILY_STEM_SEGMENTS = 4;   // a stem of fewer "__" segments has no family

// Whether the path is a feature of the epoch, in any universe, that ends in the suffix.
bool is_scoped_feature(std::string_view path, const std::string& epoch, const std::string& suffix) {
  if (!path.ends_with(suffix) || !path.starts_with(FEATURES_DIRECTORY)) return false;
  const auto segments = text::split(path, "/");
  return segments.size() >= FEATURE_PATH_SEGMENTS && segments[segments.size() - 2] == epoch;
}

std::string_view last_segment(std::string_view path) { return path.substr(path.rfind('/') + 1); }

bool is_safe_path(std::string_view path) {
  try {
    _safe_manifest_relative_path(std::string(path));
    return true;
  } catch (const ManifestError&) {
    return false;
  }
}

// The first two segments of a stem, each with its separator: what the prefix of its family would be. Empty
// when there are no two.
std::string_view leading_segments(std::string_view stem) {
  const auto first = stem.find(STEM_SEPARATOR);
  if (first == std::string_view::npos) return {};
  const auto second = stem.find(STEM_SEPARATOR, first + STEM_SEPARATOR.size());
  if (second == std::string_view::npos) return {};
  return stem.substr(0, second + STEM_SEPARATOR.size());
}

// The key of the family that the feature at this path belongs to; absent when it has none.
std::optional<std::string> family_of(const std::string& relative_path) {
  if (!is_safe_path(relative_path) || !relative_path.starts_with(FEATURES_DIRECTORY)) return std::nullopt;
  const auto slashes = std::count(relative_path.begin(), relative_path.end(), '/');
  if (static_cast<std::size_t>(slashes) + 1 < FEATURE_PATH_SEGMENTS) return std::nullopt;
  const std::string_view name = last_segment(relative_path);
  if (!name.ends_with(FEATURE_SUFFIX)) return std::nullopt;
  const auto prefix =
      _feature_artifact_family_prefix(std::string(name.substr(0, name.size() - FEATURE_SUFFIX.size())));
  if (!prefix) return std::nullopt;
  return relative_path.substr(0, relative_path.size() - name.size()) + *prefix;
}

}  // namespace

std::string _feature_epoch_for_expression_type(const std::string& expression_type) {
  const bool strategy = text::lower(expression_type).find("strategy") != std::string::npos;
  return epoch_value(strategy ? EpochName::STRATEGY_IS : EpochName::SIGNAL_IS);
}

std::optional<std::string> _feature_artifact_family_prefix(const std::string& feature_name) {
  std::string stem = text::strip(feature_name);
  if (stem.empty()) return std::nullopt;
  if (stem.ends_with(FEATURE_SUFFIX)) stem.resize(stem.size() - FEATURE_SUFFIX.size());
  const auto segments = text::split(stem, STEM_SEPARATOR);
  if (segments.size() < FAMILY_STEM_SEGMENTS || segments[0].empty() || segments[1].empty())
    return std::nullopt;
  return segments[0] + "__" + segments[1] + "__";
}

FeaturePaths::FeaturePaths(const Manifest& manifest) : _manifest(manifest) {
  for (const auto& [path, entry] : manifest.entries()) {
    if (!path.starts_with(FEATURES_DIRECTORY) || !path.ends_with(FEATURE_SUFFIX)) continue;
    const std::string_view name = last_segment(path);
    _by_file_name[name].push_back(path);
    const std::string_view prefix = leading_segments(name.substr(0, name.size() - FEATURE_SUFFIX.size()));
    if (prefix.empty() || !is_safe_path(path)) continue;
    std::size_t segments = 0;
    for (auto slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1)) {
      if (++segments + 1 < FEATURE_PATH_SEGMENTS) continue;  // no feature of a family lies there
      _by_family[std::string(path.substr(0, slash + 1)).append(prefix)].push_back(path);
    }
  }
  for (auto& [family, paths] : _by_family) std::sort(paths.begin(), paths.end());
}

std::optional<std::string> FeaturePaths::_manifest_feature_relative_path(
    const std::string& feature_name, const std::string& expression_type,
    const std::optional<std::string>& named_universe) const {
  const std::string name = text::strip(feature_name);
  if (name.empty()) return std::nullopt;
  const std::string epoch = _feature_epoch_for_expression_type(expression_type);
  const std::string universe = named_universe ? text::strip(*named_universe) : std::string();
  const std::string suffix = fmt::format("/{}.arrow", name);
  const auto first_path = [&](const auto& matches) -> std::optional<std::string> {
    const auto named = _by_file_name.find(last_segment(suffix));
    if (named == _by_file_name.end()) return std::nullopt;
    for (const std::string_view path : named->second) {
      if (matches(path)) return std::string(path);
    }
    return std::nullopt;
  };

  if (!universe.empty()) {
    const std::string scoped = fmt::format("features/{}/{}{}", universe, epoch, suffix);
    if (_manifest.file_entry(scoped)) return scoped;
    // The feature of another universe must not be served for this one.
    const std::string epoch_suffix = "/" + epoch + suffix;
    if (first_path([&](std::string_view path) { return is_scoped_feature(path, epoch, epoch_suffix); })) {
      return std::nullopt;
    }
  }

  const std::string legacy_directory = "features/" + epoch + "/";
  const std::string legacy = legacy_directory + name + ".arrow";
  if (_manifest.file_entry(legacy)) return legacy;
  return first_path([&](std::string_view path) {
    return is_scoped_feature(path, epoch, suffix) ||
           (path.starts_with(legacy_directory) && path.ends_with(suffix));
  });
}

std::vector<std::string> FeaturePaths::_manifest_feature_companion_relative_paths(
    const std::string& relative_path) const {
  const auto family = family_of(relative_path);
  if (!family) return {};
  const auto members = _by_family.find(*family);
  if (members == _by_family.end()) return {};
  std::vector<std::string> companions;
  for (const std::string_view path : members->second) {
    if (path != relative_path) companions.emplace_back(path);
  }
  return companions;
}

std::vector<std::string> FeaturePaths::_manifest_feature_prefetch_relative_paths(
    const std::string& feature_name, const std::string& expression_type,
    const std::optional<std::string>& named_universe) const {
  const auto feature = _manifest_feature_relative_path(feature_name, expression_type, named_universe);
  if (!feature) return {};
  std::vector<std::string> paths = {*feature};
  for (auto& companion : _manifest_feature_companion_relative_paths(*feature)) {
    paths.push_back(std::move(companion));
  }
  return paths;
}

}  // namespace tidalcrest::sync
