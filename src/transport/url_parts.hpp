#pragma once

#include <optional>
#include <string>

namespace tidalcrest::sync {

/// An absolute address as the in-process client itself reads it, so that a decision about an address and the
/// connection that follows cannot differ on where it leads.
struct UrlParts {
  std::string url;     ///< complete and normalised
  std::string scheme;  ///< "http" or "https"
  std::string host;    ///< lower case, IPv6 without brackets
  std::string port;    ///< the scheme's default when none is written

  bool same_origin(const UrlParts& other) const noexcept {
    return scheme == other.scheme && host == other.host && port == other.port;
  }
};

/// Reads an address. With a `base` it is one that a server has sent: it may be relative, and blanks and bytes
/// above 127 in it become escapes. Absent when it is malformed, neither http nor https, or holds user
/// information.
std::optional<UrlParts> parse_http_url(const std::string& reference, const std::string& base = {});

}  // namespace tidalcrest::sync
