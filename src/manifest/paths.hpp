#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tidalcrest/sync/manifest.hpp"

namespace tidalcrest::sync {

/// The path itself; `ManifestError` naming the broken rule.
std::string _safe_manifest_relative_path(const std::string& file_path);
/// For messages only: access to files goes through pinned roots. `ManifestError` for an unsafe path.
std::string _manifest_local_path(const std::string& data_dir, const std::string& file_path);
std::string _feature_epoch_for_expression_type(const std::string& expression_type);

// Lookups of features never throw for what is not there: they give nothing, or an empty list.

/// For a universe: its own feature, else the legacy one; nothing when only other universes have the feature.
std::optional<std::string> _manifest_feature_relative_path(
    const Manifest& manifest, const std::string& feature_name, const std::string& expression_type = "SIGNAL",
    const std::optional<std::string>& named_universe = {});
/// `{first}__{second}__` of a stem of at least four segments.
std::optional<std::string> _feature_artifact_family_prefix(const std::string& feature_name);
/// The other members of the feature's family, below its directory, ascending.
std::vector<std::string> _manifest_feature_companion_relative_paths(const Manifest& manifest,
                                                                    const std::string& relative_path);
/// The feature first, then its companions.
std::vector<std::string> _manifest_feature_prefetch_relative_paths(
    const Manifest& manifest, const std::string& feature_name, const std::string& expression_type = "SIGNAL",
    const std::optional<std::string>& named_universe = {});

/// File bytes come from the public data origin alone, never from the authenticated API: everything else is a
/// `ManifestError`, a base URL that is no non-empty string included.
std::string _manifest_file_url(const std::string& server_url, const std::string& file_path,
                               const Document& base_url);
bool _manifest_base_url_uses_public_download(const std::string& server_url, const Document& base_url);
/// The era of a directory named `era_{n}` or `era{n}`.
std::optional<std::int64_t> _parse_era_directory_id(const std::string& name);

}  // namespace tidalcrest::sync
