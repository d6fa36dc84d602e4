#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <string>
#include <vector>

#include "host/json.hpp"
#include "host/seams.hpp"
#include "support/recorded_backoff.hpp"
#include "tidalcrest/sync/backoff.hpp"
#include "tidalcrest/sync/errors.hpp"
#include "tidalcrest/sync/log.hpp"
#include "transport/http_types.hpp"

namespace tidalcrest::sync::testing {

/// Puts a recorded backoff in place and keeps every log record.
class TransportTest : public ::testing::Test {
 public:
  TransportTest() {
    set_log_sink([this](const LogRecord& record) {
      const std::lock_guard lock(_mutex);
      _lines.push_back(std::string(log_level_name(record.level)) + ": " + record.message);
      if (record.extra == nullptr) return;
      if (const Document* event = find_member(*record.extra, "tidalcrest_sync_event"))
        _events.push_back(*event);
    });
  }
  ~TransportTest() override { set_log_sink({}); }

  std::vector<std::string> lines() const {
    const std::lock_guard lock(_mutex);
    return _lines;
  }
  /// The values of one member in all events of a type.
  std::vector<Document> event_values(const std::string& event_type, const std::string& key) const {
    const std::lock_guard lock(_mutex);
    std::vector<Document> values;
    for (const auto& event : _events) {
      if (event.at("event_type") == event_type) values.push_back(event.value(key, Document()));
    }
    return values;
  }
  std::vector<std::string> event_types() const {
    const std::lock_guard lock(_mutex);
    std::vector<std::string> types;
    for (const auto& event : _events) types.push_back(event.at("event_type").get<std::string>());
    return types;
  }

  RecordedBackoff backoff;
  Seams seams = Seams::real();

 private:
  mutable std::mutex _mutex;  // guards the records; a worker may log too
  std::vector<std::string> _lines;
  std::vector<Document> _events;
};

/// Keeps what it is given; `fail_after` bytes it throws.
class CollectingSink : public BodySink {
 public:
  void begin(std::int64_t status, const HeaderMap&) override {
    begun.push_back(status);
    body.clear();
  }
  void write(std::string_view piece) override {
    if (body.size() + piece.size() > fail_after) throw OSError("no space left", ENOSPC);
    body += piece;
    largest_piece = std::max(largest_piece, piece.size());
  }

  std::vector<std::int64_t> begun;
  std::string body;
  std::size_t largest_piece = 0;
  std::size_t fail_after = std::string::npos;
};

}  // namespace tidalcrest::sync::testing
