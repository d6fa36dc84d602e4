#pragma once

#include <cstdint>
#include <string>

#include "tidalcrest/sync/manifest.hpp"

namespace tidalcrest::sync {

/// A positive integer; `ValueError` "market_id must be a positive integer, got {value!r}" otherwise.
std::int64_t _coerce_agent_market_id(const Document& value);

/// The market id of a document (its "market_id" key) or a manifest; it must be a true integer equal to the
/// expected one, else `ManifestError`.
std::int64_t _require_manifest_market_identity(const Document& manifest, std::int64_t expected_market_id,
                                               const std::string& label);
std::int64_t _require_manifest_market_identity(const Manifest& manifest, std::int64_t expected_market_id,
                                               const std::string& label);

}  // namespace tidalcrest::sync
