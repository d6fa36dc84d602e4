#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tidalcrest/sync/document.hpp"
#include "tidalcrest/sync/rotation.hpp"

namespace tidalcrest::sync::artifact_rotation {

/// Which rule a state breaks, absent when it is sound: its generation is not negative, and its active paths
/// are distinct, non-empty UTF-8 texts.
std::optional<std::string> rotation_state_fault(const RotationState& state);
/// An object with `schema_version` and one key per member of the state. `RotationStatePayloadError`.
Document rotation_state_payload(const RotationState& state, std::int64_t schema_version);
/// Strict: exactly the keys of `rotation_state_payload`, each of its type. `RotationStatePayloadError` naming
/// the source and the key.
RotationState rotation_state_from_payload(const Document& payload, const std::string& source,
                                          std::int64_t schema_version);

}  // namespace tidalcrest::sync::artifact_rotation
