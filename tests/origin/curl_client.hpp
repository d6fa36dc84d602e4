#pragma once

#include <curl/curl.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "origin/http_message.hpp"

namespace tidalcrest::origin {

/// What a plain client received; `code` is libcurl's verdict on the transfer.
struct CurlResult {
  CURLcode code = CURLE_OK;
  long status = 0;
  Headers headers;
  std::string body;
  std::string header(const std::string& name) const {
    const auto* value = find_header(headers, name);
    return value == nullptr ? "" : *value;
  }
};

/// Beside its address.
struct CurlRequest {
  std::vector<std::string> headers = {};
  std::optional<std::string> post = {};    ///< the body; a GET without it
  std::optional<std::string> target = {};  ///< the path as it is sent, dot segments included
};

/// A plain client with one connection of its own.
class CurlClient {
 public:
  CurlResult send(const std::string& url, const CurlRequest& request = {}) {
    CurlResult result;
    auto* handle = _handle.get();
    curl_easy_reset(handle);
    curl_slist* list = nullptr;
    for (const auto& header : request.headers) list = curl_slist_append(list, header.c_str());
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, list);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, 60L);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &result.body);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &append);
    if (request.target) curl_easy_setopt(handle, CURLOPT_REQUEST_TARGET, request.target->c_str());
    if (request.post) curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.post->c_str());
    result.code = curl_easy_perform(handle);
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &result.status);
    curl_slist_free_all(list);
    for (curl_header* header = nullptr;
         (header = curl_easy_nextheader(handle, CURLH_HEADER, -1, header)) != nullptr;) {
      result.headers.emplace(header->name, header->value);
    }
    return result;
  }

 private:
  static std::size_t append(char* data, std::size_t size, std::size_t count, void* into) {
    static_cast<std::string*>(into)->append(data, size * count);
    return size * count;
  }
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> _handle{curl_easy_init(), &curl_easy_cleanup};
};

}  // namespace tidalcrest::origin
