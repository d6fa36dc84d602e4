#include "transport/http_client.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "host/integer.hpp"
#include "siblings/security/transport.hpp"
#include "transport/curl_transport.hpp"
#include "transport/in_process_client.hpp"
#include "transport/local_failure.hpp"
#include "transport/retry_loop.hpp"
#include "transport/settings.hpp"

namespace tidalcrest::sync {
namespace {

constexpr std::int64_t BUFFERED_BODY_LIMIT_BYTES = std::int64_t{512} << 20;
constexpr std::int64_t RESERVED_AT_MOST_BYTES = std::int64_t{256} << 20;

// Holds one body in memory.
class BufferSink final : public BodySink {
 public:
  explicit BufferSink(bool bounded) : _bounded(bounded) {}

  void begin(std::int64_t, const HeaderMap& headers) override {
    _body.clear();
    const std::string* const declared = headers.find_any_case("content-length");
    const std::int64_t length = declared == nullptr ? 0 : try_int(*declared).value_or(0);
    _require_room(length);
    _body.reserve(static_cast<std::size_t>(std::clamp<std::int64_t>(length, 0, RESERVED_AT_MOST_BYTES)));
  }
  void write(std::string_view piece) override {
    _require_room(static_cast<std::int64_t>(_body.size() + piece.size()));
    _body.append(piece);
  }
  std::int64_t most_bytes() const noexcept override { return _bounded ? BUFFERED_BODY_LIMIT_BYTES : 0; }
  std::string take() { return std::move(_body); }

 private:
  void _require_room(std::int64_t size) const {
    if (_bounded && size > BUFFERED_BODY_LIMIT_BYTES) {
      throw OSError(fmt::format("response body of {} bytes or more exceeds the limit of {} bytes", size,
                                BUFFERED_BODY_LIMIT_BYTES));
    }
  }

  const bool _bounded;
  std::string _body;
};

bool has_range(const Request& request) {
  return std::any_of(request.headers.begin(), request.headers.end(),
                     [](const auto& item) { return is_header_name(item.first, "range"); });
}

Request request_of(const std::string& url, HeaderItems headers, std::int64_t range_start = 0,
                   std::int64_t range_end = -1) {
  security::validate_bearer_transport_url(url);
  headers.emplace_back("User-Agent", SYNC_USER_AGENT);
  if (range_start > 0 || range_end >= 0) {
    const bool closed = range_end >= range_start && range_end >= 0;
    headers.emplace_back("Range", closed ? fmt::format("bytes={}-{}", range_start, range_end)
                                         : fmt::format("bytes={}-", range_start));
  }
  return {url, std::move(headers)};
}

HeaderItems authorization(const std::string& token) { return {{"Authorization", "Bearer " + token}}; }

// Runs one public operation: what is no network failure leaves it as the exception that it is.
template <class Operation>
auto unwrapped(const Operation& operation) {
  try {
    return operation();
  } catch (const LocalFailure& local) {
    std::rethrow_exception(local.failure);
  }
}

}  // namespace

struct HttpClient::Internals {
  Seams seams;
  InProcessClient in_process;

  // One attempt. A body that ended short is handed on as if it had ended.
  HttpHead attempt(const Request& request, double timeout_seconds, const std::string& transport,
                   BodySink& sink) {
    if (_should_use_curl_transport(request, transport)) return _curl_request(request, timeout_seconds, sink);
    return in_process.perform(request, timeout_seconds, sink).head;
  }

  HttpResult attempt_buffered(const Request& request, double timeout_seconds, const std::string& transport) {
    BufferSink buffer(!has_range(request));
    HttpHead head = attempt(request, timeout_seconds, transport, buffer);
    return {head.status, std::move(head.headers), buffer.take()};
  }

  HttpResult retrying(const Request& request, double timeout_seconds, const std::string& transport) {
    return unwrapped([&] {
      return _request_with_sync_retries(
          request, [&] { return attempt_buffered(request, timeout_seconds, transport); }, seams);
    });
  }

  HttpHead retrying_to(const Request& request, double timeout_seconds, const std::string& transport,
                       BodySink& sink) {
    const auto once = [&]() -> HttpResult {
      HttpHead head = attempt(request, timeout_seconds, transport, sink);
      return {head.status, std::move(head.headers), {}};
    };
    HttpResult answer = unwrapped([&] { return _request_with_sync_retries(request, once, seams); });
    return {answer.status, std::move(answer.headers)};
  }

  HttpHead stream_in_process(const Request& request, client_manifest::UpdatableFile& file, BodySink& sink,
                             double timeout_seconds) {
    InProcessClient::Answer answer;
    try {
      answer = in_process.perform(request, timeout_seconds, sink);
    } catch (const HTTPError& failure) {
      return {failure.code, failure.headers};
    } catch (const OSError& failure) {
      throw ConnectionError(failure.what());
    }
    if (!answer.cut_short.empty()) throw ConnectionError(answer.cut_short);
    file.flush();
    return std::move(answer.head);
  }
};

bool _is_manifest_version_url(const std::string& url) {
  const auto end = url.find_last_not_of('/');
  return end != std::string::npos &&
         std::string_view(url).substr(0, end + 1).ends_with("/data/manifest/version");
}

HttpClient::HttpClient(Seams seams) : _internals(new Internals{std::move(seams), {}}) {}

HttpClient::~HttpClient() = default;

HttpResult HttpClient::_http_get(const std::string& url, const std::string& token, std::int64_t range_start,
                                 std::int64_t range_end) {
  if (range_start == 0 && range_end < 0 && _is_manifest_version_url(url)) {
    return _http_get_manifest_version(url, token);
  }
  return _internals->retrying(request_of(url, authorization(token), range_start, range_end),
                              _sync_http_timeout_seconds(), {});
}

HttpResult HttpClient::_http_get_manifest_version(const std::string& url, const std::string& token) {
  return _internals->retrying(request_of(url, authorization(token)),
                              _sync_manifest_version_http_timeout_seconds(), {});
}

HttpResult HttpClient::_http_get_public(const std::string& url, std::int64_t range_start,
                                        std::int64_t range_end, const std::string& transport) {
  return _internals->retrying(request_of(url, {}, range_start, range_end), _sync_http_timeout_seconds(),
                              transport);
}

HttpHead HttpClient::_http_get_public_to(const std::string& url, std::int64_t range_start,
                                         std::int64_t range_end, const std::string& transport,
                                         BodySink& sink) {
  return _internals->retrying_to(request_of(url, {}, range_start, range_end), _sync_http_timeout_seconds(),
                                 transport, sink);
}

HttpResult HttpClient::_open_request(const Request& request, double timeout_seconds,
                                     const std::string& transport) {
  return unwrapped([&] { return _internals->attempt_buffered(request, timeout_seconds, transport); });
}

HttpClient::StreamResult HttpClient::_download_request_to_file(const Request& request,
                                                               client_manifest::UpdatableFile& file,
                                                               BodySink& sink, double timeout_seconds,
                                                               const std::string& transport) {
  return unwrapped([&]() -> StreamResult {
    if (_should_use_curl_transport(request, transport)) {
      return {_curl_download_to_file(request, file, timeout_seconds, sink.most_bytes()), true};
    }
    return {_internals->stream_in_process(request, file, sink, timeout_seconds), false};
  });
}

}  // namespace tidalcrest::sync
