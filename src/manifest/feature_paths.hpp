#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tidalcrest/sync/manifest.hpp"

namespace tidalcrest::sync {

std::string _feature_epoch_for_expression_type(const std::string& expression_type);
/// `{first}__{second}__` of a stem of at least four segments.
std::optional<std::string> _feature_artifact_family_prefix(const std::string& feature_name);

/// Where the features of one manifest lie. Made in one pass over its files; each question then costs what it
/// finds. Never throws for what is not there: gives nothing, or an empty list. The manifest must outlive it.
class FeaturePaths {
 public:
  explicit FeaturePaths(const Manifest& manifest);
  /// For a universe: its own feature, else the legacy one; nothing when only other universes have the
  /// feature.
  std::optional<std::string> _manifest_feature_relative_path(
      const std::string& feature_name, const std::string& expression_type = "SIGNAL",
      const std::optional<std::string>& named_universe = {}) const;
  /// The other members of the feature's family, below its directory, ascending.
  std::vector<std::string> _manifest_feature_companion_relative_paths(const std::string& relative_path) const;
  /// The feature first, then its companions.
  std::vector<std::string> _manifest_feature_prefetch_relative_paths(
      const std::string& feature_name, const std::string& expression_type = "SIGNAL",
      const std::optional<std::string>& named_universe = {}) const;

 private:
  const Manifest& _manifest;
  // By last segment, in manifest order.
  std::unordered_map<std::string_view, std::vector<std::string_view>> _by_file_name;
  // By each directory on the way with its trailing slash, followed by the family's prefix; ascending.
  std::unordered_map<std::string, std::vector<std::string_view>> _by_family;
};

}  // namespace tidalcrest::sync
