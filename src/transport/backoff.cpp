#include "transport/backoff.hpp"

#include <utility>

#include "download/local_files.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/sync_backoff.hpp"
#include "tidalcrest/sync/errors.hpp"
#include "transport/events.hpp"

namespace tidalcrest::sync {
namespace {

// The sync's own picture, which survives a wait.
constexpr const char* KEPT_PROGRESS_KEYS[] = {
    "era_number", "version", "total_bytes", "total_bytes_known", "unknown_size_files", "files"};

Document read_progress(const std::string& progress_path) {
  try {
    Document document =
        parse_json(client_manifest::read_regular_file_path(progress_path, "sync progress file"));
    if (document.is_object()) return document;
  } catch (const std::exception&) {
    // Advisory: a file that is missing or damaged reads as empty.
  }
  return Document::object();
}

Document backoff_entry(const Document& event) {
  const Document& wait = member_or_null(event, "wait_seconds");
  const std::string surface = member_text(event, "surface");
  // Details of failures do not reach the background worker's surface.
  const std::string reason =
      surface == "background_worker" ? "transient" : member_text(event, "reason", "transient");
  return {
      {"surface", surface},
      {"attempt", int_or_zero(member_or_null(event, "attempt"))},
      {"wait_seconds", wait.is_number() ? wait.get<double>() : 0.0},
      {"reason", reason},
  };
}

}  // namespace

BackoffContext _current_sync_backoff_context() { return sync_backoff::context_of_this_thread(); }

std::string _sync_backoff_surface(const std::string& default_surface) {
  const auto surface = _current_sync_backoff_context().surface;
  return surface && !surface->empty() ? *surface : default_surface;
}

bool _sync_backoff_stop_requested() {
  return sync_backoff::is_stop_requested(_current_sync_backoff_context());
}

double _backoff_delay_seconds(std::int64_t attempt_index) {
  return sync_backoff::module_seam().current()->delay_seconds(attempt_index);
}

void _write_sync_backoff_progress_json(const Document& event, const Seams& seams) {
  const auto data_dir = _current_sync_backoff_context().data_dir;
  if (!data_dir || data_dir->empty()) return;
  const std::string progress_path = _sync_progress_path(*data_dir);
  Document existing = read_progress(progress_path);
  Document document = {
      {"phase", "backoff"}, {"updated_at", seams.wall_seconds()}, {"backoff", backoff_entry(event)}};
  for (const char* key : KEPT_PROGRESS_KEYS) {
    if (existing.contains(key)) document[key] = std::move(existing[key]);
  }
  _atomic_write(progress_path, dump_json(document, {.sort_keys = true}));
}

Document _emit_sync_backoff_wait(const std::string& default_surface, std::int64_t attempt_index,
                                 const std::string& reason, const std::string& file_path, double wait_seconds,
                                 const Seams& seams) {
  Document event = sync_backoff::module_seam().current()->sync_backoff_event_fields(
      _sync_backoff_surface(default_surface), attempt_index + 1, wait_seconds, reason, file_path);
  event.update(
      _sync_backoff_wait_guidance(member_text(event, "surface", default_surface), reason, file_path));
  _emit_tidalcrest_sync_event(event);
  _write_sync_backoff_progress_json(event, seams);
  return event;
}

void _sleep_for_sync_backoff(double wait_seconds, const Seams& seams) {
  const auto module = sync_backoff::module_seam().current();
  if (!module->sleep(wait_seconds, seams.sleep, _sync_backoff_stop_requested)) sync_backoff::cancel(*module);
}

}  // namespace tidalcrest::sync
