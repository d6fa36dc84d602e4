#include "watch_report.hpp"

#include <fmt/format.h>

#include <ctime>
#include <utility>

#include "units.hpp"

namespace tidalcrest::cli {
namespace {

using sync::Document;

constexpr auto REPEAT_INTERVAL = std::chrono::minutes(1);

// The present time in a form of `strftime`, broken down by `gmtime_r` or `localtime_r`.
std::string time_now(const char* form, std::tm* (*broken_down)(const std::time_t*, std::tm*)) {
  const std::time_t now = std::time(nullptr);
  std::tm fields{};
  broken_down(&now, &fields);
  char text[32];
  std::strftime(text, sizeof text, form, &fields);
  return text;
}

std::string utc_now() { return time_now("%Y-%m-%dT%H:%M:%SZ", gmtime_r); }
std::string local_time() { return time_now("%H:%M:%S", localtime_r); }

const Document* event_of(const sync::LogRecord& record) {
  if (record.extra == nullptr) return nullptr;
  const auto& extra = record.extra->get_ref<const Document::object_t&>();
  const auto event = extra.find("tidalcrest_sync_event");
  return event != extra.end() ? &event->second : nullptr;
}

}  // namespace

void WatchReport::tell(const std::string& event, const Document& fields, const std::string& text) {
  if (!_json) return _display->answer(local_time() + "  " + text);
  Document line = {{"event", event}, {"at", utc_now()}};
  line.update(fields);
  _display->answer(line.dump(-1, ' ', false, Document::error_handler_t::replace));
}

void WatchReport::started(const std::string& data_dir, const std::string& server_url,
                          double poll_interval_s) {
  tell("watching", {{"data_dir", data_dir}, {"server_url", server_url}, {"poll_interval_s", poll_interval_s}},
       fmt::format("watching {}: asks {} every {:g} s", data_dir, server_url, poll_interval_s));
}

void WatchReport::active(const sync::Manifest* manifest, const std::string& root_dir) {
  if (manifest == nullptr) {
    _display->idle("nothing is published yet");
    return tell("nothing_published", Document::object(), "nothing is published yet");
  }
  std::int64_t files_fetched = 0, bytes_fetched = 0;
  bool same_root = false;
  {
    const std::lock_guard lock(_mutex);
    same_root = std::exchange(_root_dir, root_dir) == root_dir;
    files_fetched = std::exchange(_files_fetched, 0);
    bytes_fetched = std::exchange(_bytes_fetched, 0);
  }
  const std::string name =
      fmt::format("era {}, version {}", manifest->era_number().dump(), manifest->version().dump());
  const std::string fetched = files_fetched == 0
                                  ? ""
                                  : fmt::format(", {} fetched ({})", count_text(files_fetched),
                                                bytes_text(static_cast<double>(bytes_fetched)));
  _display->idle("in step with " + name);
  const Document fields = {{"era_number", manifest->era_number()},
                           {"version", manifest->version()},
                           {"root_dir", root_dir},
                           {"files", manifest->entries().size()},
                           {"files_fetched", files_fetched},
                           {"bytes_fetched", bytes_fetched}};
  tell(same_root ? "renewed" : "published", fields,
       fmt::format("{} {}: {}{}", name, same_root ? "was proven anew in place" : "is published",
                   counted(static_cast<std::int64_t>(manifest->entries().size()), "file"), fetched));
}

void WatchReport::status_message(const std::string& message) {
  tell("status", {{"message", message}}, message);
}

void WatchReport::era_event(const std::string& event_type, std::int64_t era_number) {
  const char* text =
      event_type == "kill" ? "transition begins, searches are told to stop" : "searches are told to go on";
  tell("era_" + event_type, {{"era_number", era_number}}, fmt::format("era {}: {}", era_number, text));
}

void WatchReport::stopping() {
  {
    const std::lock_guard lock(_mutex);
    _stopping = true;
  }
  _display->idle("stopping");
}

void WatchReport::stopped() {
  tell("stopped", Document::object(), "stopped; the published cohort stays as it is");
}

void WatchReport::log(const sync::LogRecord& record) {
  if (record.level < sync::LogLevel::info) return;
  {
    const std::lock_guard lock(_mutex);
    if (_stopping) return;  // what a stop cuts short is no failure
  }
  if (const Document* event = event_of(record)) {
    if (event->value("event_type", "") == "sync_backoff_wait") return tell_wait(*event);
    if (record.level < sync::LogLevel::warning) return;
  }
  if (is_repeated(record.message)) return;
  const std::string level = log_level_name(record.level);
  tell(level, {{"message", record.message}},
       record.level < sync::LogLevel::warning ? record.message : level + ": " + record.message);
}

void WatchReport::tell_wait(const Document& event) {
  const std::string reason = event.value("reason", "");
  const std::string file = event.value("file_path", "");
  const double seconds = event.value("wait_seconds", 0.0);
  tell(
      "waiting", {{"wait_seconds", seconds}, {"reason", reason}, {"file_path", file}},
      fmt::format("waiting {}: {}{}", duration_text(seconds), reason, file.empty() ? "" : " (" + file + ")"));
}

bool WatchReport::is_repeated(const std::string& message) {
  const std::lock_guard lock(_mutex);
  const auto now = Clock::now();
  std::erase_if(_told_at, [&](const auto& entry) { return now - entry.second >= REPEAT_INTERVAL; });
  return !_told_at.emplace(message, now).second;
}

void WatchReport::on_phase(const std::string& phase) {
  if (_display->is_live()) _display->on_phase(phase);
  if (phase != "comparing") return;
  const std::lock_guard lock(_mutex);
  _files_fetched = 0;
  _bytes_fetched = 0;
}

void WatchReport::on_download_set(std::int64_t files, std::int64_t bytes) {
  if (_display->is_live()) _display->on_download_set(files, bytes);
  if (files == 0) return;
  tell("fetching", {{"files", files}, {"bytes", bytes}},
       fmt::format("fetching {}, {}", counted(files, "file"), bytes_text(static_cast<double>(bytes))));
}

void WatchReport::on_bytes(std::int64_t count) {
  if (_display->is_live()) _display->on_bytes(count);
  const std::lock_guard lock(_mutex);
  _bytes_fetched += count;
}

void WatchReport::on_file_done(const std::string& file_path) {
  if (_display->is_live()) _display->on_file_done(file_path);
  const std::lock_guard lock(_mutex);
  ++_files_fetched;
}

}  // namespace tidalcrest::cli
