#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "host/seams.hpp"
#include "tidalcrest/sync/manifest.hpp"
#include "tidalcrest/sync/rotation.hpp"

namespace tidalcrest::sync {

/// Null when there is no manifest. Throws `FeatureRotationStateError` for one that cannot be read or parsed,
/// `ManifestError` for one that does not validate.
std::unique_ptr<Manifest> _load_feature_rotation_status_manifest(const std::string& data_dir);
/// Absent when the frequency never comes due.
std::optional<std::int64_t> _rotation_frequency_seconds(const Document& settings_payload);

/// When the next rotation is due, both absent when it never is.
struct NextRotation {
  std::optional<std::string> at;  ///< UTC, "%Y-%m-%dT%H:%M:%SZ"
  std::optional<bool> due;
};
/// The state file's modification time is the only clock of rotation: rewriting the file restarts the period.
NextRotation _rotation_next_at(const std::string& data_dir, const Document& settings_payload,
                               const Seams& seams = Seams::real());
bool _rotation_is_due(const std::string& data_dir, const Document& settings_payload,
                      const std::optional<RotationState>& active_state, const Seams& seams = Seams::real());

}  // namespace tidalcrest::sync
