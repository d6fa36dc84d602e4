#include "cohort/salvage.hpp"

#include "cohort/leftovers.hpp"
#include "siblings/distribution/disk_calls.hpp"
#include "support/network.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

using testing::files_below;
using ::testing::Pair;

constexpr int FILES = 40;

class SalvageTest : public testing::SyncFixture {
 public:
  static std::string path_of(int number) { return "reference/file" + std::to_string(number) + ".bin"; }
  static origin::ManifestBuilder distribution() {
    auto content = small_distribution();
    for (int i = 0; i < FILES; ++i)
      content.file(path_of(i), "content of file " + std::to_string(i), "reference");
    return content;
  }
  // A sync that fails on one file after all others have arrived.
  void fail_after_the_rest(origin::ManifestBuilder content) {
    origin.publish(content.file("never.bin", "x", "reference", {{"sha256", std::string(64, '0')}}));
    const auto manager = make_manager();
    EXPECT_THROW(manager->sync(), IntegrityError);
  }
  std::vector<std::string> cohort_roots() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(data.path(".tidalcrest-cohorts"))) {
      if (entry.is_directory()) names.push_back(entry.path().filename().string());
    }
    return names;
  }
};

TEST_F(SalvageTest, NothingThatArrivedWholeIsFetchedTwiceAlsoUnderANewerManifest) {
  fail_after_the_rest(distribution());
  origin.forget_requests();
  fail_after_the_rest(distribution().set("note", "another identity"));
  EXPECT_THAT(origin.resources_asked("reference/*"), IsEmpty());

  const std::string leftover =
      data.path(".tidalcrest-cohorts/" + local_cohort::manifest_sha256(origin.current().manifest_bytes));
  std::ofstream(leftover + "/" + path_of(3)) << "CONTENT of file 3";  // the right size and the wrong bytes
  origin.forget_requests();
  const auto manager = synced_manager(distribution().file(path_of(5), "content that is new", "reference"));
  EXPECT_THAT(origin.resources_asked("reference/*"), UnorderedElementsAre(path_of(3), path_of(5)));
  EXPECT_THAT(origin.resources_asked("found_*"), IsEmpty());
  EXPECT_TRUE(manager->verify().valid);
  EXPECT_THAT(cohort_roots(), ElementsAre(local_cohort::manifest_sha256(origin.current().manifest_bytes)));
}

TEST_F(SalvageTest, RepairOfTheLiveCohortLeavesTheStagingOfANewerOneToGoOn) {
  const auto live = synced_manager(distribution());
  const auto newer = distribution().file(path_of(5), "CONTENT of file 5", "reference");  // of the same size
  fail_after_the_rest(newer);
  data.write(".tidalcrest-cohorts/.repair-killed/" + path_of(5), "content of file 5");
  live->repair({path_of(1)});
  EXPECT_FALSE(data.has(".tidalcrest-cohorts/.repair-killed"));
  origin.forget_requests();
  synced_manager(newer);
  EXPECT_THAT(origin.resources_asked("reference/*"), IsEmpty());
}

TEST_F(SalvageTest, FoundFilesTakenOverAreStillReportedAsNew) {
  fail_after_the_rest(distribution());
  origin.publish(distribution());
  const auto manager = make_manager();
  const SyncResult result = manager->sync();
  EXPECT_EQ(result.found_pnl_paths_downloaded.size(), 2u);
  EXPECT_THAT(origin.resources_asked("never.bin"), SizeIs(::testing::Gt(0u)));
}

// Asks to stop in one phase of a staging.
class StopIn : public SyncProgress {
 public:
  explicit StopIn(std::string phase) : _phase(std::move(phase)) {}
  void on_phase(const std::string& phase) override { _reached = phase == _phase; }
  bool reached() const { return _reached; }

 private:
  const std::string _phase;
  std::atomic<bool> _reached = false;
};

