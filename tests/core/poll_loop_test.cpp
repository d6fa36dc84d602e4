#include "core/poll_loop.hpp"

#include "cohort/cohort_loader.hpp"
#include "core/repair_queue.hpp"
#include "siblings/distribution/sync_backoff.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

// A poll loop whose collaborators only note that they were called.
class PollLoopTest : public ::testing::Test {
 public:
  std::vector<std::string> poll() {
    events.clear();
    loop._poll_once();
    return events;
  }

  testing::LogCapture log;
  testing::TempDir data;
  ManagerState state;
  SyncLock lock{data.path()};
  std::vector<std::string> events;
  std::function<void()> repair_queued_files = [] {};
  std::function<bool()> needs_sync = [] { return true; };
  std::function<void()> sync = [] {};
  PollLoop loop{data.path(),
                /*poll_interval=*/0.001,
                {.state = state,
                 .lock = lock,
                 .repair_queued_files = [this] { repair_queued_files(); },
                 .needs_sync =
                     [this] {
                       events.push_back("asked");
                       return needs_sync();
                     },
                 .sync_with_manifest_refresh =
                     [this] {
                       EXPECT_TRUE(lock._sync_lock().held_by_this_thread());
                       events.push_back("synced");
                       sync();
                     }}};
};

TEST_F(PollLoopTest, SyncsWhereThereIsNeedAndNothingElseIsUnderWay) {
  EXPECT_THAT(poll(), ElementsAre("asked", "synced"));
  needs_sync = [] { return false; };
  EXPECT_THAT(poll(), ElementsAre("asked"));
  needs_sync = [this] {
    state.enter_transition();
    return true;
  };
  EXPECT_THAT(poll(), ElementsAre("asked")) << "a transition began while the question waited";
  EXPECT_THAT(poll(), IsEmpty());
  state.leave_transition();
  lock._sync_lock().lock();
  EXPECT_THAT(poll(), IsEmpty());
  lock._sync_lock().unlock();
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(PollLoopTest, LogsAFailedSyncAndLeavesTheLocksFree) {
  sync = [] { throw EraError("another era"); };
  poll();
  needs_sync = []() -> bool { throw SyncUnavailableError("https://api/x", 3); };
  poll();
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "warning: Poll once failed: another era");
  EXPECT_THAT(lines[1], StartsWith("warning: Poll once failed: TidalCrest data sync unavailable"));
  const WriterScope both_are_free(lock);
}

TEST_F(PollLoopTest, SurvivesEveryCycleUntilItIsStopped) {
  std::atomic<int> cycles = 0;
  const auto stop = std::make_shared<Event>();
  bool saw_stop = false;
  int repairs = 0;
  repair_queued_files = [&] {
    if (++repairs == 1) throw SyncError("no repair");
  };
  sync = [&] {
    if (++cycles < 5) throw RuntimeError("bad cycle");
    stop->set();
    // Seen by every wait of the sync.
    saw_stop = sync_backoff::module_seam().current()->current_context().stop_requested();
  };
  loop._poll_loop(stop);
  EXPECT_EQ(cycles, 5);
  EXPECT_EQ(repairs, 6) << "no sync in the cycle of a failed repair";
  EXPECT_TRUE(log.has("warning: Poll loop iteration failed: no repair"));
  EXPECT_TRUE(saw_stop);
}

class RepairQueueTest : public ::testing::Test {
 public:
  RepairQueueTest() { state.set_running(true); }
  ~RepairQueueTest() override { wait_for_repairs(); }
  void wait_for_repairs() const {
    EXPECT_TRUE(eventually([this] { return queue.use_count() == 1; }));
  }

  testing::LogCapture log;
  testing::TempDir data;
  ManagerState state;
  ActiveViewHolder active{flat_view(data.path())};
  std::function<void(const std::vector<std::string>&)> repair;
  const std::shared_ptr<RepairQueue> queue = std::make_shared<RepairQueue>(
      data.path(), state, active, [this](const std::vector<std::string>& files) { repair(files); });
};

