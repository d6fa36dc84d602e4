#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "host/seams.hpp"
#include "tidalcrest/sync/document.hpp"
#include "tidalcrest/sync/errors.hpp"

/// Structured records about the progress or trouble of a download. An event is an object with `event_type`;
/// it goes to the logger as one JSON text and as a structured attachment. Any thread may emit.
namespace tidalcrest::sync {

/// How often an info-level event of one coalesce key is emitted in the life of the process: what keeps the
/// log of a long outage short.
inline constexpr int SYNC_EVENT_COALESCE_LIMIT = 10;

/// Builds, and does not throw, the failure of an endpoint that stayed away.
SyncUnavailableError _sync_unavailable_from(const std::string& url, std::int64_t attempts,
                                            const std::vector<std::int64_t>& statuses,
                                            const std::vector<std::string>& failures,
                                            const Document& details);
bool _sync_unavailable_has_typed_details(const std::exception& failure);

/// The short file name that events carry; empty when `url` cannot be parsed.
std::string _sync_event_file_from_url(const std::string& url);
/// `recovery`, `message` and `next_action` of a wait. `file_path` has no effect.
Document _sync_backoff_wait_guidance(const std::string& surface, const std::string& reason,
                                     const std::string& file_path);

/// "info", "warning" or "error".
std::string _sync_event_level_name(const Document& event);
bool _sync_event_mentions_timeout(const Document& event);
bool _sync_event_value_mentions_timeout(const Document& value);
bool _sync_event_is_coalescible(const Document& event);
std::string _sync_event_stable_coalesce_value(const Document& value);
/// Equal for events that differ only in the fields that change from one repeat to the next.
std::string _sync_event_coalesce_key(const Document& event);
/// Counts the event when it is coalescible; a warning or an error is always emitted.
bool _should_emit_sync_event(const Document& event);
void _emit_tidalcrest_sync_event(const Document& event);
/// `count` and the values of `fields` may be of any type; null fields are left out, a count that is no number
/// is 0.
void _log_sync_event(const std::string& event_type, const std::string& file_path, const Document& count,
                     const std::string& reason,
                     const std::vector<std::pair<std::string, Document>>& fields = {});

/// "reauthenticate", "contact_tidalcrest" or "retry_later".
std::string _sync_unavailable_action_recovery(const Document& details);
std::string _sync_unavailable_next_action(const Document& details);
/// Emits and returns a "sync_unavailable_status" or "sync_recovered_status" event. `started_at` is a reading
/// of the monotonic clock.
Document _emit_sync_unavailable_status(const std::string& event_type, const std::string& url,
                                       const std::vector<std::int64_t>& statuses,
                                       const std::vector<std::string>& failures, const Document& details,
                                       double started_at, const Seams& seams);

}  // namespace tidalcrest::sync