TEST_F(SalvageTest, NothingIsTakenOverThatAFailedFlushMayHaveLost) {
  origin.publish(distribution());
  // The flush that begins early, heard at the publication or not at all, and the one before the selector.
  for (const auto& [failing_flush, stops_in] :
       std::vector<std::pair<int, std::string>>{{1, ""}, {1, "proving"}, {2, ""}}) {
    SCOPED_TRACE(::testing::Message() << "flush " << failing_flush << ", stop in " << stops_in);
    std::atomic<int> flushes = 0;
    disk_calls().flush_file_system = [&, failing = failing_flush](int) {
      return ++flushes == failing ? (errno = EIO, -1) : 0;
    };
    const auto stop = std::make_shared<StopIn>(stops_in);
    const ScopedBackoffContext context({.stop_requested = [&] { return stop->reached(); }});
    SyncOptions watched = options();
    watched.progress = stop;
    EXPECT_THROW(SyncManager(watched, seams).sync(), Failure);
    disk_calls() = DiskCalls::real();
    EXPECT_THAT(cohort_roots(), IsEmpty());
  }
  origin.forget_requests();
  const auto manager = make_manager();
  manager->sync();
  EXPECT_THAT(origin.resources_asked("reference/file*"), ::testing::SizeIs(FILES));
  EXPECT_TRUE(manager->verify().valid);
}

TEST_F(SalvageTest, StagedPrefixIsResumedWhenTheDigestIsTheSame) {
  auto content = small_distribution().file("long.bin", std::string(500000, 'z'), "reference");
  origin.publish(content);
  origin.fault("long.bin", {.kind = origin::Fault::Kind::STALL, .after = 200000, .seconds = 30});
  {
    const auto progress = std::make_shared<testing::CountingProgress>();
    SyncOptions one_at_a_time = options();
    one_at_a_time.sync_max_concurrency = 1;
    one_at_a_time.progress = progress;
    SyncManager manager(one_at_a_time, seams);
    const ScopedBackoffContext context({.stop_requested = [&] { return progress->staged() >= 100000; }});
    EXPECT_THROW(manager.sync(), SyncBackoffCancelled);
  }
  origin.clear_faults();
  origin.forget_requests();
  const auto manager = synced_manager(content.file("extra.bin", "x", "reference"));
  EXPECT_THAT(origin.ranges_asked("long.bin"), ElementsAre(::testing::MatchesRegex("bytes=[12][0-9]{5}-")));
  EXPECT_TRUE(manager->verify().valid);
}

TEST_F(SalvageTest, AttemptsThatEndEarlyLeaveOneCopyOfEachMember) {
  synced_manager(distribution());
  origin.publish(distribution().file(path_of(5), "content that is new", "reference"));
  const std::string name = local_cohort::manifest_sha256(origin.current().manifest_bytes);
  // As after kills in the midst of the copying: several roots that hold the same unchanged members.
  for (const char* root : {".leftover-a", ".leftover-b", ".leftover-c"}) {
    data.write(".tidalcrest-cohorts/" + (root + ("/" + path_of(1))), "content of file 1");
    data.write(".tidalcrest-cohorts/" + (root + ("/" + path_of(2))), "content of file 2");
  }
  data.write(".tidalcrest-cohorts/.leftover-c/" + path_of(3), "content of file 3");
  data.write(".tidalcrest-cohorts/.leftover-d/" + std::string(local_cohort::COHORT_MANIFEST_FILE), "{}");
  StagingRoots roots;
  roots.candidate_root = data.path(".tidalcrest-cohorts/" + name);
  roots.active_root = data.path();
  thin_out_earlier_attempts(data.path(), roots);
  std::map<std::string, int> copies;
  for (const auto& [path, bytes] : files_below(data.path(".tidalcrest-cohorts"))) {
    if (path.starts_with(".leftover-")) ++copies[path.substr(path.find('/') + 1)];
  }
  EXPECT_THAT(copies, ElementsAre(Pair(path_of(1), 1), Pair(path_of(2), 1), Pair(path_of(3), 1)));
  EXPECT_FALSE(data.has(".tidalcrest-cohorts/.leftover-d"));
}

}  // namespace
}  // namespace tidalcrest::sync
