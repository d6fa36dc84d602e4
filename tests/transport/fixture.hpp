#pragma once

#include <cerrno>

#include "support/recorded_backoff.hpp"
#include "support/test.hpp"
#include "transport/http_types.hpp"

namespace tidalcrest::sync::testing {

/// Puts a recorded backoff in place and keeps every log record.
class TransportTest : public ::testing::Test {
 public:
  /// The values of one member in all events of a type.
  std::vector<Document> event_values(const std::string& event_type, const std::string& key) const {
    std::vector<Document> values;
    for (const auto& event : log.events(event_type)) values.push_back(event.value(key, Document()));
    return values;
  }
  std::vector<std::string> event_types() const {
    std::vector<std::string> types;
    for (const auto& event : log.events()) types.push_back(event.at("event_type").get<std::string>());
    return types;
  }

  LogCapture log;
  RecordedBackoff backoff;
  Seams seams = Seams::real();
};

/// Keeps what it is given; `fail_after` bytes it throws.
class CollectingSink : public BodySink {
 public:
  void begin(std::int64_t, const HeaderMap&) override { body.clear(); }
  void write(std::string_view piece) override {
    if (body.size() + piece.size() > fail_after) throw OSError("no space left", ENOSPC);
    body += piece;
  }

  std::int64_t most_bytes() const noexcept override { return bounded_to; }

  std::string body;
  std::size_t fail_after = std::string::npos;
  std::int64_t bounded_to = 0;
};

}  // namespace tidalcrest::sync::testing