TEST_F(RepairQueueTest, RepairsOnAThreadOfItsOwnThatAStopReaches) {
  Event started, ended;
  std::vector<std::string> repaired;
  repair = [&](const std::vector<std::string>& files) {
    repaired = files;
    started.set();
    const auto context = sync_backoff::module_seam().current()->current_context();
    while (!context.stop_requested()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ended.set();
    throw SyncBackoffCancelled("stopped");
  };
  RepairQueue::report_corruption(queue, "a");
  ASSERT_TRUE(started.wait_for(std::chrono::seconds(5)));
  EXPECT_FALSE(ended.is_set());
  EXPECT_NO_THROW(queue->_repair_queued_files()) << "the thread has taken what was queued";
  state.stop_event()->set();
  ASSERT_TRUE(ended.wait_for(std::chrono::seconds(5)));
  wait_for_repairs();
  EXPECT_THAT(repaired, ElementsAre("a"));
  EXPECT_TRUE(log.has("warning: Background repair failed: stopped"));
}

TEST_F(RepairQueueTest, RefusesReportsThatNobodyCouldActOn) {
  repair = [](const std::vector<std::string>&) {};
  ActiveView view = *active.get();
  view.manifest = std::make_shared<const Manifest>(
      Document{{"era_number", 1}, {"market_id", 1}, {"files", {{"known", {{"kind", "feature"}}}}}});
  active.set(std::make_shared<const ActiveView>(view));
  EXPECT_EQ(failure_of([&] { RepairQueue::report_corruption(queue, "unknown"); }),
            "ValueError: File not in manifest: unknown");
  EXPECT_EQ(failure_of([&] { RepairQueue::report_corruption(queue, "known"); }), "nothing");
  state.set_running(false);
  EXPECT_EQ(failure_of([&] { RepairQueue::report_corruption(queue, "known"); }),
            "StateError: Sync thread is not running. Call start() or acquire() first.");
}

// The question as the poll loop asks it of a real server.
using NeedsSyncTest = testing::SyncFixture;

TEST_F(NeedsSyncTest, IsTrueOnEveryDoubt) {
  origin.publish(small_distribution());
  auto manager = make_manager();
  EXPECT_TRUE(manager->needs_sync()) << "no manifest";
  manager->sync();
  EXPECT_FALSE(manager->needs_sync());

  const std::pair<const char*, const char*> cases[] = {
      // No hash in the answer, a version that is equal by value.
      {R"(body body={"version": 1, "market_id": 1})", "false"},
      {R"(body body={"version": 1.0, "market_id": 1})", "false"},
      // Another version, one of another type, none; another hash.
      {R"(body body={"version": 2, "market_id": 1})", "true"},
      {R"(body body={"version": "1", "market_id": 1})", "true"},
      {R"(body body={"market_id": 1})", "true"},
      {R"(body body={"version": 1, "market_id": 1, "sha256": "00"})", "true"},
      {"status=304", "true"},
      {"status=404", "true"},
      {R"(body body={"version": 1, "market_id": 2})",
       "ManifestError: manifest version response market_id must exactly match configured market_id=1"},
      {R"(status=503 body={"retryable": false})", "SyncUnavailableError"},
  };
  for (const auto& [answer, outcome] : cases) {
    SCOPED_TRACE(answer);
    origin.fault(std::string("/data/manifest/version ") + answer);
    bool needed = false;
    const std::string failure = failure_of([&] { needed = manager->needs_sync(); });
    EXPECT_THAT(failure == "nothing" ? (needed ? "true" : "false") : failure, StartsWith(outcome));
    origin.clear_faults();
  }
  std::filesystem::remove(manager->active_data_dir() + "/features/u1/signal_is/alpha__one__x__a.arrow");
  EXPECT_TRUE(manager->needs_sync()) << "a member is gone";
  manager->sync();
  EXPECT_FALSE(manager->needs_sync());
  origin.publish(small_distribution().feature("u1", "signal_is", "alpha__one__x__c", "new"));
  EXPECT_TRUE(manager->needs_sync());
}

}  // namespace
}  // namespace tidalcrest::sync
