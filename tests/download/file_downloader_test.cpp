#include "download/file_downloader.hpp"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "download/download_fixture.hpp"
#include "support/environment.hpp"

namespace tidalcrest::sync {
namespace {

using namespace testing;
using Ranges = std::vector<std::string>;
using Reasons = std::vector<std::string>;

const std::string SMALL = pattern_bytes(30);   // within one chunk
const std::string LARGE = pattern_bytes(100);  // needs three

Reply whole(const std::string& body) { return {.body = body}; }
Reply part(const std::string& bytes, std::size_t first, std::size_t count) {
  return {.status = 206, .body = bytes.substr(first, count)};
}
Reply status(int code) { return {.status = code, .body = "an answer of no use"}; }
Reply cut(Reply reply, std::size_t after) {
  reply.cut_after = after;
  return reply;
}
Reply reset(Reply reply, std::size_t after) {
  reply.reset_after = after;
  return reply;
}

class FileDownloaderTest : public DownloadFixture {
 protected:
  // Stages `staged` and scripts the origin for a fresh path.
  std::string prepare(const std::string& staged, std::vector<Reply> replies) {
    const std::string path = "cases/" + std::to_string(++_cases) + ".bin";
    if (!staged.empty()) data.write(path + ".tmp", staged);
    server.script(url_path(path), std::move(replies));
    result = {};
    return path;
  }
  Reasons reasons_since(std::size_t first) const {
    Reasons reasons;
    const auto waits = backoff.waits();
    for (std::size_t i = first; i < waits.size(); ++i)
      reasons.push_back(waits[i].surface + " " + waits[i].reason);
    return reasons;
  }

