#pragma once

#include <functional>
#include <optional>
#include <string>

#include "host/mutex.hpp"
#include "transport/http_client.hpp"
#include "transport/runtime_knobs.hpp"

namespace tidalcrest::sync {

/// The two suppliers of a manager. Replaced by a later `get_or_create`. Thread-safe; no lock is held while a
/// supplier runs.
class Credentials {
 public:
  using TokenSupplier = std::function<std::string()>;
  /// Gives 32 bytes; absent stands for a result that is no byte string.
  using WalletSecretSupplier = std::function<std::optional<std::string>()>;

  void set_get_token(TokenSupplier supplier);
  void set_get_wallet_secret(WalletSecretSupplier supplier);
  std::string get_token() const;
  WalletSecretSupplier wallet_secret_supplier() const;  ///< empty when none was given

 private:
  mutable Mutex _mutex;
  TokenSupplier _get_token GUARDED_BY(_mutex);
  WalletSecretSupplier _get_wallet_secret GUARDED_BY(_mutex);
};

/// The manager's own forms of the requests: a fresh token for each authenticated call, the configured
/// transport for each public one.
class ManagerHttp {
 public:
  ManagerHttp(HttpClient& client, const Credentials& credentials, const RuntimeKnobs& knobs)
      : _client(client), _credentials(credentials), _knobs(knobs) {}

  HttpResult _http_get(const std::string& url, std::int64_t range_start = 0,
                       std::int64_t range_end = -1) const;
  HttpResult _http_get_public(const std::string& url, std::int64_t range_start = 0,
                              std::int64_t range_end = -1) const;
  HttpHead _http_get_public_to(const std::string& url, std::int64_t range_start, std::int64_t range_end,
                               BodySink& sink) const;
  HttpClient& client() const noexcept { return _client; }
  const Credentials& credentials() const noexcept { return _credentials; }
  const RuntimeKnobs& knobs() const noexcept { return _knobs; }

 private:
  HttpClient& _client;
  const Credentials& _credentials;
  const RuntimeKnobs& _knobs;
};

}  // namespace tidalcrest::sync
