#include "transport/transfer.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>

#include "host/text.hpp"
#include "siblings/security/transport.hpp"
#include "transport/backoff.hpp"
#include "transport/local_failure.hpp"
#include "transport/settings.hpp"

namespace tidalcrest::sync {
namespace {

constexpr std::size_t ERROR_BODY_LIMIT_BYTES = 1 << 20;
constexpr long RECEIVE_BUFFER_BYTES = 512 * 1024;
constexpr auto STOP_CHECK_INTERVAL = std::chrono::milliseconds(50);

bool is_redirect_status(std::int64_t status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

long whole_milliseconds(double seconds) {
  return static_cast<long>(
      std::clamp(seconds * 1000.0, 1.0, static_cast<double>(std::numeric_limits<int>::max())));
}

template <class Value>
void set_option(CURL* handle, CURLoption option, Value value) {
  const CURLcode code = curl_easy_setopt(handle, option, value);
  if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (code != CURLE_OK)
    throw URLError(fmt::format("HTTP client option refused: {}", curl_easy_strerror(code)));
}

}  // namespace

Transfer::Transfer(CURL* handle, const Request& request, UrlParts target, double timeout_seconds,
                   bool may_follow_redirect, BodySink& sink)
    : _handle(handle),
      _target(std::move(target)),
      _timeout_seconds(timeout_seconds),
      _may_follow_redirect(may_follow_redirect),
      _sink(sink) {
  _set_options(request);
}

void Transfer::_set_options(const Request& request) {
  curl_easy_reset(_handle);  // keeps the connections
  for (const auto& [name, value] : request.header_items()) {
    curl_slist* const longer = curl_slist_append(_sent_headers.get(), (name + ": " + value).c_str());
    if (longer == nullptr) throw std::bad_alloc();
    static_cast<void>(_sent_headers.release());
    _sent_headers.reset(longer);
  }
  set_option(_handle, CURLOPT_URL, _target.url.c_str());
  set_option(_handle, CURLOPT_PROTOCOLS_STR, "http,https");
  set_option(_handle, CURLOPT_HTTPHEADER, _sent_headers.get());
  set_option(_handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  set_option(_handle, CURLOPT_FOLLOWLOCATION, 0L);
  set_option(_handle, CURLOPT_NOSIGNAL, 1L);
  set_option(_handle, CURLOPT_TCP_KEEPALIVE, 1L);
  set_option(_handle, CURLOPT_BUFFERSIZE, RECEIVE_BUFFER_BYTES);
  set_option(_handle, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  set_option(_handle, CURLOPT_ERRORBUFFER, _error_text.data());
  if (security::is_loopback_host(_target.host)) set_option(_handle, CURLOPT_NOPROXY, "*");

  set_option(_handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  set_option(_handle, CURLOPT_SSL_VERIFYPEER, 1L);
  set_option(_handle, CURLOPT_SSL_VERIFYHOST, 2L);
  const security::SslContext tls = security::tidalcrest_ssl_context();
  if (tls.ca_file) set_option(_handle, CURLOPT_CAINFO, tls.ca_file->c_str());
  if (tls.ca_directory) set_option(_handle, CURLOPT_CAPATH, tls.ca_directory->c_str());

  set_option(_handle, CURLOPT_CONNECTTIMEOUT_MS, whole_milliseconds(_timeout_seconds));
  set_option(_handle, CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(SYNC_CURL_LOW_SPEED_LIMIT_BYTES_PER_SECOND));
  set_option(_handle, CURLOPT_LOW_SPEED_TIME, (whole_milliseconds(_timeout_seconds) + 999) / 1000);

  set_option(_handle, CURLOPT_HEADERFUNCTION, &Transfer::_on_header);
  set_option(_handle, CURLOPT_HEADERDATA, this);
  set_option(_handle, CURLOPT_WRITEFUNCTION, &Transfer::_on_body);
  set_option(_handle, CURLOPT_WRITEDATA, this);
  set_option(_handle, CURLOPT_XFERINFOFUNCTION, &Transfer::_on_progress);
  set_option(_handle, CURLOPT_XFERINFODATA, this);
  set_option(_handle, CURLOPT_NOPROGRESS, 0L);
  set_option(_handle, CURLOPT_PREREQFUNCTION, &Transfer::_on_connected);
  set_option(_handle, CURLOPT_PREREQDATA, this);
}

std::size_t Transfer::_on_header(char* data, std::size_t size, std::size_t count, void* self) noexcept {
  auto& transfer = *static_cast<Transfer*>(self);
  transfer._last_byte_at = Clock::now();
  try {
    transfer._take_header_line({data, size * count});
    return size * count;
  } catch (...) {
    transfer._local_failure = std::current_exception();
    return 0;
  }
}

std::size_t Transfer::_on_body(char* data, std::size_t size, std::size_t count, void* self) noexcept {
  auto& transfer = *static_cast<Transfer*>(self);
  bool wanted = false;
  try {
    wanted = transfer._take_body({data, size * count});
  } catch (...) {
    transfer._local_failure = std::current_exception();
  }
  // Taken after the sink's own work: a slow disk is not a silent server.
  transfer._last_byte_at = Clock::now();
  return wanted ? size * count : 0;
}

int Transfer::_on_connected(void* self, char*, char*, int, int) noexcept {
  auto& transfer = *static_cast<Transfer*>(self);
  transfer._connected = true;
  transfer._last_byte_at = Clock::now();
  return CURL_PREREQFUNC_OK;
}

int Transfer::_on_progress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) noexcept {
  auto& transfer = *static_cast<Transfer*>(self);
  const auto now = Clock::now();
  if (now - transfer._stop_checked_at >= STOP_CHECK_INTERVAL) {
    transfer._stop_checked_at = now;
    try {
      transfer._stop_requested = _sync_backoff_stop_requested();
    } catch (...) {
      transfer._local_failure = std::current_exception();
      return 1;
    }
  }
  const std::chrono::duration<double> silence = now - transfer._last_byte_at;
  transfer._idle = transfer._connected && silence.count() > transfer._timeout_seconds;
  return transfer._stop_requested || transfer._idle ? 1 : 0;
}

void Transfer::_take_header_line(std::string_view line) {
  if (_body_use != BodyUse::unknown) return;  // a trailer
  if (line.starts_with("HTTP/")) {
    _head.headers = {};
    _location.reset();
  } else if (line == "\r\n" || line == "\n") {
    _headers_are_complete();
  } else {
    _head.headers.add_line(line);
    _keep_location(line);
  }
}

void Transfer::_keep_location(std::string_view line) {
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return;
  if (is_header_name(text::strip(line.substr(0, colon)), "location"))
    _location = text::strip(line.substr(colon + 1));
}

void Transfer::_headers_are_complete() {
  long status = 0;
  curl_easy_getinfo(_handle, CURLINFO_RESPONSE_CODE, &status);
  if (status < 200) return;  // an interim answer
  _head.status = status;
  if (is_redirect_status(status) && _location) {
    _redirect = parse_http_url(*_location, _target.url);
    const bool steps_down = _redirect && _target.scheme == "https" && _redirect->scheme != "https";
    if (steps_down || !_may_follow_redirect) _redirect.reset();
    _body_use = _redirect ? BodyUse::dropped : BodyUse::error_text;
  } else if (status >= 400) {
    _body_use = BodyUse::error_text;
  } else {
    _body_use = BodyUse::to_sink;
    curl_off_t declared_bytes = -1;
    curl_easy_getinfo(_handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &declared_bytes);
    _awaited_bytes = declared_bytes;
    _sink.begin(status, _head.headers);
  }
}

bool Transfer::_take_body(std::string_view bytes) {
  switch (_body_use) {
    case BodyUse::to_sink:
      _take_wanted(bytes);
      return true;
    case BodyUse::error_text:
      _error_body.append(bytes.substr(0, ERROR_BODY_LIMIT_BYTES - _error_body.size()));
      _enough = _error_body.size() == ERROR_BODY_LIMIT_BYTES;
      return !_enough;
    default:
      _dropped_bytes += bytes.size();
      _enough = _dropped_bytes > ERROR_BODY_LIMIT_BYTES;
      return !_enough;
  }
}

// Small arrivals are gathered. What is a piece by itself, or all that is awaited, goes on without a copy.
void Transfer::_take_wanted(std::string_view bytes) {
  const auto piece_bytes = static_cast<std::size_t>(_sync_http_response_read_bytes());
  _awaited_bytes -= static_cast<std::int64_t>(bytes.size());
  if (!_piece.empty()) {
    const auto part = bytes.substr(0, piece_bytes - _piece.size());
    _piece.append(part);
    bytes.remove_prefix(part.size());
    if (_piece.size() == piece_bytes) _hand_on();
  }
  if (bytes.size() >= piece_bytes || (_piece.empty() && _awaited_bytes == 0)) {
    if (!bytes.empty()) _sink.write(bytes);
  } else {
    _piece.append(bytes);
  }
}

void Transfer::_hand_on() {
  if (_piece.empty()) return;
  _sink.write(_piece);
  _piece.clear();
}

void Transfer::run() {
  _last_byte_at = _stop_checked_at = Clock::now();
  const CURLcode code = curl_easy_perform(_handle);
  // What has arrived reaches the sink whatever ended the transfer: it is where a resume goes on.
  if (!_local_failure) {
    try {
      _hand_on();
    } catch (...) {
      _local_failure = std::current_exception();
    }
  }
  _finish(code);
}

void Transfer::_finish(CURLcode code) {
  if (_local_failure) throw LocalFailure{_local_failure};
  if (_stop_requested) throw_stop_requested();
  if (_redirect) return;
  if (_body_use == BodyUse::error_text) {
    const bool readable = code == CURLE_OK || _enough;
    throw HTTPError(_target.url, _head.status, fmt::format("HTTP {}", _head.status), _head.headers,
                    readable ? std::move(_error_body) : std::string());
  }
  // The library takes a connection that ends within the headers for an answer without a body.
  if (code == CURLE_OK && _body_use == BodyUse::unknown) {
    throw ConnectionError("the connection ended within the headers of the answer");
  }
  if (code == CURLE_PARTIAL_FILE && _body_use == BodyUse::to_sink) {
    _cut_short = _error_text[0] != '\0' ? _error_text.data() : curl_easy_strerror(code);
  } else if (code != CURLE_OK) {
    _throw_failure(code);
  }
}

void Transfer::_throw_failure(CURLcode code) const {
  const std::string why = _error_text[0] != '\0' ? _error_text.data() : curl_easy_strerror(code);
  if (_idle) throw TimeoutError(fmt::format("no byte received for {:g} seconds", _timeout_seconds));
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      throw TimeoutError(why);
    case CURLE_OUT_OF_MEMORY:
      // Also what the library says of headers that pass its own bound.
      if (_connected && _body_use == BodyUse::unknown) throw ConnectionError("headers of the answer: " + why);
      throw std::bad_alloc();
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_UNSUPPORTED_PROTOCOL:  // an answer that is not HTTP/1 or above
      throw ConnectionError(why);
    default:
      throw URLError(why);
  }
}

}  // namespace tidalcrest::sync
