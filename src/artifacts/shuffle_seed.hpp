#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "cohort/active_view.hpp"
#include "host/seams.hpp"
#include "siblings/distribution/shuffle_seed_state.hpp"
#include "tidalcrest/sync/manifest.hpp"
#include "transport/manager_http.hpp"

namespace tidalcrest::sync {

/// The value of the first header of that name in any letter case.
std::optional<std::string> _header_value(const HeaderMap& headers, const std::string& name);
/// `SyncError` for a missing era header, `EraError` for one that is no number or another era.
void _validate_response_era_header(const HeaderMap& headers, std::int64_t expected_era_number,
                                   const std::string& artifact);
/// Null and blank values are absent; `SyncError` for every generation but the current one.
std::optional<std::string> _coerce_shuffle_key_generation(const Document& value);
/// Null and blank values are absent; `SyncError` for more than one line.
std::optional<std::string> _coerce_shuffle_key_source(const Document& value);
std::optional<std::string> _shuffle_seed_generation_for_manifest(const Manifest& manifest);
std::optional<std::string> _shuffle_seed_source_for_manifest(const Manifest& manifest);
void _validate_shuffle_seed_bytes(std::string_view data);

/// The 32 bytes of a wallet secret, for the length of one use: overwritten when it goes. Move-only.
class WalletSecret {
 public:
  explicit WalletSecret(std::string bytes) noexcept : _bytes(std::move(bytes)) {}
  WalletSecret(WalletSecret&&) noexcept = default;
  WalletSecret& operator=(WalletSecret&&) = delete;
  ~WalletSecret();
  operator std::string_view() const noexcept { return _bytes; }

 private:
  std::string _bytes;
};

/// Asks the supplier; `SyncError` when there is none or it gives something else than 32 bytes.
WalletSecret supplied_wallet_secret(const std::function<std::optional<std::string>()>& supplier);

/// Fetches, stores and proves the encrypted seed pair of a root. It never sees the seed: the sibling module
/// opens the pair with the wallet secret, which is asked for at each proof and kept nowhere.
class ShuffleSeed {
 public:
  ShuffleSeed(std::string server_url, const ManagerHttp& http, const ActiveViewHolder& active, Seams seams);
  /// Asks the manager's supplier at each call.
  WalletSecret _wallet_secret() const;
  /// `FileNotFoundError` for a missing half, `SyncError` for a pair that does not authenticate.
  shuffle_seed_state::AuthenticatedSeed _validate_shuffle_seed_at_root(const std::string& root_dir,
                                                                       std::string_view manifest_bytes) const;
  /// True when downloaded. Absent target: the active root; null bytes: the active manifest's. Throws
  /// `AuthError`, `EraError`, `SyncError`, and `SyncBackoffCancelled` when a stop ends the waiting for a
  /// whole answer.
  bool _download_shuffle_seed(const Manifest& server_manifest,
                              const std::optional<std::string>& target_data_dir = {},
                              const std::string* manifest_bytes = nullptr) const;

 private:
  bool _local_pair_authenticates(const std::string& root_dir, std::string_view manifest_bytes) const;
  /// An answer of the right era and length.
  HttpResult _fetch_ciphertext(const Manifest& server_manifest) const;
  shuffle_seed_state::AuthenticatedSeed _validate_pair(std::string_view manifest_bytes,
                                                       std::string_view ciphertext,
                                                       std::string_view metadata_bytes) const;

  const std::string _server_url;
  const ManagerHttp& _http;
  const ActiveViewHolder& _active;
  const Seams _seams;
};

}  // namespace tidalcrest::sync
