#pragma once

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "transport/http_types.hpp"
#include "transport/url_parts.hpp"

namespace tidalcrest::sync {

/// One GET on one connection handle, without following a redirect. For one thread, used once; its address
/// must not change while it runs.
class Transfer {
 public:
  Transfer(CURL* handle, const Request& request, UrlParts target, double timeout_seconds,
           bool may_follow_redirect, BodySink& sink);
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  /// Throws as `InProcessClient::perform`.
  void run();

  /// Where a redirect leads; absent when this answer is the last one.
  const std::optional<UrlParts>& redirect() const noexcept { return _redirect; }
  HttpHead& head() noexcept { return _head; }
  /// Why the body ended before its declared length; empty when it is whole.
  const std::string& cut_short() const noexcept { return _cut_short; }

 private:
  using Clock = std::chrono::steady_clock;
  enum class BodyUse { unknown, to_sink, error_text, dropped };

  static std::size_t _on_header(char* data, std::size_t size, std::size_t count, void* self) noexcept;
  static std::size_t _on_body(char* data, std::size_t size, std::size_t count, void* self) noexcept;
  static int _on_progress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) noexcept;
  static int _on_connected(void* self, char*, char*, int, int) noexcept;

  void _set_options(const Request& request);
  void _take_header_line(std::string_view line);
  void _keep_location(std::string_view line);
  void _headers_are_complete();
  bool _take_body(std::string_view bytes);  // false when enough has come
  void _take_wanted(std::string_view bytes);
  void _hand_on();
  void _finish(CURLcode code);
  [[noreturn]] void _throw_failure(CURLcode code) const;

  CURL* const _handle;
  const UrlParts _target;
  const double _timeout_seconds;
  const bool _may_follow_redirect;
  BodySink& _sink;
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> _sent_headers{nullptr, curl_slist_free_all};
  std::array<char, CURL_ERROR_SIZE> _error_text{};

  HttpHead _head;
  std::optional<std::string> _location;  // of the answer, byte for byte: it is an address and no text
  std::optional<UrlParts> _redirect;
  BodyUse _body_use = BodyUse::unknown;
  std::string _piece;                // bytes for the sink that do not make a whole piece yet
  std::int64_t _awaited_bytes = -1;  // of the body, below 0 when its length is not known
  std::string _error_body;           // of an answer that is no success
  std::size_t _dropped_bytes = 0;
  std::string _cut_short;
  bool _enough = false;  // ended by us: no more of this body is wanted

  std::exception_ptr _local_failure;
  bool _stop_requested = false;
  bool _idle = false;
  bool _connected = false;
  Clock::time_point _last_byte_at;
  Clock::time_point _stop_checked_at;
};

}  // namespace tidalcrest::sync
