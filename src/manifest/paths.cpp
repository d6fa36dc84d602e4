#include "manifest/paths.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "host/endpoint.hpp"
#include "host/integer.hpp"
#include "host/local_path.hpp"
#include "host/text.hpp"
#include "siblings/distribution/manifest_document.hpp"
#include "siblings/era_config/epoch_name.hpp"
#include "siblings/security/transport.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

constexpr std::size_t FEATURE_PATH_SEGMENTS = 4;  // "features/{named_universe}/{epoch}/{feature_name}.arrow"
constexpr std::size_t FAMILY_STEM_SEGMENTS = 4;   // a stem of fewer "__" segments has no family
constexpr std::string_view FEATURE_SUFFIX = ".arrow";

bool is_map(const Document& files, const std::string& path) {
  const auto& entries = files.get_ref<const Document::object_t&>();
  const auto entry = entries.find(path);
  return entry != entries.end() && entry->second.is_object();
}

// Whether the path is a feature of the epoch, in any universe, that ends in the suffix.
bool is_scoped_feature(const std::string& path, const std::string& epoch, const std::string& suffix) {
  if (!path.ends_with(suffix) || !path.starts_with("features/")) return false;
  const auto segments = text::split(path, "/");
  return segments.size() >= FEATURE_PATH_SEGMENTS && segments[segments.size() - 2] == epoch;
}

template <class Matches>
std::optional<std::string> first_path(const Document& files, Matches matches) {
  for (const auto& [path, entry] : files.get_ref<const Document::object_t&>()) {
    if (matches(path)) return path;
  }
  return std::nullopt;
}

std::string last_segment(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::optional<std::string> feature_stem(const std::string& path) {
  std::string name = last_segment(path);
  if (!name.ends_with(FEATURE_SUFFIX)) return std::nullopt;
  name.resize(name.size() - FEATURE_SUFFIX.size());
  return name;
}

bool is_safe_path(const std::string& path) {
  try {
    _safe_manifest_relative_path(path);
    return true;
  } catch (const ManifestError&) {
    return false;
  }
}

// What a companion of one feature has to look like.
struct Family {
  std::string directory;  // with its trailing slash
  std::string stem_prefix;
};

std::optional<Family> family_of(const std::string& relative_path) {
  if (!is_safe_path(relative_path)) return std::nullopt;
  const auto slashes = std::count(relative_path.begin(), relative_path.end(), '/');
  if (static_cast<std::size_t>(slashes) + 1 < FEATURE_PATH_SEGMENTS ||
      !relative_path.starts_with("features/")) {
    return std::nullopt;
  }
  const auto stem = feature_stem(relative_path);
  if (!stem) return std::nullopt;
  auto prefix = _feature_artifact_family_prefix(*stem);
  if (!prefix) return std::nullopt;
  return Family{relative_path.substr(0, relative_path.rfind('/') + 1), *std::move(prefix)};
}

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

std::string _safe_manifest_relative_path(const std::string& file_path) {
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

std::string _feature_epoch_for_expression_type(const std::string& expression_type) {
  const bool strategy = text::lower(expression_type).find("strategy") != std::string::npos;
  return epoch_value(strategy ? EpochName::STRATEGY_IS : EpochName::SIGNAL_IS);
}

std::optional<std::string> _manifest_feature_relative_path(const Manifest& manifest,
                                                           const std::string& feature_name,
                                                           const std::string& expression_type,
                                                           const std::optional<std::string>& named_universe) {
  const Document& files = manifest.files();
  const std::string name = text::strip(feature_name);
  if (!files.is_object() || name.empty()) return std::nullopt;
  const std::string epoch = _feature_epoch_for_expression_type(expression_type);
  const std::string universe = named_universe ? text::strip(*named_universe) : std::string();
  const std::string suffix = fmt::format("/{}.arrow", name);

  if (!universe.empty()) {
    const std::string scoped = fmt::format("features/{}/{}{}", universe, epoch, suffix);
    if (is_map(files, scoped)) return scoped;
    // The feature of another universe must not be served for this one.
    const std::string epoch_suffix = "/" + epoch + suffix;
    if (first_path(files, [&](const auto& path) { return is_scoped_feature(path, epoch, epoch_suffix); })) {
      return std::nullopt;
    }
  }

  const std::string legacy_directory = "features/" + epoch + "/";
  const std::string legacy = legacy_directory + name + ".arrow";
  if (is_map(files, legacy)) return legacy;
  return first_path(files, [&](const std::string& path) {
    return is_scoped_feature(path, epoch, suffix) ||
           (path.starts_with(legacy_directory) && path.ends_with(suffix));
  });
}

std::optional<std::string> _feature_artifact_family_prefix(const std::string& feature_name) {
  std::string stem = text::strip(feature_name);
  if (stem.empty()) return std::nullopt;
  if (stem.ends_with(FEATURE_SUFFIX)) stem.resize(stem.size() - FEATURE_SUFFIX.size());
  const auto segments = text::split(stem, "__");
  if (segments.size() < FAMILY_STEM_SEGMENTS || segments[0].empty() || segments[1].empty())
    return std::nullopt;
  return segments[0] + "__" + segments[1] + "__";
}

std::vector<std::string> _manifest_feature_companion_relative_paths(const Manifest& manifest,
                                                                    const std::string& relative_path) {
  const auto family = family_of(relative_path);
  if (!family) return {};
  std::vector<std::string> companions;
  for (const auto& [path, entry] : manifest.files().get_ref<const Document::object_t&>()) {
    if (path == relative_path || !path.starts_with(family->directory) || !is_safe_path(path)) continue;
    const auto stem = feature_stem(path);
    if (stem && stem->starts_with(family->stem_prefix)) companions.push_back(path);
  }
  std::sort(companions.begin(), companions.end());
  return companions;
}

std::vector<std::string> _manifest_feature_prefetch_relative_paths(
    const Manifest& manifest, const std::string& feature_name, const std::string& expression_type,
    const std::optional<std::string>& named_universe) {
  const auto feature =
      _manifest_feature_relative_path(manifest, feature_name, expression_type, named_universe);
  if (!feature) return {};
  std::vector<std::string> paths = {*feature};
  for (auto& companion : _manifest_feature_companion_relative_paths(manifest, *feature)) {
    if (companion != *feature) paths.push_back(std::move(companion));
  }
  return paths;
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
        "Manifest base_url must point to the public data origin; the authenticated API /data/files route is "
        "not a "
        "data origin");
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
