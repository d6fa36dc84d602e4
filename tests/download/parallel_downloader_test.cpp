#include "download/parallel_downloader.hpp"

#include <pthread.h>

#include <future>

#include "download/download_fixture.hpp"
#include "download/download_pool.hpp"

namespace tidalcrest::sync {
namespace {

using namespace testing;

const std::string BYTES = pattern_bytes(30);

class ParallelDownloaderTest : public DownloadFixture {
 protected:
  void run(const std::vector<std::string>& paths) {
    FilesToDownload files;
    for (const auto& path : paths) files.push_back({path, &file_info});
    parallel._download_files_parallel(files, result, options.generation, std::nullopt);
  }
  std::string failure(const std::vector<std::string>& paths) {
    return failure_of([&] { run(paths); });
  }
  void serve(const std::string& path) { server.serve(url_path(path), BYTES); }
  void answer(const std::string& path, Reply reply) { server.script(url_path(path), {std::move(reply)}); }

  Document file_info = entry_for(BYTES);
  ParallelDownloader parallel{downloader, knobs};
};

std::string this_threads_name() {
  char name[16] = {};
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

TEST_F(ParallelDownloaderTest, BringsEveryFileOnNamedWorkersAndSumsTheirCounters) {
  file_info["kind"] = "found_signal_is_pnl";
  std::mutex mutex;
  std::set<std::string> names;
  progress->on_staged = [&](std::int64_t) {
    const std::lock_guard lock(mutex);
    names.insert(this_threads_name());
  };
  std::vector<std::string> paths;
  std::vector<std::string> local_paths;
  for (int i = 0; i < 50; ++i) {
    paths.push_back("many/" + std::to_string(i));
    local_paths.push_back(data.path(paths.back()));
    serve(paths.back());
  }
  result.bytes_downloaded = 1;
  run(paths);
  for (const auto& path : paths) EXPECT_EQ(data.read(path), BYTES);
  EXPECT_EQ(result.bytes_downloaded, 1501);
  EXPECT_THAT(result.found_pnl_paths_downloaded, ::testing::UnorderedElementsAreArray(local_paths));
  EXPECT_THAT(names, ElementsAre("tc-sync"));
}

TEST_F(ParallelDownloaderTest, OneWorkerIsTheCallingThreadAndStopsAtItsFirstFailure) {
  const auto caller = std::this_thread::get_id();
  progress->on_staged = [&](std::int64_t) { EXPECT_EQ(std::this_thread::get_id(), caller); };
  serve("alone");
  run({"alone"});  // one file, eight workers allowed
  knobs.set(nullptr, nullptr, 1);
  serve("first");
  serve("third");
  EXPECT_EQ(failure({"first", "second", "third"}),
            "PermanentDownloadError: Download failed for second: HTTP 404");
  EXPECT_TRUE(data.has("first"));
  EXPECT_FALSE(data.has("third"));
  EXPECT_EQ(result.bytes_downloaded, 60);
  run({});
}

TEST_F(ParallelDownloaderTest, OneFailureDoesNotStopTheOthers) {
  knobs.set(nullptr, nullptr, 2);
  for (const auto* path : {"b", "c", "d"}) serve(path);
  EXPECT_EQ(failure({"a", "b", "c", "d"}), "PermanentDownloadError: Download failed for a: HTTP 404");
  for (const auto* path : {"b", "c", "d"}) EXPECT_TRUE(data.has(path));
  EXPECT_EQ(result.features_downloaded, 3);
}

TEST_F(ParallelDownloaderTest, ASupersededManifestWinsAndEndsTheWaitsOfTheOthers) {
  // "waits" is in a wait before "old" learns that its manifest is superseded; "failed" failed before both.
  knobs.set(nullptr, nullptr, 2);
  supersede();
  std::promise<void> waiting;
  backoff.on_wait([&](const std::function<bool()>& stop_requested) {
    waiting.set_value();
    while (!stop_requested()) std::this_thread::yield();
  });
  answer("waits", {.status = 503});
  server.script(url_path("old"), {});
  server.set_fallback([&](const origin::RecordedRequest& request) -> std::optional<Reply> {
    if (request.path != url_path("old")) return std::nullopt;
    waiting.get_future().wait();
    return Reply{.body = "short"};
  });
  EXPECT_THAT(failure({"failed", "waits", "old", "never"}), StartsWith("ManifestSupersededError: "));
  EXPECT_THAT(server.requests(url_path("never")), IsEmpty());
  EXPECT_EQ(backoff.waits().size(), 1u);
}

TEST_F(ParallelDownloaderTest, WorkersHeedTheCallersStopSignal) {
  const ScopedBackoffContext context({.stop_requested = [] { return true; }});
  answer("a", {.status = 503});
  answer("b", {.status = 503});
  EXPECT_EQ(failure({"a", "b"}), "SyncBackoffCancelled: cancelled");
  backoff.on_cancel([] { throw 42; });  // the host's own kind
  EXPECT_THROW(run({"a", "b"}), int);
}

TEST(DownloadPool, WithoutAThreadItRunsTheTasksForWhoWaitsForThem) {
  DownloadPool pool(2, 0, [](std::size_t index) -> SyncResult {
    if (index == 0) throw OSError("first");
    SyncResult local;
    local.features_downloaded = 7;
    return local;
  });
  EXPECT_TRUE(pool.next_end()->failure);
  EXPECT_EQ(pool.next_end()->result.features_downloaded, 7);
  EXPECT_FALSE(pool.next_end());
}

TEST(ParallelTimeout, NamesThreePendingPaths) {
  EXPECT_STREQ(parallel_timeout_failure(300.0, {"a", "b", "c", "d", "e"}).what(),
               "Timed out after 300.0s in parallel download with 5 file(s) pending: a, b, c, ...");
  EXPECT_STREQ(parallel_timeout_failure({}, {"a"}).what(),
               "Timed out after unbounded in parallel download with 1 file(s) pending: a");
}

}  // namespace
}  // namespace tidalcrest::sync
