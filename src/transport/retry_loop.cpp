#include "transport/retry_loop.hpp"

#include <fmt/format.h>

#include <optional>
#include <string>
#include <vector>

#include "host/failures.hpp"
#include "host/json.hpp"
#include "transport/backoff.hpp"
#include "transport/events.hpp"
#include "transport/settings.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* WAIT_SURFACE = "http_request";

// The memory of one call of the retry loop.
class Outage {
 public:
  Outage(const Request& request, const Seams& seams)
      : _request(request),
        _url(request.full_url.empty() ? "<unknown>" : request.full_url),
        _started_at(seams.monotonic_seconds()),
        _seams(seams) {}

  /// Gives the answer when the status is permanent, absent when the request is to be repeated after `wait`.
  std::optional<HttpResult> take_status(const HTTPError& failure) {
    _append_limited(_statuses, failure.code);
    const Document parsed_error = _parse_sync_error_body(failure.body);
    _last_details = parsed_error;
    const bool should_retry = _should_retry_http_status(failure.code);
    if (should_retry && member_or_null(parsed_error, "retryable") == false) {
      throw _sync_unavailable_from(_url, _attempt_index + 1, _statuses, _failures, parsed_error);
    }
    if (!should_retry) return HttpResult{failure.code, failure.headers, failure.body};
    _prepare_wait(fmt::format("http_{}", failure.code));
    _announce(parsed_error, {{"status", failure.code},
                             {"error_code", member_or_null(parsed_error, "error_code")},
                             {"dependency", member_or_null(parsed_error, "dependency")},
                             {"retryable", member_or_null(parsed_error, "retryable")}});
    return std::nullopt;
  }

  void take_network_failure(const OSError& failure) {
    const std::string reason = failure_type_name(failure);
    if (_last_details.empty()) {
      _last_details = {{"error_code", reason},
                       {"dependency", "network"},
                       {"retryable", true},
                       {"recovery", "retry_with_backoff"},
                       {"reason", reason}};
    }
    _append_limited(_failures, reason);
    _prepare_wait(reason);
    _announce(_last_details, {});
  }

  void wait() {
    _emit_sync_backoff_wait(WAIT_SURFACE, _attempt_index, _reason, _event_file(), _wait_s, _seams);
    _sleep_for_sync_backoff(_wait_s, _seams);
    ++_attempt_index;
  }

  void recovered() const {
    if (_status_emitted) _emit_status("sync_recovered_status", _last_details);
  }

 private:
  std::string _event_file() const { return _sync_event_file_from_url(_request.full_url); }

  void _prepare_wait(std::string reason) {
    _reason = std::move(reason);
    _wait_s = _backoff_delay_seconds(_attempt_index);
  }

  void _announce(const Document& details, const std::vector<std::pair<std::string, Document>>& fields) {
    if (!_status_emitted) {
      _emit_status("sync_unavailable_status", details);
      _status_emitted = true;
    }
    _log_sync_event("http_retry", _event_file(), _attempt_index + 1, _reason, fields);
  }

  void _emit_status(const char* event_type, const Document& details) const {
    _emit_sync_unavailable_status(event_type, _url, _statuses, _failures, details, _started_at, _seams);
  }

  const Request& _request;
  const std::string _url;
  const double _started_at;
  const Seams& _seams;
  std::vector<std::int64_t> _statuses;
  std::vector<std::string> _failures;
  Document _last_details = Document::object();
  std::int64_t _attempt_index = 0;
  bool _status_emitted = false;
  std::string _reason;
  double _wait_s = 0.0;
};

}  // namespace

HttpResult _request_with_sync_retries(const Request& request, const RequestAttempt& attempt,
                                      const Seams& seams) {
  Outage outage(request, seams);
  while (true) {
    std::optional<HttpResult> answer;
    try {
      answer = attempt();
    } catch (const HTTPError& failure) {
      if (auto permanent = outage.take_status(failure)) return std::move(*permanent);
    } catch (const OSError& failure) {
      outage.take_network_failure(failure);
    }
    if (answer) {
      outage.recovered();
      return std::move(*answer);
    }
    outage.wait();
  }
}

}  // namespace tidalcrest::sync
