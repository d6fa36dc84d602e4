#include "siblings/security/transport.hpp"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>

#include <algorithm>

#include "host/endpoint.hpp"
#include "host/never_destroyed.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::security {
namespace {

// White space, control characters and backslashes are read differently by different URL parsers; an address
// that two parsers can understand as two hosts must not get a token.
bool has_ambiguous_character(const std::string& url) {
  return std::any_of(url.begin(), url.end(),
                     [](unsigned char c) { return c <= 0x20 || c == 0x7F || c == '\\'; });
}

// A name, a dotted address or the inside of IPv6 brackets. A percent sign would be decoded by some clients
// only.
bool is_plain_host(const std::string& hostname) {
  return !hostname.empty() && std::all_of(hostname.begin(), hostname.end(), [](unsigned char c) {
    return std::isalnum(c) != 0 || c == '.' || c == '-' || c == '_' || c == ':';
  });
}

class BuiltIn final : public Module {
 public:
  void validate_bearer_transport_url(const std::string& url) override {
    if (has_ambiguous_character(url)) {
      throw ValueError("refusing an address with white space, control characters or a backslash");
    }
    const SplitUrl parts = split_url(url);
    if (parts.has_user_info) throw ValueError("refusing an address with user information");
    if (url.find('#') != std::string::npos) throw ValueError("refusing an address with a fragment");
    if (!is_plain_host(parts.hostname)) throw ValueError("refusing an address without a plain host name");
    if (parts.scheme == "https") return;
    if (parts.scheme != "http") {
      throw ValueError("refusing an address that is neither https nor http on a loopback host");
    }
    if (!is_loopback_host(parts.hostname)) {
      throw ValueError(
          fmt::format("refusing http to {}: https is required except on a loopback host", parts.hostname));
    }
  }

  SslContext tidalcrest_ssl_context() override { return {}; }
};

}  // namespace

ModuleSeam<Module>& module_seam() {
  static auto& seam = never_destroyed<ModuleSeam<Module>>(std::make_shared<BuiltIn>());
  return seam;
}

void validate_bearer_transport_url(const std::string& url) {
  module_seam().current()->validate_bearer_transport_url(url);
}

SslContext tidalcrest_ssl_context() { return module_seam().current()->tidalcrest_ssl_context(); }

bool is_loopback_host(const std::string& hostname) {
  if (hostname == "localhost") return true;
  // inet_pton takes four decimal fields without leading zeros and nothing else, so no other spelling of an
  // address passes here as loopback and is resolved as something else later.
  in_addr v4{};
  if (inet_pton(AF_INET, hostname.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  in6_addr v6{};
  return inet_pton(AF_INET6, hostname.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

}  // namespace tidalcrest::sync::security
