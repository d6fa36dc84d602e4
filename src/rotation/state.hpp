#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tidalcrest/sync/manifest.hpp"
#include "tidalcrest/sync/rotation.hpp"

namespace tidalcrest::sync {

inline constexpr const char* FEATURE_ROTATION_STATE_FILENAME = "feature-rotation-state.json";
inline constexpr std::int64_t FEATURE_ROTATION_STATE_VERSION = 1;

std::string _prefetched_features_state_path(const std::string& data_dir);

/// Whether the state has such paths as the function below drops.
bool _names_retired_unsupported_runtime_paths(const RotationState& state, const Manifest& manifest);
/// Without the paths of retired runtime modules that the manifest no longer has; a path still in the manifest
/// is never dropped.
std::optional<RotationState> _drop_retired_unsupported_runtime_paths_from_state(
    std::optional<RotationState> state, const Manifest& manifest);

}  // namespace tidalcrest::sync
