#pragma once

#include <cstdint>
#include <string>

namespace tidalcrest::origin {

/// Seals a 32-byte shuffle seed for one wallet, market and era: nonce (12 bytes), ciphertext, tag (16).
/// Throws `ValueError` for a secret, seed or nonce of another length.
std::string seal_shuffle_seed(const std::string& wallet_secret, std::int64_t market_id,
                              std::int64_t era_number, const std::string& seed, const std::string& nonce);

}  // namespace tidalcrest::origin