 private:
  int _cases = 0;
};

TEST_F(FileDownloaderTest, PublishesOneProvenFileAndTellsEveryoneOfIt) {
  const auto runtime_guard = std::make_shared<RecordingGuard>();
  guard.set(runtime_guard);
  server.script(url_path("u1/a.arrow"), {whole(SMALL)});
  server.script(url_path("u1/found.arrow"), {whole(SMALL)});
  download("u1/a.arrow", entry_for(SMALL));
  download("u1/found.arrow", entry_for(SMALL, "found_signal_is_pnl"));

  EXPECT_EQ(data.read("u1/a.arrow"), SMALL);
  EXPECT_FALSE(data.has("u1/a.arrow.tmp"));
  EXPECT_EQ(result.bytes_downloaded, 60);
  EXPECT_EQ(result.features_downloaded, 1);
  EXPECT_THAT(result.found_pnl_paths_downloaded, ElementsAre(data.path("u1/found.arrow")));
  EXPECT_THAT(runtime_guard->updates, SizeIs(2));
  EXPECT_EQ(runtime_guard->updates[0], "u1/a.arrow feature " + sha256_hex(SMALL));
  EXPECT_EQ(progress->staged(), 60);
  EXPECT_THAT(progress->done(), ElementsAre("u1/a.arrow", "u1/found.arrow"));
  const auto request = server.requests(url_path("u1/a.arrow")).at(0);
  EXPECT_EQ(request.header("Authorization"), "");
  EXPECT_EQ(request.header("User-Agent"), "tidalcrest-sync/0.0.3");

  hash_cache._persist_hash_cache();
  EXPECT_THAT(data.read(".sync_hash_cache.json"), HasSubstr("\"u1/a.arrow\""));
}

TEST_F(FileDownloaderTest, LeavesGuardAndCacheAloneOutsideTheDataDirectory) {
  const auto runtime_guard = std::make_shared<RecordingGuard>();
  guard.set(runtime_guard);
  options.target_data_dir = data.path("generation");
  server.script(url_path("a.arrow"), {whole(SMALL)});
  download("a.arrow", entry_for(SMALL));
  EXPECT_EQ(data.read("generation/a.arrow"), SMALL);
  EXPECT_THAT(runtime_guard->updates, IsEmpty());
  hash_cache._persist_hash_cache();
  EXPECT_FALSE(data.has(".sync_hash_cache.json"));
}

TEST_F(FileDownloaderTest, FallsBackToTheActiveManifestsAddress) {
  options.generation.base_url.clear();
  server.script(url_path("a.arrow"), {whole(SMALL)});
  EXPECT_THAT(failure_of([&] { download("a.arrow", entry_for(SMALL)); }), StartsWith("ManifestError: "));
  activate(std::make_shared<Manifest>(
      Document{{"base_url", server.url() + "/data/releases"}, {"era_number", 5}, {"market_id", 1}}));
  download("a.arrow", entry_for(SMALL));
  EXPECT_EQ(data.read("a.arrow"), SMALL);
}

// Every road that ends with the right bytes: what was asked for, what was waited for, what counts as
// downloaded.
TEST_F(FileDownloaderTest, RecoversFromWhatTheServerDoes) {
  struct Case {
    const char* label;
    std::string bytes;
    std::string staged;
    std::vector<Reply> replies;
    Ranges ranges;
    Reasons waits;
  };
  const std::string wrong(30, '?');
  const std::string chunk = LARGE.substr(0, 40);
  const std::string most = LARGE.substr(0, 60);
  const std::string some = SMALL.substr(0, 10);
  const Reply rest = part(SMALL, 10, 20);
  const Reply large_rest = part(LARGE, 60, 40);
  const std::string broken = "http_request ConnectionError";
  const std::string repaired = "file_download sha256_mismatch";
  const std::string again = "file_download SyncError";
  // clang-format off
  const Case cases[] = {
      {"small, of exactly one chunk", chunk, "", {whole(chunk)}, {""}, {}},
      {"small, staged part continued", SMALL, some, {rest}, {"bytes=10-"}, {}},
      {"small, range ignored", SMALL, wrong, {whole(SMALL)}, {"bytes=30-"}, {}},
      {"small, resume point refused", SMALL, some, {status(416), whole(SMALL)}, {"bytes=10-", ""}, {again}},
      {"small, cut short", SMALL, "", {cut(whole(SMALL), 10), rest}, {"", "bytes=10-"}, {"file_download partial_transfer"}},
      {"small, reset", SMALL, "", {reset(whole(SMALL), 12), whole(SMALL)}, {"", ""}, {broken}},
      {"small, reset while resuming", SMALL, some, {reset(rest, 7), rest}, {"bytes=10-", "bytes=10-"}, {broken}},
      {"small, a whole answer breaks off and then the rest comes", SMALL, some, {reset(whole(SMALL), 7), rest, whole(SMALL)},
       {"bytes=10-", "bytes=10-", ""}, {broken, "file_download ConnectionError"}},
      {"small, busy server", SMALL, "", {status(503), whole(SMALL)}, {"", ""}, {"http_request http_503"}},
      {"small, wrong bytes once", SMALL, "", {whole(wrong), whole(SMALL)}, {"", ""}, {repaired}},
      {"large, direct stream", LARGE, "", {whole(LARGE)}, {""}, {}},
      {"large, direct stream broken", LARGE, "", {cut(whole(LARGE), 50), part(LARGE, 50, 40), part(LARGE, 90, 10)},
       {"", "bytes=50-89", "bytes=90-99"}, {"file_download ConnectionError"}},
      {"large, direct stream ends early", LARGE, "", {whole(most), large_rest}, {"", "bytes=60-99"}, {}},
      {"large, direct stream busy", LARGE, "", {status(503), whole(LARGE)}, {"", ""}, {again}},
      {"large, ranges answered in pieces", LARGE, most, {part(LARGE, 60, 15), part(LARGE, 75, 25)}, {"bytes=60-99", "bytes=75-99"}, {}},
      {"large, range reset", LARGE, most, {reset(large_rest, 20), large_rest}, {"bytes=60-99", "bytes=60-99"}, {broken}},
      {"large, nothing streamed and the range ignored", LARGE, "", {whole(""), whole(LARGE)}, {"", "bytes=0-39"}, {}},
      {"large, empty range", LARGE, most, {part(LARGE, 0, 0), large_rest}, {"bytes=60-99", "bytes=60-99"}, {"file_download partial_transfer"}},
      {"large, resume point refused", LARGE, most, {status(416), whole(LARGE)}, {"bytes=60-99", ""}, {again}},
      {"large, staged bytes wrong", LARGE, std::string(60, '?'), {large_rest, whole(LARGE)}, {"bytes=60-99", ""}, {repaired}},
      {"large, staged too much", LARGE, std::string(120, '?'), {whole(LARGE)}, {""}, {repaired}},
  };
  // clang-format on
  std::int64_t staged_in_all = 0;
  for (const auto& item : cases) {
    SCOPED_TRACE(item.label);
    const std::string path = prepare(item.staged, item.replies);
    const auto waits_before = backoff.waits().size();
    download(path, entry_for(item.bytes));
    EXPECT_EQ(data.read(path), item.bytes);
    EXPECT_FALSE(data.has(path + ".tmp"));
    EXPECT_EQ(ranges_asked(path), item.ranges);
    EXPECT_EQ(reasons_since(waits_before), item.waits);
    EXPECT_EQ(result.bytes_downloaded, item.bytes.size());
    staged_in_all += result.bytes_downloaded;
    EXPECT_EQ(progress->staged(), staged_in_all);
  }
}

TEST_F(FileDownloaderTest, LeavesToTheDigestWhatTheSizeDoesNotTell) {
  const Document undeclared{{"size_bytes", 0}};
  const Document overlong{{"size_bytes", 25}, {"sha256", sha256_hex(SMALL)}};
  for (const auto& file_info : {undeclared, overlong}) {
    const std::string path = prepare("", {whole(SMALL)});
    download(path, file_info);
    EXPECT_EQ(data.read(path), SMALL);
  }
}

// Every road that ends the download: the failure, and what stays staged (null: no staging file).
TEST_F(FileDownloaderTest, GivesUpWithTheRightFailureAndStagedBytes) {
  struct Case {
    const char* label;
    std::string bytes;
    std::string staged;
    Reply reply;
    std::string failure;  // {} stands for the path
    std::string staged_after;
    bool retry_partial_transfer = true;
    bool retry_checksum_mismatch = true;
  };
  const std::string wrong(30, '?');
  const std::string some = SMALL.substr(0, 9);
  const std::string most = LARGE.substr(0, 60);
  const std::string http = "PermanentDownloadError: Download failed for {}: HTTP ";
  const std::string mismatch =
      "IntegrityError: Checksum failure for {}: expected " + sha256_hex(SMALL) + ", got ";
  const Reply not_retryable{.status = 503, .body = R"({"retryable": false})"};
  // clang-format off
  const Case cases[] = {
      {"small fresh, missing", SMALL, "", status(404), http + "404", ""},
      {"small fresh, unexpected part", SMALL, "", part(SMALL, 0, 30), http + "206", ""},
      {"small resume, missing", SMALL, some, status(404), http + "404", some},
      {"small resume, no content", SMALL, some, status(204), http + "204", some},
      {"direct stream, missing", LARGE, "", status(404), http + "404", ""},
      {"direct stream, unexpected part", LARGE, "", part(LARGE, 0, 60), http + "206", ""},
      {"direct stream, refused", LARGE, "", status(401), "AuthError: Authentication failed while downloading {}: HTTP 401", ""},
      {"range, missing", LARGE, most, status(404), http + "404", most},
      {"range above 0 ignored", LARGE, most, whole(LARGE), http + "200", most},
      {"short, not to be retried", SMALL, "", cut(whole(SMALL), 9),
       "IntegrityError: Incomplete download for {}: got 9 bytes, expected 30", some, false},
      {"wrong, not to be retried", SMALL, "", whole(wrong), mismatch + sha256_hex(wrong), wrong, true, false},
      {"server says no", SMALL, some, not_retryable, "SyncUnavailableError: ", some},
  };
  // clang-format on
  for (const auto& item : cases) {
    SCOPED_TRACE(item.label);
    const std::string path = prepare(item.staged, {item.reply});
    options.retry_partial_transfer = item.retry_partial_transfer;
    options.retry_checksum_mismatch = item.retry_checksum_mismatch;
    std::string expected = item.failure;
    if (const auto at = expected.find("{}"); at != std::string::npos) expected.replace(at, 2, path);
    EXPECT_THAT(failure_of([&] { download(path, entry_for(item.bytes)); }), StartsWith(expected));
    EXPECT_FALSE(data.has(path));
    ASSERT_TRUE(data.has(path + ".tmp"));
    EXPECT_EQ(data.read(path + ".tmp"), item.staged_after);
    EXPECT_EQ(ranges_asked(path).size(), 1u);
    EXPECT_EQ(result.bytes_downloaded, 0);
  }
  EXPECT_THAT(backoff.waits(), IsEmpty());
}

TEST_F(FileDownloaderTest, TakesBackABrokenAnswerWhenTheServerThenRefuses) {
  const std::string some = SMALL.substr(0, 9);
  const std::string path = prepare(some, {reset(part(SMALL, 9, 21), 7), status(404)});
  EXPECT_THAT(failure_of([&] { download(path, entry_for(SMALL)); }), StartsWith("PermanentDownloadError: "));
  EXPECT_EQ(data.read(path + ".tmp"), some);
  EXPECT_EQ(progress->staged(), 9);
}

TEST_F(FileDownloaderTest, StopsRepairsThatBringNoMoreBytes) {
  struct Case {
    const char* label;
    std::vector<Reply> replies;
    std::size_t requests;
    const char* event_reason;
    const char* failure;
  };
  const Reply wrong = whole(std::string(30, '?'));
  const Reply twelve = whole(SMALL.substr(0, 12)), thirteen = whole(SMALL.substr(0, 13));
  const char* const incomplete = "IntegrityError: Incomplete download for ";
  const char* const mismatch = "IntegrityError: Checksum failure for ";
  const Case cases[] = {
      {"short four times", {twelve}, 4, "size_mismatch", incomplete},
      {"growth starts anew", {twelve, twelve, twelve, thirteen}, 7, "size_mismatch", incomplete},
      {"wrong four times", {wrong}, 4, "sha256_mismatch", mismatch},
      {"short and wrong share the count", {twelve, twelve, wrong}, 6, "sha256_mismatch", mismatch},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.label);
    const std::string path = prepare("", item.replies);
    const auto waits_before = backoff.waits().size();
    EXPECT_THAT(failure_of([&] { download(path, entry_for(SMALL)); }), StartsWith(item.failure + path));
    EXPECT_EQ(ranges_asked(path).size(), item.requests);
    EXPECT_EQ(backoff.waits().size() - waits_before, item.requests - 1);
    EXPECT_FALSE(data.has(path + ".tmp"));
    const auto exhausted = log.events("checksum_repair_exhausted").back();
    EXPECT_EQ(exhausted.at("reason"), item.event_reason);
    EXPECT_EQ(exhausted.at("count"), item.requests);
  }
  EXPECT_EQ(progress->staged(), 0);
}

TEST_F(FileDownloaderTest, AbandonsAFileOfASupersededManifest) {
  struct Case {
    const char* reason;
    std::string bytes;
    std::string staged;
    Reply reply;
  };
  const Case cases[] = {
      {"partial_transfer", SMALL, "", cut(whole(SMALL), 12)},
      {"empty_range", LARGE, LARGE.substr(0, 60), part(LARGE, 0, 0)},
      {"http_404", LARGE, LARGE.substr(0, 60), status(404)},
      {"http_200", LARGE, LARGE.substr(0, 60), whole(LARGE)},
      {"sha256_mismatch", SMALL, "", whole(std::string(30, '?'))},
  };
  supersede();
  for (const auto& item : cases) {
    SCOPED_TRACE(item.reason);
    const std::string path = prepare(item.staged, {item.reply});
    EXPECT_EQ(
        failure_of([&] { download(path, entry_for(item.bytes)); }),
        "ManifestSupersededError: Manifest advanced while downloading " + path + "; refreshing before retry");
    ASSERT_TRUE(data.has(path + ".tmp"));
    EXPECT_EQ(data.read(path + ".tmp"), "");
    const auto event = log.events("manifest_superseded").back();
    EXPECT_EQ(event.at("reason"), item.reason);
    EXPECT_EQ(event.at("manifest_version"), 10);
    EXPECT_EQ(event.at("manifest_era_number"), 5);
  }
  const auto probes = server.requests("/data/manifest/version").size();
  const std::string path = prepare(SMALL.substr(0, 9), {status(404)});
  EXPECT_THAT(failure_of([&] { download(path, entry_for(SMALL)); }), StartsWith("PermanentDownloadError"));
  EXPECT_EQ(server.requests("/data/manifest/version").size(), probes);  // the small-file resume does not ask
}

TEST_F(FileDownloaderTest, LogsResumesAndResets) {
  const std::string path = prepare(LARGE.substr(0, 60), {status(416), whole(LARGE)});
  options.generation.version = 3;
  std::vector<double> told;
  options.retry_status_callback = [&told](double wait_s) { told.push_back(wait_s); };
  download(path, entry_for(LARGE));
  const auto resumes = log.events("range_resume");
  ASSERT_THAT(resumes, SizeIs(1));
  EXPECT_EQ(resumes[0], parse_json(R"({"event_type": "range_resume", "file": ")" + path +
                                   R"(", "count": 1, "reason": "partial_tmp", "bytes_existing": 60})"));
  const auto resets = log.events("range_resume_reset");
  ASSERT_THAT(resets, SizeIs(1));
  EXPECT_EQ(resets[0],
            parse_json(R"({"event_type": "range_resume_reset", "file": ")" + path +
                       R"(", "count": 1, "reason": "http_416", "expected_size": 100, "actual_size": 60,
                           "range_start": 60, "range_end": 99, "manifest_version": 3})"));
  EXPECT_THAT(told, ElementsAre(1.0));
}

