#include "transport/manager_http.hpp"

#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

void Credentials::set_get_token(TokenSupplier supplier) {
  const MutexLock lock(_mutex);
  _get_token.swap(supplier);  // the one before goes after the lock: its destructor is the host's
}

void Credentials::set_get_wallet_secret(WalletSecretSupplier supplier) {
  const MutexLock lock(_mutex);
  _get_wallet_secret.swap(supplier);
}

std::string Credentials::get_token() const {
  TokenSupplier supplier;
  {
    const MutexLock lock(_mutex);
    supplier = _get_token;
  }
  if (!supplier) throw TypeError("get_token must be callable, got NoneType");
  return supplier();
}

Credentials::WalletSecretSupplier Credentials::wallet_secret_supplier() const {
  const MutexLock lock(_mutex);
  return _get_wallet_secret;
}

HttpResult ManagerHttp::_http_get(const std::string& url, std::int64_t range_start,
                                  std::int64_t range_end) const {
  return _client._http_get(url, _credentials.get_token(), range_start, range_end);
}

HttpResult ManagerHttp::_http_get_public(const std::string& url, std::int64_t range_start,
                                         std::int64_t range_end) const {
  return _client._http_get_public(url, range_start, range_end, _knobs.transport());
}

HttpHead ManagerHttp::_http_get_public_to(const std::string& url, std::int64_t range_start,
                                          std::int64_t range_end, BodySink& sink) const {
  return _client._http_get_public_to(url, range_start, range_end, _knobs.transport(), sink);
}

}  // namespace tidalcrest::sync
