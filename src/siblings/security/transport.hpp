#pragma once

#include <optional>
#include <string>

#include "host/module_seam.hpp"

/// Which addresses may carry credentials, and what the in-process client trusts.
namespace tidalcrest::sync::security {

/// The TLS settings of one request. Peer and host name are always verified and nothing below TLS 1.2 is
/// spoken; only the trust roots can be chosen. Absent means the system's own.
struct SslContext {
  std::optional<std::string> ca_file;       ///< PEM bundle
  std::optional<std::string> ca_directory;  ///< directory of hashed PEM files
};

/// The module as the sync module reaches it; the host can put its own in its place at run time.
class Module {
 public:
  virtual ~Module() = default;
  virtual void validate_bearer_transport_url(const std::string& url) = 0;
  virtual SslContext tidalcrest_ssl_context() = 0;
};

ModuleSeam<Module>& module_seam();

/// Throws `ValueError` for an address that may not carry credentials. Accepted: `https` with a host, and
/// `http` with a loopback host (`localhost`, `127.0.0.0/8`, `::1`); never user information, a fragment, white
/// space, control characters or a backslash. The message names scheme and host only, so it repeats no secret.
void validate_bearer_transport_url(const std::string& url);

/// The TLS settings of one in-process request; asked anew for every request.
SslContext tidalcrest_ssl_context();

/// `localhost`, an address of `127.0.0.0/8` in plain dotted form, or `::1`. `hostname` is lower case and
/// without the brackets of an IPv6 address.
bool is_loopback_host(const std::string& hostname);

}  // namespace tidalcrest::sync::security