TEST_F(FileDownloaderTest, KeepsStagedBytesWhenAStopIsRequested) {
  bool stop = true;
  const ScopedBackoffContext context({.stop_requested = [&stop] { return stop; }});
  const std::string path = prepare("", {cut(whole(SMALL), 12), part(SMALL, 12, 18)});
  EXPECT_EQ(failure_of([&] { download(path, entry_for(SMALL)); }), "SyncBackoffCancelled: cancelled");
  EXPECT_EQ(data.read(path + ".tmp"), SMALL.substr(0, 12));
  stop = false;
  download(path, entry_for(SMALL));
  EXPECT_EQ(data.read(path), SMALL);
  EXPECT_EQ(ranges_asked(path), (Ranges{"", "bytes=12-"}));
  stop = true;
  const std::string staged = pattern_bytes(5000);
  const std::string unread = prepare(staged, {whole(SMALL)});
  EXPECT_EQ(failure_of([&] { download(unread, entry_for(SMALL)); }), "SyncBackoffCancelled: cancelled");
  EXPECT_EQ(data.read(unread + ".tmp"), staged);
  EXPECT_THAT(ranges_asked(unread), IsEmpty());
}

TEST_F(FileDownloaderTest, KeepsTheWholeAnswerBehindABrokenOne) {
  // curl, told to write to its standard output, leaves there what an answer brought that it then repeated.
  testing::TempDir bin;
  bin.write("curl",
            "#!/bin/sh\ncat \"$(dirname \"$0\")/answer\"\nprintf '\\nTIDALCREST_HTTP_STATUS:200\\n' >&2\n");
  std::filesystem::permissions(bin.path("curl"), std::filesystem::perms::owner_all);
  bin.write("answer", "error text" + LARGE);
  const ScopedEnvironment search_path("PATH", bin.path() + ":" + getenv("PATH"));
  knobs.set("curl", nullptr, nullptr);
  options.generation.base_url = "https://data.tidalcrest.example";
  download("a.bin", entry_for(LARGE));
  EXPECT_EQ(data.read("a.bin"), LARGE);
  EXPECT_EQ(result.bytes_downloaded, static_cast<std::int64_t>(LARGE.size()));
  EXPECT_THAT(backoff.waits(), IsEmpty());
}

