#include "transport/events.hpp"

#include "transport/fixture.hpp"

namespace tidalcrest::sync {
namespace {

using Events = testing::TransportTest;

TEST_F(Events, NameTheFileOfAnAddress) {
  const std::pair<const char*, const char*> cases[] = {
      {"https://h/data/files/a/b.arrow?x=1", "a/b.arrow"},
      {"https://h/m/releases/a.arrow", "a.arrow"},
      {"https://h/m/releases/era_7/b/a.arrow", "b/a.arrow"},
      {"https://h/releases/era_7", "era_7"},
      {"https://h/releases/x/releases/a.arrow", "x/releases/a.arrow"},
      {"https://h//data/manifest/", "data/manifest"},
      {"https://[h/data", ""},
      {"https://h", ""},
  };
  for (const auto& [url, name] : cases) EXPECT_EQ(_sync_event_file_from_url(url), name) << url;
}

TEST_F(Events, HaveTheLevelOfTheirMeaning) {
  const std::pair<Document, const char*> cases[] = {
      {{{"event_type", "sync_recovered_status"}, {"recovery", "reauthenticate"}}, "info"},
      {{{"event_type", "checksum_repair_exhausted"}, {"reason", "size_mismatch"}}, "warning"},
      {{{"event_type", "sync_unavailable_status"}, {"exception_sequence", {"URLError", "TimeoutError"}}},
       "error"},
      {{{"event_type", "sync_unavailable_status"}, {"last_server_error_code", "UPSTREAM_TIMEOUT"}}, "error"},
      {{{"event_type", "http_retry"}, {"reason", "TimeoutError"}}, "info"},
      {{{"event_type", "http_retry"}, {"next_action", "please Contact TidalCrest"}}, "warning"},
      {{{"event_type", "http_retry"}, {"recovery", "Operator_Fix_Required"}}, "warning"},
      {{{"event_type", "sync_unavailable_status"}, {"retryable", false}}, "warning"},
      {{{"event_type", "sync_unavailable_status"}, {"retryable", nullptr}}, "info"},
      {{{"event_type", "http_retry"}, {"retryable", false}}, "info"},
  };
  for (const auto& [event, level] : cases) EXPECT_EQ(_sync_event_level_name(event), level) << event.dump();
}

TEST_F(Events, OfOneKeyFallSilentAfterTen) {
  const auto retry = [](int count, int status) {
    _log_sync_event("http_retry", "coalesced.arrow", count, "http_503",
                    {{"status", status}, {"left_out", nullptr}});
  };
  for (int count = 1; count <= 12; ++count) retry(count, 503);
  retry(1, 502);
  EXPECT_EQ(event_values("http_retry", "status").size(), 11u);
  EXPECT_EQ(event_values("http_retry", "status").back(), 502);
  for (int i = 0; i < 12; ++i) {
    _emit_tidalcrest_sync_event({{"event_type", "sync_unavailable_status"}, {"recovery", "reauthenticate"}});
  }
  EXPECT_EQ(event_values("sync_unavailable_status", "recovery").size(), 12u);
}

TEST_F(Events, AreOneSortedLineAndAnAttachment) {
  _log_sync_event("range_resume", "one-line.arrow", "no number", "partial_tmp", {{"bytes_existing", 5}});
  EXPECT_THAT(log.lines(),
              ElementsAre(R"(info: tidalcrest_sync_event {"bytes_existing": 5, "count": 0, "event_type": )"
                          R"("range_resume", "file": "one-line.arrow", "reason": "partial_tmp"})"));
  EXPECT_EQ(event_values("range_resume", "count"), std::vector<Document>{0});
}

TEST_F(Events, KeyTellsTypesApart) {
  const auto key = [](const Document& value) { return _sync_event_coalesce_key({{"status", value}}); };
  EXPECT_NE(key(1), key("1"));
  EXPECT_NE(key(1), key(true));
  EXPECT_NE(key(nullptr), key("null"));
  EXPECT_EQ(key({{"a", 1}, {"b", 2}}), key({{"b", 2}, {"a", 1}}));
}

TEST_F(Events, OfAnOutageSayWhatToDo) {
  const struct {
    Document details;
    const char* recovery;
    const char* word_in_next_action;
    const char* level;
  } cases[] = {
      {{{"error_code", "AUTH_EXPIRED"}}, "reauthenticate", "reauthenticate", "warning"},
      {{{"dependency", "wallet_token_service"}}, "reauthenticate", "reauthenticate", "warning"},
      {{{"error", "http 401"}}, "reauthenticate", "reauthenticate", "warning"},
      {{{"recovery", "operator_fix_required"}}, "contact_tidalcrest", "contact_tidalcrest", "warning"},
      {{{"reason", "store unconfigured"}}, "contact_tidalcrest", "contact_tidalcrest", "warning"},
      {{{"error_code", "busy"}, {"reason", "please contact_tidalcrest"}},
       "retry_later",
       "wait_for_retry",
       "info"},
      {Document::object(), "retry_later", "wait_for_retry", "info"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.details.dump());
    EXPECT_EQ(_sync_unavailable_action_recovery(c.details), c.recovery);
    const Document event = _emit_sync_unavailable_status("sync_unavailable_status", "https://h/p?q", {}, {},
                                                         c.details, 0, seams);
    EXPECT_THAT(event.at("next_action").get<std::string>(), HasSubstr(c.word_in_next_action));
    EXPECT_EQ(_sync_event_level_name(event), c.level);
  }
}

TEST_F(Events, OfAnOutageHaveDefaultsAndAClock) {
  double now = 100;
  seams.monotonic_seconds = [&now] { return now; };
  const Document bare = _emit_sync_unavailable_status("sync_unavailable_status", "", {503}, {"URLError"},
                                                      Document::object(), 90, seams);
  EXPECT_EQ(
      dump_json(bare, {.sort_keys = true}),
      R"({"dependency": "network", "elapsed_seconds": 10.0, "endpoint": "<unknown>", "event_type": )"
      R"("sync_unavailable_status", "exception_sequence": ["URLError"], "last_server_error_code": "", )"
      R"("local_data_status": "intact and preserved, but not run because fresh data is required", )"
      R"("next_action": "wait_for_retry; sync repeats by itself after a backoff wait; if this lasts, check )"
      R"(network access to the data service", "recovery": "retry_with_backoff", "retryable": true, )"
      R"("status_sequence": [503]})");
  now = 80;
  const Document told = _emit_sync_unavailable_status("sync_recovered_status", "https://h/p?q", {}, {},
                                                      {{"retryable", false}, {"reason", ""}}, 90, seams);
  EXPECT_EQ(told.at("elapsed_seconds"), 0.0);
  EXPECT_EQ(told.at("endpoint"), "/p");
  EXPECT_EQ(told.at("retryable"), false);
  EXPECT_EQ(told.at("reason"), "");
}

}  // namespace
}  // namespace tidalcrest::sync
