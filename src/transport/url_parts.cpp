#include "transport/url_parts.hpp"

#include <curl/curl.h>

#include <memory>

#include "host/text.hpp"

namespace tidalcrest::sync {
namespace {

using Handle = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

std::string part_of(const Handle& handle, CURLUPart part, unsigned flags = 0) {
  char* value = nullptr;
  if (curl_url_get(handle.get(), part, &value, flags) != CURLUE_OK) return "";
  const std::unique_ptr<char, decltype(&curl_free)> owned(value, curl_free);
  return value;
}

}  // namespace

std::optional<UrlParts> parse_http_url(const std::string& reference, const std::string& base) {
  const Handle handle(curl_url(), curl_url_cleanup);
  const auto set = [&handle](const std::string& url, unsigned flags) {
    return curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), flags) == CURLUE_OK;
  };
  if (!handle || reference.find('\0') != std::string::npos) return std::nullopt;
  if (!base.empty() && !set(base, 0)) return std::nullopt;
  if (!set(reference, base.empty() ? 0 : CURLU_URLENCODE | CURLU_ALLOW_SPACE)) return std::nullopt;
  UrlParts parts{.url = part_of(handle, CURLUPART_URL),
                 .scheme = text::lower(part_of(handle, CURLUPART_SCHEME)),
                 .host = text::lower(part_of(handle, CURLUPART_HOST)),
                 .port = part_of(handle, CURLUPART_PORT, CURLU_DEFAULT_PORT)};
  if (parts.scheme != "http" && parts.scheme != "https") return std::nullopt;
  if (!part_of(handle, CURLUPART_USER).empty() || !part_of(handle, CURLUPART_PASSWORD).empty())
    return std::nullopt;
  if (parts.host.starts_with('[')) parts.host = parts.host.substr(1, parts.host.size() - 2);
  return parts;
}

}  // namespace tidalcrest::sync
