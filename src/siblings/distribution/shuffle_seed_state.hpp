#pragma once

#include <string>
#include <string_view>

/// State of the encrypted shuffle seed: derivation, decryption and the sidecar that binds a ciphertext to one
/// manifest. The seed itself belongs to market and era.
namespace tidalcrest::sync::shuffle_seed_state {

inline constexpr const char* SHUFFLE_SEED_FILE = "shuffle_seed.enc";
inline constexpr const char* SHUFFLE_SEED_METADATA_FILE = "shuffle_seed.enc.meta.json";

/// What an authenticated pair proves. The opened seed is wiped before return and never handed out.
struct AuthenticatedSeed {
  std::int64_t market_id = 0;
  std::int64_t era_number = 0;
};

/// Throws `ShuffleSeedStateError` when the pair does not belong to these manifest bytes or does not open with
/// this wallet secret (32 bytes).
AuthenticatedSeed validate_shuffle_seed_pair(std::string_view manifest_bytes, std::string_view ciphertext,
                                             std::string_view metadata_bytes, std::string_view wallet_secret);
std::string build_shuffle_seed_metadata(std::string_view manifest_bytes, std::string_view ciphertext);

}  // namespace tidalcrest::sync::shuffle_seed_state
