#pragma once

#include <cstdint>

namespace tidalcrest::sync {

/// The only accepted generation of the shuffle key.
inline constexpr const char* SHUFFLE_KEY_GENERATION_MARKET_ERA_V1 = "market-era-v1";
/// Refused by name.
inline constexpr const char* RETIRED_SHUFFLE_KEY_GENERATION_ERA_ONLY_V1 = "legacy-era-only-v1";
inline constexpr const char* DEFAULT_SHUFFLE_KEY_GENERATION = SHUFFLE_KEY_GENERATION_MARKET_ERA_V1;
inline constexpr const char* SHUFFLE_KEY_GENERATION_HEADER = "X-TidalCrest-Shuffle-Key-Generation";
inline constexpr const char* SHUFFLE_KEY_SOURCE_HEADER = "X-TidalCrest-Shuffle-Key-Source";
/// Within how many seconds of a publication consumers may count on seeing new found files.
inline constexpr double SYNC_FOUND_PAYLOAD_LATENCY_BOUND_SECONDS = 6.0;

inline constexpr double SYNC_MANIFEST_POLL_INTERVAL_SECONDS = 5.0;
inline constexpr double ERA_POLL_INTERVAL_SECONDS = 600.0;
inline constexpr std::int64_t DEFAULT_AGENT_MARKET_ID = 1;

}  // namespace tidalcrest::sync
