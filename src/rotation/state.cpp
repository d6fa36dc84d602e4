#include "rotation/state.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "download/local_files.hpp"
#include "host/json.hpp"
#include "manifest/sanitising.hpp"
#include "siblings/distribution/artifact_rotation.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

std::string path_below(const std::string& data_dir, const char* name) {
  return (std::filesystem::path(data_dir) / name).string();
}

std::optional<Document> read_state_payload(const std::string& data_dir) {
  try {
    const auto bytes = client_manifest::read_contained_regular_file_if_present(
        data_dir, FEATURE_ROTATION_STATE_FILENAME, "feature rotation state");
    if (!bytes) return std::nullopt;
    return parse_strict_json(*bytes);
  } catch (const std::exception& failure) {
    throw FeatureRotationStateError(fmt::format("invalid feature rotation state at {}: {}",
                                                feature_rotation_state_path(data_dir), failure.what()));
  }
}

bool is_retired_path(const std::string& path, const Manifest& manifest) {
  return _is_retired_unsupported_runtime_module_path(path) && !manifest.entries().contains(path);
}

}  // namespace

std::string feature_rotation_state_path(const std::string& data_dir) {
  return path_below(data_dir, FEATURE_ROTATION_STATE_FILENAME);
}

std::string _prefetched_features_state_path(const std::string& data_dir) {
  return path_below(data_dir, ".prefetched-features.json");
}

std::optional<RotationState> load_feature_rotation_state(const std::string& data_dir) {
  const auto payload = read_state_payload(data_dir);
  if (!payload) return std::nullopt;
  try {
    return artifact_rotation::rotation_state_from_payload(*payload, feature_rotation_state_path(data_dir),
                                                          FEATURE_ROTATION_STATE_VERSION);
  } catch (const RotationStatePayloadError& failure) {
    throw FeatureRotationStateError(failure.what());
  }
}

std::string write_feature_rotation_state(const std::string& data_dir, const RotationState& state) {
  Document payload;
  try {
    payload = artifact_rotation::rotation_state_payload(state, FEATURE_ROTATION_STATE_VERSION);
  } catch (const RotationStatePayloadError& failure) {
    throw FeatureRotationStateError(failure.what());
  }
  const std::string path = feature_rotation_state_path(data_dir);
  _atomic_write(path, dump_json(payload, {.sort_keys = true, .compact = true}));
  return path;
}

bool _names_retired_unsupported_runtime_paths(const RotationState& state, const Manifest& manifest) {
  const auto& paths = state.active_relative_paths;
  return std::any_of(paths.begin(), paths.end(),
                     [&](const std::string& path) { return is_retired_path(path, manifest); });
}

std::optional<RotationState> _drop_retired_unsupported_runtime_paths_from_state(
    std::optional<RotationState> state, const Manifest& manifest) {
  if (!state) return state;
  state->active_relative_paths = state->active_relative_paths.without(
      [&](const std::string& path) { return is_retired_path(path, manifest); });
  return state;
}

}  // namespace tidalcrest::sync
