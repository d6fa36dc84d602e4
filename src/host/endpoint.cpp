#include "host/endpoint.hpp"

#include <algorithm>
#include <cctype>

#include "host/log.hpp"
#include "host/text.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

bool is_scheme(const std::string& value) {
  return !value.empty() && std::isalpha(static_cast<unsigned char>(value[0])) != 0 &&
         std::all_of(value.begin(), value.end(), [](unsigned char c) {
           return std::isalnum(c) != 0 || c == '+' || c == '-' || c == '.';
         });
}

void split_authority(SplitUrl& parts) {
  std::string rest = parts.netloc;
  if (const auto at = rest.rfind('@'); at != std::string::npos) {
    parts.has_user_info = true;
    rest.erase(0, at + 1);
  }
  if (!rest.empty() && rest[0] == '[') {
    const auto close = rest.find(']');
    if (close == std::string::npos) throw ValueError("Invalid IPv6 URL");
    parts.hostname = rest.substr(1, close - 1);
    rest.erase(0, close + 1);
    if (!rest.empty() && rest[0] != ':') throw ValueError("Invalid IPv6 URL");
  } else {
    const auto colon = rest.find(':');
    parts.hostname = rest.substr(0, colon);
    rest.erase(0, colon == std::string::npos ? rest.size() : colon);
  }
  parts.hostname = text::lower(parts.hostname);
  if (rest.size() > 1) parts.port = rest.substr(1);
  const bool digits =
      std::all_of(parts.port.begin(), parts.port.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
  if (!digits || parts.port.size() > 5 || (!parts.port.empty() && std::stoi(parts.port) > 65535)) {
    throw ValueError("Port out of range 0-65535");
  }
}

}  // namespace

SplitUrl split_url(const std::string& url) {
  SplitUrl parts;
  std::string rest = url;
  if (const auto colon = rest.find(':'); colon != std::string::npos && is_scheme(rest.substr(0, colon))) {
    parts.scheme = text::lower(rest.substr(0, colon));
    rest.erase(0, colon + 1);
  }
  if (rest.starts_with("//")) {
    const auto end = std::min(rest.find_first_of("/?#", 2), rest.size());
    parts.netloc = rest.substr(2, end - 2);
    rest.erase(0, end);
    split_authority(parts);
  }
  if (const auto hash = rest.find('#'); hash != std::string::npos) {
    parts.fragment = rest.substr(hash + 1);
    rest.erase(hash);
  }
  if (const auto question = rest.find('?'); question != std::string::npos) {
    parts.query = rest.substr(question + 1);
    rest.erase(question);
  }
  parts.path = rest;
  return parts;
}

std::string _sync_endpoint_from_url(const std::string& url) {
  try {
    const SplitUrl parts = split_url(url);
    if (!parts.path.empty()) return parts.path;
  } catch (const ValueError& failure) {
    log::emit(LogLevel::debug, "sync_endpoint_parse_failed", nullptr, log::exception_text(failure));
  }
  return url.empty() ? "<unknown>" : url;
}

}  // namespace tidalcrest::sync
