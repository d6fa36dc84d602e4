#include "transport/events.hpp"

#include <algorithm>
#include <map>
#include <span>

#include "host/endpoint.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/log.hpp"
#include "host/mutex.hpp"
#include "host/never_destroyed.hpp"
#include "host/text.hpp"
#include "manifest/paths.hpp"
#include "siblings/catalog/reason_descriptions.hpp"

namespace tidalcrest::sync {
namespace {

struct CoalesceCounts {
  Mutex mutex;  // a leaf, nothing is logged under it
  std::map<std::string, int> by_key GUARDED_BY(mutex);
};

CoalesceCounts& coalesce_counts() {
  static CoalesceCounts& counts = never_destroyed<CoalesceCounts>();
  return counts;
}

constexpr std::string_view NETWORK_REASONS[] = {"urlerror", "timeouterror", "oserror", "connectionerror"};
constexpr std::string_view ROUTINE_EVENTS[] = {
    "sync_unavailable_status", "http_retry",      "sync_backoff_wait",  "range_resume",
    "range_resume_reset",      "checksum_repair", "manifest_superseded"};
// The fields that change from one repeat to the next.
constexpr std::string_view CHANGING_FIELDS[] = {"attempt",      "count",          "elapsed_seconds",
                                                "wait_seconds", "bytes_existing", "actual_size",
                                                "range_start",  "range_end"};

bool is_one_of(std::span<const std::string_view> names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

std::optional<std::string> text_if_present(const Document& object, const std::string& key) {
  const Document& value = member_or_null(object, key);
  return value.is_null() ? std::nullopt : std::optional(text::str(value));
}

// The server's typed code, or the older `error`.
std::string error_code_of(const Document& details) {
  return member_text(details, "error_code", member_text(details, "error"));
}

bool contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

std::string event_type_of(const Document& event) { return member_text(event, "event_type"); }

const char* _sync_local_data_status() {
  return "intact and preserved, but not run because fresh data is required";
}

}  // namespace

SyncUnavailableError _sync_unavailable_from(const std::string& url, std::int64_t attempts,
                                            const std::vector<std::int64_t>& statuses,
                                            const std::vector<std::string>& failures,
                                            const Document& details) {
  UnavailableDetails told;
  told.statuses = statuses;
  told.failures = failures;
  if (const auto code = error_code_of(details); !code.empty()) told.server_error_code = code;
  told.dependency = text_if_present(details, "dependency");
  if (const Document& retryable = member_or_null(details, "retryable"); retryable.is_boolean()) {
    told.retryable = retryable.get<bool>();
  }
  told.recovery = text_if_present(details, "recovery");
  told.reason = text_if_present(details, "reason");
  told.typed_details = false;
  for (const char* key : {"error_code", "dependency", "retryable", "recovery"}) {
    if (!member_or_null(details, key).is_null()) told.typed_details = true;
  }
  return {url, attempts, std::move(told)};
}

bool _sync_unavailable_has_typed_details(const std::exception& failure) {
  const auto* unavailable = dynamic_cast<const SyncUnavailableError*>(&failure);
  return unavailable != nullptr && unavailable->typed_details;
}

std::string _sync_event_file_from_url(const std::string& url) {
  std::vector<std::string> parts;
  try {
    parts = text::split(split_url(url).path, "/");
  } catch (const ValueError&) {
    return "";
  }
  std::erase(parts, "");
  std::size_t start = 0;
  if (parts.size() >= 2 && parts[0] == "data" && parts[1] == "files") {
    start = 2;
  } else if (const auto releases = std::find(parts.begin(), parts.end(), "releases");
             releases != parts.end()) {
    start = static_cast<std::size_t>(releases - parts.begin()) + 1;
    if (parts.size() >= start + 2 && _parse_era_directory_id(parts[start])) ++start;
  }
  parts.erase(parts.begin(), parts.begin() + static_cast<std::ptrdiff_t>(start));
  return text::join(parts, "/");
}

Document _sync_backoff_wait_guidance(const std::string& surface, const std::string& reason,
                                     const std::string&) {
  const std::string normalized_reason = text::lower(reason);
  const auto guidance = [](const char* message, const char* next_action) -> Document {
    return {{"recovery", "retry_with_backoff"}, {"message", message}, {"next_action", next_action}};
  };
  if (surface == "http_request" && is_one_of(NETWORK_REASONS, normalized_reason)) {
    return guidance(
        "Transient network/SSL error while downloading sync data; TidalCrest will retry after backoff. "
        "Large files use ranged requests so a failed read retries only the current range.",
        "wait_for_retry; if this repeats, check network/proxy/SSL access to the data host and confirm "
        "sync_http_chunk_bytes is 67108864 or lower on unstable links");
  }
  if (normalized_reason == "partial_transfer") {
    return guidance(
        "Sync received fewer bytes than the manifest size for this file; "
        "TidalCrest will retry or resume the staged partial download.",
        "wait_for_retry; if this repeats, check network stability and remote object availability");
  }
  if (normalized_reason == "integrityerror") {
    return guidance(
        "Downloaded bytes did not match the manifest size or checksum; "
        "TidalCrest will retry before exposing the file.",
        "wait_for_retry; if this repeats, refresh the manifest and check the remote object");
  }
  if (normalized_reason == "syncunavailableerror") {
    return guidance("A sync dependency is temporarily unavailable; TidalCrest will retry after backoff.",
                    "wait_for_retry; if this repeats, check TidalCrest data service reachability");
  }
  return guidance("Sync operation failed transiently; TidalCrest will retry after backoff.",
                  "wait_for_retry; inspect the reason field if this repeats");
}

bool _sync_event_value_mentions_timeout(const Document& value) {
  return !value.is_null() && contains(text::lower(text::str(value)), "timeout");
}

bool _sync_event_mentions_timeout(const Document& event) {
  for (const char* key : {"reason", "last_server_error_code", "error_code"}) {
    if (_sync_event_value_mentions_timeout(member_or_null(event, key))) return true;
  }
  const Document& sequence = member_or_null(event, "exception_sequence");
  return sequence.is_array() &&
         std::any_of(sequence.begin(), sequence.end(), _sync_event_value_mentions_timeout);
}

std::string _sync_event_level_name(const Document& event) {
  const std::string event_type = event_type_of(event);
  if (event_type == "sync_recovered_status") return "info";
  if (event_type == "checksum_repair_exhausted") return "warning";
  // A timeout outage is the one thing reported as an error.
  if (event_type == "sync_unavailable_status" && _sync_event_mentions_timeout(event)) return "error";
  const std::string next_action = text::lower(member_text(event, "next_action"));
  const std::string recovery = text::lower(member_text(event, "recovery"));
  if (contains(next_action, "contact_tidalcrest") || contains(next_action, "contact tidalcrest") ||
      contains(next_action, "reauthenticate") || recovery == "operator_fix_required" ||
      recovery == "reauthenticate") {
    return "warning";
  }
  if (event_type == "sync_unavailable_status" && member_or_null(event, "retryable") == false)
    return "warning";
  return "info";
}

bool _sync_event_is_coalescible(const Document& event) {
  return _sync_event_level_name(event) == "info" && is_one_of(ROUTINE_EVENTS, event_type_of(event));
}

std::string _sync_event_stable_coalesce_value(const Document& value) {
  if (value.is_string()) return text::repr(value);
  return dump_json(value, {.sort_keys = true});
}

std::string _sync_event_coalesce_key(const Document& event) {
  std::map<std::string, std::string> sorted;
  for (const auto& [key, value] : event.get_ref<const Document::object_t&>()) {
    if (!is_one_of(CHANGING_FIELDS, key)) sorted.emplace(key, _sync_event_stable_coalesce_value(value));
  }
  std::string joined;
  for (const auto& [key, value] : sorted) joined += key + '\0' + value + '\0';
  return joined;
}

bool _should_emit_sync_event(const Document& event) {
  if (!_sync_event_is_coalescible(event)) return true;
  const std::string key = _sync_event_coalesce_key(event);
  CoalesceCounts& counts = coalesce_counts();
  const MutexLock lock(counts.mutex);
  return counts.by_key[key]++ < SYNC_EVENT_COALESCE_LIMIT;
}

void _emit_tidalcrest_sync_event(const Document& event) {
  if (!_should_emit_sync_event(event)) return;
  const std::string name = _sync_event_level_name(event);
  const LogLevel level = name == "error"     ? LogLevel::error
                         : name == "warning" ? LogLevel::warning
                                             : LogLevel::info;
  const Document extra = {{"tidalcrest_sync_event", event}};
  log::emit(level, "tidalcrest_sync_event " + dump_json(event, {.sort_keys = true}), &extra);
}

void _log_sync_event(const std::string& event_type, const std::string& file_path, const Document& count,
                     const std::string& reason, const std::vector<std::pair<std::string, Document>>& fields) {
  Document event = {{"event_type", event_type},
                    {"file", file_path},
                    {"count", try_int(count).value_or(0)},
                    {"reason", reason}};
  for (const auto& [key, value] : fields) {
    if (!value.is_null()) event[key] = value;
  }
  _emit_tidalcrest_sync_event(event);
}

std::string _sync_unavailable_action_recovery(const Document& details) {
  const std::string error_code = text::lower(error_code_of(details));
  const std::string dependency = text::lower(member_text(details, "dependency"));
  const std::string reason = text::lower(member_text(details, "reason"));
  const std::string recovery = text::lower(member_text(details, "recovery", "retry_with_backoff"));
  if (contains(error_code, "auth") || contains(dependency, "auth") || contains(dependency, "wallet_token") ||
      contains(error_code, "401")) {
    return "reauthenticate";
  }
  if (recovery == "operator_fix_required" || contains(error_code, "unconfigured") ||
      contains(reason, "unconfigured")) {
    return "contact_tidalcrest";
  }
  return "retry_later";
}

std::string _sync_unavailable_next_action(const Document& details) {
  const std::string error_code = error_code_of(details);
  const Document described = reason_descriptions::describe_reason(
      "SyncUnavailableError", {.recovery = _sync_unavailable_action_recovery(details),
                               .error_code = error_code.empty() ? Document() : Document(error_code),
                               .dependency = member_or_null(details, "dependency"),
                               .reason = member_or_null(details, "reason")});
  return member_text(described, "rendered", member_text(described, "recovery"));
}

Document _emit_sync_unavailable_status(const std::string& event_type, const std::string& url,
                                       const std::vector<std::int64_t>& statuses,
                                       const std::vector<std::string>& failures, const Document& details,
                                       double started_at, const Seams& seams) {
  const Document& retryable = member_or_null(details, "retryable");
  const Document& reason = member_or_null(details, "reason");
  Document event = {
      {"event_type", event_type},
      {"endpoint", _sync_endpoint_from_url(url.empty() ? "<unknown>" : url)},
      {"status_sequence", statuses},
      {"exception_sequence", failures},
      {"last_server_error_code", error_code_of(details)},
      {"dependency", member_text(details, "dependency", "network")},
      {"retryable", retryable.is_null() || text::truthy(retryable)},
      {"elapsed_seconds", std::max(0.0, seams.monotonic_seconds() - started_at)},
      {"recovery", member_text(details, "recovery", "retry_with_backoff")},
      {"local_data_status", _sync_local_data_status()},
      {"next_action", _sync_unavailable_next_action(details)},
  };
  if (!reason.is_null()) event["reason"] = text::str(reason);
  _emit_tidalcrest_sync_event(event);
  return event;
}

}  // namespace tidalcrest::sync
