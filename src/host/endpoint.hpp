#pragma once

#include <string>

namespace tidalcrest::sync {

/// The parts of an absolute or relative URL, as the host's parser splits it. Never throws for bad text except
/// where stated.
struct SplitUrl {
  std::string scheme;  ///< lower case; empty when there is none
  std::string netloc;  ///< user information, host and port as written
  std::string path;
  std::string query;
  std::string fragment;
  bool has_user_info = false;
  std::string hostname;  ///< lower case, brackets of an IPv6 address removed
  std::string port;      ///< digits as written; empty when there is none
};

/// Throws `ValueError` for an unbalanced IPv6 bracket and for a port that is no number in 0 to 65535.
SplitUrl split_url(const std::string& url);

/// The path of `url` alone, so that query and host stay out of events; the whole text when it has no path or
/// cannot be parsed; "<unknown>" when it is empty.
std::string _sync_endpoint_from_url(const std::string& url);

}  // namespace tidalcrest::sync
