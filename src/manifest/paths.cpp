#include "manifest/paths.hpp"

#include <fmt/format.h>

#include "host/endpoint.hpp"
#include "host/integer.hpp"
#include "host/local_path.hpp"
#include "host/text.hpp"
#include "siblings/distribution/manifest_document.hpp"
#include "siblings/security/transport.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

std::string stripped_url(const Document& base_url) {
  return base_url.is_string() ? text::strip(base_url.get_ref<const std::string&>()) : std::string();
}

std::string without_trailing_slashes(std::string value) {
  while (value.ends_with('/')) value.pop_back();
  return value;
}

void validate_public_base(const std::string& base) {
  try {
    const SplitUrl parts = split_url(base);
    if (parts.scheme.empty() || parts.hostname.empty()) {
      throw ManifestError("Manifest base_url must be an absolute public data URL with a scheme and host");
    }
    security::validate_bearer_transport_url(base);
  } catch (const ValueError& failure) {
    throw ManifestError(failure.what());
  }
}

}  // namespace

const std::string& _safe_manifest_relative_path(const std::string& file_path) {
  try {
    return client_manifest::validate_manifest_relative_path(file_path);
  } catch (const ValueError& failure) {
    throw ManifestError(
        fmt::format("Invalid manifest file path {}: {}", text::repr(file_path), failure.what()));
  }
}

std::string _manifest_local_path(const std::string& data_dir, const std::string& file_path) {
  const std::string relative_path = _safe_manifest_relative_path(file_path);
  return join_path(absolute_path(expand_home(data_dir)), relative_path);
}

std::string _manifest_file_url(const std::string& server_url, const std::string& file_path,
                               const Document& base_url) {
  const std::string relative_path = _safe_manifest_relative_path(file_path);
  const std::string base = stripped_url(base_url);
  if (base.empty()) {
    throw ManifestError("Manifest base_url is required and must be a non-empty absolute public data URL");
  }
  validate_public_base(base);
  if (!_manifest_base_url_uses_public_download(server_url, base)) {
    throw ManifestError(
        "Manifest base_url must point to the public data origin; "
        "the authenticated API /data/files route is not a data origin");
  }
  return without_trailing_slashes(base) + "/" + relative_path;
}

bool _manifest_base_url_uses_public_download(const std::string& server_url, const Document& base_url) {
  const std::string base = stripped_url(base_url);
  if (base.empty()) return false;
  const SplitUrl data = split_url(base);
  const SplitUrl server = split_url(server_url);
  const bool same_host = data.hostname == server.hostname && data.port == server.port;
  return !(same_host && without_trailing_slashes(data.path) == "/data/files");
}

std::optional<std::int64_t> _parse_era_directory_id(const std::string& name) {
  if (!name.starts_with("era")) return std::nullopt;
  const std::string digits = name.substr(name.starts_with("era_") ? 4 : 3);
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
  return try_int(digits);
}

}  // namespace tidalcrest::sync
