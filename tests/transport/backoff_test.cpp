#include "transport/backoff.hpp"

#include "transport/events.hpp"
#include "transport/fixture.hpp"

namespace tidalcrest::sync {
namespace {

class BackoffGlue : public testing::TransportTest {
 public:
  BackoffGlue() {
    seams.wall_seconds = [] { return 1234.5; };
  }
  testing::TempDir data;
};

TEST_F(BackoffGlue, WithoutAContextOnlyTellsTheWait) {
  const Document event = _emit_sync_backoff_wait("http_request", 0, "URLError", "x.arrow", 0.5, seams);
  EXPECT_EQ(event.at("surface"), "http_request");
  EXPECT_EQ(event.at("attempt"), 1);
  EXPECT_EQ(event.at("recovery"), "retry_with_backoff");
  EXPECT_THAT(event.at("message").get<std::string>(), HasSubstr("network/SSL error"));
  EXPECT_EQ(event_types(), std::vector<std::string>{"sync_backoff_wait"});
}

TEST_F(BackoffGlue, GuidanceOfTheNetworkIsForItsSurfaceOnly) {
  const auto message = [](const char* surface, const char* reason) {
    return _sync_backoff_wait_guidance(surface, reason, "").at("message").get<std::string>();
  };
  EXPECT_THAT(message("http_request", "ConnectionError"), HasSubstr("network/SSL"));
  EXPECT_THAT(message("file_download", "ConnectionError"), HasSubstr("failed transiently"));
  EXPECT_THAT(message("file_download", "partial_transfer"), HasSubstr("fewer bytes"));
  EXPECT_THAT(message("file_download", "IntegrityError"), HasSubstr("did not match"));
  EXPECT_THAT(message("x", "SyncUnavailableError"), HasSubstr("dependency is temporarily"));
  EXPECT_THAT(message("http_request", "http_503"), HasSubstr("failed transiently"));
}

TEST_F(BackoffGlue, ShowsTheWaitBesideTheSyncsOwnPicture) {
  data.write(
      "sync-progress.json",
      R"({"phase": "syncing", "files": {"a": {"kind": "x"}}, "version": 3, "other": 1, "total_bytes": 9})");
  const ScopedBackoffContext context(
      {.surface = "background_worker", .data_dir = data.path(), .stop_requested = {}});
  const Document event = _emit_sync_backoff_wait("http_request", 2, "http_503", "a", 1.5, seams);
  EXPECT_EQ(event.at("reason"), "http_503");
  EXPECT_EQ(
      data.read("sync-progress.json"),
      R"({"backoff": {"attempt": 3, "reason": "transient", "surface": "background_worker", "wait_seconds": )"
      R"(1.5}, "files": {"a": {"kind": "x"}}, "phase": "backoff", "total_bytes": 9, "updated_at": 1234.5, )"
      R"("version": 3})");
}

TEST_F(BackoffGlue, ReplacesADamagedPictureAndTellsTheReasonElsewhere) {
  data.write("sync-progress.json", "{\"files\": ");
  const ScopedBackoffContext context({.surface = {}, .data_dir = data.path(), .stop_requested = {}});
  _write_sync_backoff_progress_json({{"surface", "sync"}, {"reason", "http_503"}}, seams);
  EXPECT_EQ(data.read("sync-progress.json"),
            R"({"backoff": {"attempt": 0, "reason": "http_503", "surface": "sync", "wait_seconds": 0.0}, )"
            R"("phase": "backoff", "updated_at": 1234.5})");
  const ScopedBackoffContext nowhere({.surface = {}, .data_dir = data.path("missing"), .stop_requested = {}});
  EXPECT_THROW(_write_sync_backoff_progress_json(Document::object(), seams), SyncError);
}

TEST_F(BackoffGlue, AStopEndsTheWaitAndAFailingSignalIsNone) {
  const ScopedBackoffContext broken({.stop_requested = []() -> bool { throw ValueError("broken"); }});
  EXPECT_FALSE(_sync_backoff_stop_requested());
  EXPECT_NO_THROW(_sleep_for_sync_backoff(1.0, seams));
  const ScopedBackoffContext stopping({.stop_requested = [] { return true; }});
  EXPECT_THROW(_sleep_for_sync_backoff(1.0, seams), SyncBackoffCancelled);
  EXPECT_TRUE(event_types().empty());
}

}  // namespace
}  // namespace tidalcrest::sync
