#include "transport/settings.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/log.hpp"
#include "host/text.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

bool is_unset(const Document& raw) { return raw.is_null() || text::strip(text::str(raw)).empty(); }

std::int64_t positive_integer(const Document& raw, const char* knob) {
  const auto refuse = [knob] {
    throw ValueError(fmt::format("invalid {}: expected a positive integer", knob));
  };
  std::int64_t value = 0;
  try {
    value = to_int(raw);
  } catch (const TypeError&) {
    refuse();
  } catch (const ValueError&) {
    refuse();
  }
  if (value < 1) refuse();
  return value;
}

}  // namespace

double _sync_http_timeout_seconds() { return SYNC_HTTP_TIMEOUT_SECONDS; }

double _sync_manifest_version_http_timeout_seconds() { return SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS; }

std::int64_t _sync_http_response_read_bytes() { return SYNC_HTTP_RESPONSE_READ_BYTES; }

std::string _sync_http_transport(const Document& raw) {
  if (is_unset(raw)) return SYNC_HTTP_TRANSPORT;
  const std::string word = text::lower(text::strip(text::str(raw)));
  if (word == "auto" || word == "urllib" || word == "curl") return word;
  throw ValueError("invalid sync_http_transport: expected auto, urllib, or curl");
}

std::int64_t _sync_http_chunk_bytes(const Document& raw) {
  if (is_unset(raw)) return SYNC_HTTP_CHUNK_BYTES;
  return positive_integer(raw, "sync_http_chunk_bytes");
}

std::int64_t _sync_max_concurrency(const Document& raw) {
  if (is_unset(raw)) return SYNC_MAX_CONCURRENCY;
  return std::max<std::int64_t>(positive_integer(raw, "sync_max_concurrency"), 1);
}

std::optional<double> _sync_parallel_timeout_seconds(std::int64_t, std::int64_t) { return std::nullopt; }

std::string _sync_parallel_timeout_description(std::optional<double> timeout_seconds) {
  return timeout_seconds ? fmt::format("{:.1f}s", *timeout_seconds) : "unbounded";
}

bool _should_retry_http_status(const Document& status) {
  try {
    return std::ranges::count(TRANSIENT_HTTP_STATUSES, to_int(status)) > 0;
  } catch (const TypeError&) {
    return false;
  } catch (const ValueError&) {
    return false;
  }
}

void _raise_download_http_status(const std::string& file_path, const Document& status) {
  const auto code = try_int(status);
  if (code == 401) {
    throw AuthError(
        fmt::format("Authentication failed while downloading {}: HTTP {}", file_path, text::str(status)));
  }
  const std::string message = fmt::format("Download failed for {}: HTTP {}", file_path, text::str(status));
  if (_should_retry_http_status(status)) throw SyncError(message);
  throw PermanentDownloadError(message, file_path, code);
}

Document _parse_sync_error_body(const std::string& body) {
  if (body.empty()) return Document::object();
  try {
    Document parsed = parse_json(body);
    return parsed.is_object() ? parsed : Document::object();
  } catch (const std::exception& failure) {
    log::emit(LogLevel::debug, "sync_error_body_parse_failed", nullptr, log::exception_text(failure));
    return Document::object();
  }
}

}  // namespace tidalcrest::sync
