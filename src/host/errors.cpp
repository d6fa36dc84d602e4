#include "tidalcrest/sync/errors.hpp"

#include <fmt/format.h>

#include "host/endpoint.hpp"
#include "host/text.hpp"

namespace tidalcrest::sync {

struct SyncUnavailableError::Parts {
  std::string url;
  std::string endpoint;
  std::int64_t attempts;
  UnavailableDetails details;
};

SyncUnavailableError::SyncUnavailableError(const std::string& url, std::int64_t attempts,
                                           UnavailableDetails details)
    : SyncUnavailableError(_parts(url, attempts, std::move(details))) {}

SyncUnavailableError::SyncUnavailableError(Parts parts)
    : Failure(_build_message(parts)),
      url(std::move(parts.url)),
      endpoint(std::move(parts.endpoint)),
      attempts(parts.attempts),
      statuses(std::move(parts.details.statuses)),
      failures(std::move(parts.details.failures)),
      server_error_code(std::move(parts.details.server_error_code)),
      dependency(std::move(parts.details.dependency)),
      retryable(parts.details.retryable),
      recovery(std::move(parts.details.recovery)),
      reason(std::move(parts.details.reason)),
      typed_details(parts.details.typed_details.value_or(dependency || retryable || recovery)) {}

SyncUnavailableError::Parts SyncUnavailableError::_parts(const std::string& url, std::int64_t attempts,
                                                         UnavailableDetails details) {
  std::string known_url = url.empty() ? "<unknown>" : url;
  std::string endpoint = _sync_endpoint_from_url(known_url);
  return {std::move(known_url), std::move(endpoint), attempts, std::move(details)};
}

std::string SyncUnavailableError::_build_message(const Parts& parts) {
  const auto& details = parts.details;
  std::string message =
      fmt::format("TidalCrest data sync unavailable after {} attempt(s). endpoint={} url={}", parts.attempts,
                  parts.endpoint, parts.url);
  const auto append = [&message](const char* label, const std::optional<std::string>& value) {
    if (value && !value->empty()) message += fmt::format(" {}={}", label, *value);
  };
  if (!details.statuses.empty()) message += " statuses=" + text::list_text(details.statuses);
  if (!details.failures.empty()) message += " failures=" + text::list_text(details.failures);
  append("server_error", details.server_error_code);
  append("dependency", details.dependency);
  if (details.retryable) message += std::string(" retryable=") + text::bool_text(*details.retryable);
  append("recovery", details.recovery);
  append("reason", details.reason);
  return message;
}

MandatoryArtifactsTooLargeError::MandatoryArtifactsTooLargeError(std::int64_t mandatory_bytes,
                                                                 std::int64_t available_bytes,
                                                                 std::vector<std::string> selected_paths)
    : Failure(fmt::format("mandatory artifacts need {} bytes, only {} bytes are available", mandatory_bytes,
                          available_bytes)),
      mandatory_bytes(mandatory_bytes),
      available_bytes(available_bytes),
      selected_paths(std::move(selected_paths)) {}

}  // namespace tidalcrest::sync
