#include "transport/settings.hpp"

#include <limits>

#include "host/endpoint.hpp"
#include "transport/fixture.hpp"
#include "transport/runtime_knobs.hpp"

namespace tidalcrest::sync {
namespace {

TEST(TransportKnobs, AreReadLeniently) {
  EXPECT_EQ(_sync_http_transport("  "), "auto");
  EXPECT_EQ(_sync_http_transport(" CURL "), "curl");
  EXPECT_EQ(_sync_http_chunk_bytes(" "), 67108864);
  EXPECT_EQ(_sync_http_chunk_bytes("1024"), 1024);
  EXPECT_EQ(_sync_http_chunk_bytes(67108865), 67108865);
  EXPECT_EQ(_sync_max_concurrency(), 8);
  EXPECT_EQ(_sync_max_concurrency(1), 1);
  EXPECT_EQ(_sync_max_concurrency("1000"), 1000);
}

TEST(TransportKnobs, RefuseWhatIsNoPositiveInteger) {
  for (const Document& bad :
       {Document(0), Document(-1), Document("-1"), Document("many"), Document(Document::array()),
        Document(std::numeric_limits<double>::quiet_NaN())}) {
    SCOPED_TRACE(bad.dump());
    EXPECT_EQ(failure_of([&] { _sync_http_chunk_bytes(bad); }),
              "ValueError: invalid sync_http_chunk_bytes: expected a positive integer");
    EXPECT_EQ(failure_of([&] { _sync_max_concurrency(bad); }),
              "ValueError: invalid sync_max_concurrency: expected a positive integer");
  }
  EXPECT_EQ(failure_of([] { _sync_http_transport("wget"); }),
            "ValueError: invalid sync_http_transport: expected auto, urllib, or curl");
}

TEST(TransportKnobs, ABadOneKeepsThoseAfterIt) {
  RuntimeKnobs knobs("curl", 1024, nullptr);
  EXPECT_EQ(knobs.max_concurrency(), 8);
  EXPECT_THROW(knobs.set("urllib", 0, 3), ValueError);
  EXPECT_EQ(knobs.transport(), "urllib");
  EXPECT_EQ(knobs.chunk_bytes(), 1024);
  EXPECT_EQ(knobs.max_concurrency(), 8);
  knobs.set(nullptr, nullptr, 3);
  EXPECT_EQ(knobs.transport(), "urllib");
  EXPECT_EQ(knobs.chunk_bytes(), 1024);
  EXPECT_EQ(knobs.max_concurrency(), 3);
}

TEST(TransportStatus, OnlySevenAreTransient) {
  std::vector<int> transient;
  for (int status = 0; status < 1000; ++status) {
    if (_should_retry_http_status(status)) transient.push_back(status);
  }
  EXPECT_THAT(transient, ElementsAre(408, 425, 429, 500, 502, 503, 504));
  EXPECT_TRUE(_should_retry_http_status("503"));
  EXPECT_FALSE(_should_retry_http_status("busy"));
  EXPECT_FALSE(_should_retry_http_status(nullptr));
}

TEST(TransportStatus, BecomesTheFailureOfADownload) {
  const auto raised = [](const Document& status) {
    return failure_of([&] { _raise_download_http_status("a/b", status); });
  };
  EXPECT_EQ(raised(401), "AuthError: Authentication failed while downloading a/b: HTTP 401");
  EXPECT_EQ(raised("429"), "SyncError: Download failed for a/b: HTTP 429");
  EXPECT_EQ(raised("odd"), "PermanentDownloadError: Download failed for a/b: HTTP odd");
  const auto missing = caught<PermanentDownloadError>([] { _raise_download_http_status("a/b", 404); });
  EXPECT_EQ(missing.status, 404);
  EXPECT_EQ(missing.file_path, "a/b");
}

using ErrorBody = testing::TransportTest;

TEST_F(ErrorBody, IsAnObjectOrNothing) {
  EXPECT_EQ(_parse_sync_error_body(R"({"error_code": "busy"})").at("error_code"), "busy");
  EXPECT_TRUE(_parse_sync_error_body("").empty());
  EXPECT_TRUE(_parse_sync_error_body("[1]").is_object());
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_TRUE(_parse_sync_error_body("<html>").is_object());
  EXPECT_TRUE(_parse_sync_error_body("{\"a\": \"\xFF\"}").empty());
  EXPECT_THAT(log.lines(), Each("debug: sync_error_body_parse_failed"));
  EXPECT_EQ(log.lines().size(), 2u);
}

}  // namespace
}  // namespace tidalcrest::sync
