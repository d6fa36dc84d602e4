#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "display.hpp"
#include "tidalcrest/sync/document.hpp"
#include "tidalcrest/sync/log.hpp"
#include "tidalcrest/sync/manifest.hpp"

namespace tidalcrest::cli {

/// Tells on standard output what a running manager does: one line per event, a text with its time or, as
/// JSON, one object. On a terminal the display shows the progress in between. Thread-safe.
class WatchReport : public sync::SyncProgress {
 public:
  WatchReport(std::shared_ptr<Display> display, bool json) : _display(std::move(display)), _json(json) {}

  void started(const std::string& data_dir, const std::string& server_url, double poll_interval_s);
  /// Null: no proven cohort is active.
  void active(const sync::Manifest* manifest, const std::string& root_dir);
  /// What the manager says of itself in a transition.
  void status_message(const std::string& message);
  void era_event(const std::string& event_type, std::int64_t era_number);
  void stopping();
  void stopped();

  /// Lines of the log: waits and everything from level info on. One that repeats is shown once a minute.
  void log(const sync::LogRecord& record);

  void on_phase(const std::string& phase) override;
  void on_download_set(std::int64_t files, std::int64_t bytes) override;
  void on_bytes(std::int64_t count) override;
  void on_file_done(const std::string& file_path) override;

 private:
  using Clock = std::chrono::steady_clock;
  void tell(const std::string& event, const sync::Document& fields, const std::string& text);
  void tell_wait(const sync::Document& event);
  bool is_repeated(const std::string& message);

  const std::shared_ptr<Display> _display;
  const bool _json;
  std::mutex _mutex;  // guards everything below; a leaf
  bool _stopping = false;
  std::string _root_dir;
  std::int64_t _files_fetched = 0;
  std::int64_t _bytes_fetched = 0;
  std::map<std::string, Clock::time_point> _told_at;  // by message
};

}  // namespace tidalcrest::cli
