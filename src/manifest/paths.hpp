#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

/// The path itself; `ManifestError` naming the broken rule.
const std::string& _safe_manifest_relative_path(const std::string& file_path);
/// For messages only: access to files goes through pinned roots. `ManifestError` for an unsafe path.
std::string _manifest_local_path(const std::string& data_dir, const std::string& file_path);

/// File bytes come from the public data origin alone, never from the authenticated API: everything else is a
/// `ManifestError`, a base URL that is no non-empty string included.
std::string _manifest_file_url(const std::string& server_url, const std::string& file_path,
                               const Document& base_url);
bool _manifest_base_url_uses_public_download(const std::string& server_url, const Document& base_url);
/// The era of a directory named `era_{n}` or `era{n}`.
std::optional<std::int64_t> _parse_era_directory_id(const std::string& name);

}  // namespace tidalcrest::sync
