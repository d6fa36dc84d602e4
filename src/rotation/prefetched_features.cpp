#include "rotation/prefetched_features.hpp"

#include "download/local_files.hpp"
#include "host/equality.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "host/unusable.hpp"
#include "rotation/catalog.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* PREFETCHED_FEATURES_FILENAME = ".prefetched-features.json";
constexpr std::int64_t PREFETCHED_FEATURES_VERSION = 1;

Document era_document(std::optional<std::int64_t> era_number) {
  return era_number ? Document(*era_number) : Document(nullptr);
}

}  // namespace

void PrefetchedFeatures::_remember_prefetched_feature_relative_paths(
    const Manifest& manifest, const std::vector<std::string>& relative_paths) {
  const auto paths = _manifest_prefetched_feature_paths(manifest, relative_paths);
  if (paths.empty()) return;
  const MutexLock guard(_prefetched_feature_lock);
  _switch_era_if_needed(manifest);
  _prefetched_feature_relative_paths.insert(paths.begin(), paths.end());
  _write_prefetched_feature_relative_paths(_prefetched_feature_era_number,
                                           _prefetched_feature_relative_paths);
}

std::vector<std::string> PrefetchedFeatures::_prefetched_feature_keep_paths(const Manifest& manifest) {
  const MutexLock guard(_prefetched_feature_lock);
  _switch_era_if_needed(manifest);
  return {_prefetched_feature_relative_paths.begin(), _prefetched_feature_relative_paths.end()};
}

void PrefetchedFeatures::_switch_era_if_needed(const Manifest& manifest) {
  const auto era_number = _manifest_era_number_or_none(manifest);
  if (_prefetched_feature_era_number == era_number) return;
  _prefetched_feature_relative_paths.clear();
  _prefetched_feature_era_number = era_number;
  _prefetched_feature_relative_paths = _read_prefetched_feature_relative_paths(manifest);
}

std::set<std::string> PrefetchedFeatures::_read_prefetched_feature_relative_paths(
    const Manifest& manifest) const {
  std::optional<std::string> bytes;
  Document payload;
  try {
    bytes = client_manifest::read_contained_regular_file_if_present(_data_dir, PREFETCHED_FEATURES_FILENAME,
                                                                    "prefetched features");
    if (!bytes) return {};
    payload = parse_json(*bytes);
  } catch (const Failure& failure) {
    if (!is_unusable(failure)) throw;  // bad JSON is
    return {};
  }
  const Document* version = find_member(payload, "schema_version");
  const Document* recorded = find_member(payload, "paths");
  if (!payload.is_object() || version == nullptr) return {};
  if (!host_equal(*version, PREFETCHED_FEATURES_VERSION)) return {};
  if (!host_equal(member_or_null(payload, "era_number"),
                  era_document(_manifest_era_number_or_none(manifest))))
    return {};
  std::vector<std::string> paths;
  if (recorded != nullptr && recorded->is_array()) {
    for (const auto& path : *recorded) paths.push_back(text::str(path));
  }
  const auto kept = _manifest_prefetched_feature_paths(manifest, paths);
  return {kept.begin(), kept.end()};
}

void PrefetchedFeatures::_write_prefetched_feature_relative_paths(
    std::optional<std::int64_t> era_number, const std::set<std::string>& relative_paths) const {
  Document paths = Document::array();
  for (const auto& path : relative_paths) {
    if (!path.empty()) paths.push_back(path);
  }
  const Document payload = {{"schema_version", PREFETCHED_FEATURES_VERSION},
                            {"era_number", era_document(era_number)},
                            {"paths", std::move(paths)}};
  _atomic_write(_prefetched_features_state_path(_data_dir), dump_json(payload, {.sort_keys = true}));
}

}  // namespace tidalcrest::sync