TEST_F(FileDownloaderTest, NeverWritesThroughAStagingFileWithAnotherName) {
  const std::string path = prepare("", {whole(SMALL)});
  data.write("elsewhere", "not to be touched");
  std::filesystem::create_directories(std::filesystem::path(data.path(path)).parent_path());
  std::filesystem::create_hard_link(data.path("elsewhere"), data.path(path + ".tmp"));
  download(path, entry_for(SMALL));
  EXPECT_EQ(data.read(path), SMALL);
  EXPECT_EQ(data.read("elsewhere"), "not to be touched");
}

TEST_F(FileDownloaderTest, NeverRepeatsALocalFailure) {
  const auto expect_boundary_failure = [&](const std::string& path) {
    EXPECT_THAT(failure_of([&] { download(path, entry_for(SMALL)); }),
                StartsWith("SyncError: Unsafe local download boundary for " + path + ": "));
  };
  const std::string linked = prepare("", {whole(SMALL)});
  data.write("elsewhere", "precious");
  std::filesystem::create_directories(data.path("cases"));
  std::filesystem::create_symlink(data.path("elsewhere"), data.path(linked + ".tmp"));
  expect_boundary_failure(linked);
  EXPECT_EQ(data.read("elsewhere"), "precious");

  const std::string full = prepare("", {whole(SMALL)});
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, SIG_IGN);
  const rlimit tight{10, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &tight);  // stands for a disk with room for ten bytes
  const ScopeExit restore([&before] { setrlimit(RLIMIT_FSIZE, &before); });
  expect_boundary_failure(full);
  EXPECT_EQ(ranges_asked(full).size(), 1u);

  options.target_data_dir = data.path("elsewhere");  // a file where a root should be
  expect_boundary_failure("a.bin");
  EXPECT_THAT(backoff.waits(), IsEmpty());
}

}  // namespace
}  // namespace tidalcrest::sync
