#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/seams.hpp"
#include "tidalcrest/sync/backoff.hpp"
#include "tidalcrest/sync/document.hpp"

/// The thin layer through which the sync module reaches the backoff module. The live module is asked at every
/// call, so a replacement installed at run time is honoured.
namespace tidalcrest::sync {

/// Appends, and keeps the last `limit` entries.
template <class Value>
void _append_limited(std::vector<Value>& values, Value value, std::size_t limit = 20) {
  values.push_back(std::move(value));
  if (values.size() > limit) values.erase(values.begin(), values.end() - static_cast<std::ptrdiff_t>(limit));
}

/// The calling thread's context; empty when the module fails.
BackoffContext _current_sync_backoff_context();
std::string _sync_backoff_surface(const std::string& default_surface);
/// Whether the calling thread was asked to stop. A failing callback counts as no.
bool _sync_backoff_stop_requested();
/// The index counts from 0.
double _backoff_delay_seconds(std::int64_t attempt_index);
/// Shows a wait in `sync-progress.json` of the context's data directory; without one, does nothing. Throws
/// `SyncError` when the file cannot be written.
void _write_sync_backoff_progress_json(const Document& event, const Seams& seams);
/// Announces a wait: emits its event, records it, returns the event.
Document _emit_sync_backoff_wait(const std::string& default_surface, std::int64_t attempt_index,
                                 const std::string& reason, const std::string& file_path, double wait_seconds,
                                 const Seams& seams);
/// Throws the backoff module's `SyncBackoffCancelled` when a stop cut the wait.
void _sleep_for_sync_backoff(double wait_seconds, const Seams& seams);

}  // namespace tidalcrest::sync
