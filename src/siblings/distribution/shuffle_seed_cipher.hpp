#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tidalcrest::sync::shuffle_seed_state {

inline constexpr std::size_t SHUFFLE_SEED_BYTES = 60;  ///< nonce 12, ciphertext 32, tag 16
inline constexpr std::size_t WALLET_SECRET_BYTES = 32;

/// Whether the ciphertext opens under the key that the secret gives for this market and era. The sizes are
/// the two above. Key and plaintext live in wiped buffers inside the call and are never handed out. Throws
/// `ShuffleSeedStateError` when the crypto library itself fails.
bool shuffle_seed_opens(std::string_view ciphertext, std::string_view wallet_secret, std::int64_t market_id,
                        std::int64_t era_number);

}  // namespace tidalcrest::sync::shuffle_seed_state
