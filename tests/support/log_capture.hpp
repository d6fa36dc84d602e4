#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tidalcrest/sync/log.hpp"

namespace tidalcrest::sync::testing {

/// Every log record of one test, instead of standard error. Thread-safe.
class LogCapture {
 public:
  explicit LogCapture(std::function<void(const LogRecord&)> on_record = {}) {
    set_log_sink([this, on_record](const LogRecord& record) {
      if (on_record) on_record(record);
      const std::lock_guard lock(_mutex);
      _lines.push_back(std::string(log_level_name(record.level)) + ": " + record.message);
      if (record.extra != nullptr && record.extra->contains("tidalcrest_sync_event"))
        _events.push_back(record.extra->at("tidalcrest_sync_event"));
    });
  }
  ~LogCapture() { set_log_sink({}); }

  /// "level: message" of each record, or of those of one level.
  std::vector<std::string> lines(std::optional<LogLevel> level = {}) const {
    const std::lock_guard lock(_mutex);
    std::vector<std::string> found = _lines;
    if (level)
      std::erase_if(found, [&](const auto& line) { return !line.starts_with(log_level_name(*level)); });
    return found;
  }
  bool has(const std::string& part) const {
    for (const auto& line : lines()) {
      if (line.find(part) != std::string::npos) return true;
    }
    return false;
  }
  /// The sync events, or those of one type.
  std::vector<Document> events(const std::string& event_type = {}) const {
    const std::lock_guard lock(_mutex);
    std::vector<Document> found;
    for (const auto& event : _events) {
      if (event_type.empty() || event.at("event_type") == event_type) found.push_back(event);
    }
    return found;
  }

 private:
  mutable std::mutex _mutex;  // guards the two below; a worker may log too
  std::vector<std::string> _lines;
  std::vector<Document> _events;
};

}  // namespace tidalcrest::sync::testing
