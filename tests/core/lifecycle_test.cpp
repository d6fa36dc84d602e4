#include "core/lifecycle.hpp"

#include <sys/stat.h>

#include "cohort/cohort_loader.hpp"
#include "core/registry.hpp"
#include "siblings/distribution/lock.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

using namespace std::chrono_literals;

// Managers with real threads between a data directory and an origin.
class LifecycleTest : public testing::SyncFixture {
 public:
  LifecycleTest() { seams = Seams::real(); }

  SyncOptions polling_every(double seconds) {
    auto wanted = options();
    wanted.poll_interval_s = seconds;
    return wanted;
  }
  std::shared_ptr<SyncManager> registered() { return SyncManager::get_or_create(polling_every(0.01)); }
  bool is_registered() const {
    auto& registry = Registry::of_this_process();
    const MutexLock guard(registry._class_lock);
    return registry._instances.contains(canonical_path(data.path()));
  }
  void on_era_event(SyncManager& manager, std::function<void(const std::string&, std::int64_t)> call) {
    manager.register_era_callback({.call = std::move(call), .identity = this});
  }
  bool monitors() const { return !origin.requests("/market/1/era/current").empty(); }
};

TEST_F(LifecycleTest, SyncsByItselfFromTheFirstConsumerToTheLast) {
  origin.publish(small_distribution());
  auto manager = registered();
  EXPECT_FALSE(manager->is_alive());
  manager->acquire();
  manager->acquire();
  EXPECT_EQ(manager->consumer_count(), 2);
  EXPECT_EQ(data.read(".consumer_count"), "2");
  EXPECT_TRUE(eventually([&] { return manager->get_manifest() != nullptr; }));
  origin.publish(small_distribution());
  EXPECT_TRUE(eventually([&] { return manager->get_manifest()->version() == 2; }));
  EXPECT_TRUE(eventually([&] { return monitors(); }));
  EXPECT_EQ(failure_of([&] { manager->start(); }), "StateError: SyncManager already running");

  manager->release();
  EXPECT_TRUE(manager->is_alive());
  EXPECT_TRUE(is_registered());
  manager->release();
  EXPECT_FALSE(manager->is_alive());
  EXPECT_FALSE(is_registered());
  EXPECT_EQ(data.read(".consumer_count"), "0");
  manager->release();
  EXPECT_EQ(manager->consumer_count(), 0);
  EXPECT_NE(registered(), manager);
  SyncManager::_evict(data.path());
}

TEST_F(LifecycleTest, ReleasesNothingWithoutConsumersAndCountsThoseOfADeadProcess) {
  data.write(".consumer_count", "1");
  auto manager = registered();
  manager->acquire();
  manager->release();
  EXPECT_TRUE(manager->is_alive()) << "the dead one never lets go";
  EXPECT_TRUE(is_registered());
  manager->stop();
  manager->release();
  EXPECT_FALSE(is_registered());
}

TEST_F(LifecycleTest, PollsWithoutFollowingTheEraAfterAPublicStart) {
  SyncManager manager(polling_every(0.01), seams);
  manager.stop();
  manager.start();
  EXPECT_EQ(failure_of([&] { manager.start(); }), "StateError: SyncManager already running");
  manager.acquire();
  EXPECT_TRUE(eventually([&] { return origin.requests("/data/manifest/version").size() > 3; }));
  EXPECT_FALSE(monitors());
  manager.stop();
  manager.stop();
  EXPECT_FALSE(manager.is_alive());
  manager.acquire();
  EXPECT_TRUE(eventually([&] { return monitors(); })) << "a consumer's start after a stop has both threads";
}

TEST_F(LifecycleTest, RepairsAReportedFileInTheBackground) {
  origin.publish(small_distribution());
  SyncManager manager(polling_every(600), seams);
  manager.sync();
  manager.start();
  const std::string member = manager.active_data_dir() + "/reference/calendar.bin";
  std::ofstream(member) << "damaged!";
  manager.report_corruption("reference/calendar.bin");
  EXPECT_TRUE(eventually([&] {
    return testing::files_below(manager.active_data_dir())["reference/calendar.bin"] == "calendar";
  }));
}

// Whatever a thread of the manager waits for, a stop ends the wait.
TEST_F(LifecycleTest, StopsSoonDuringEveryWait) {
  struct Case {
    const char* label;
    const char* fault;
    const char* waited_for;
    bool lock_is_taken = false;
  };
  const char* const version = "/data/manifest/version";
  const Case cases[] = {
      {"the next poll", "none status=503", version},
      {"a server that is away", "* status=503 count=all", version},
      {"an answer", "/data/* delay=30 count=all", version},
      {"a transfer", "features/* stall=2 seconds=30 count=all", "features/*"},
      {"another process's lock", "none status=503", version, true},
  };
  origin.publish(small_distribution());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    origin.forget_requests();
    SyncManager manager(polling_every(600), seams);
    origin.fault(c.fault);
    std::optional<DistributionLock> held;
    if (c.lock_is_taken) held = acquire_distribution_lock(data.path(), /*exclusive=*/true);
    manager.acquire();
    EXPECT_TRUE(eventually([&] { return !origin.requests(c.waited_for).empty(); }));
    std::this_thread::sleep_for(50ms);
    const auto before = std::chrono::steady_clock::now();
    manager.release();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 5s);
    EXPECT_FALSE(manager.is_alive());
    origin.clear_faults();
    std::filesystem::remove_all(data.path(".tidalcrest-cohorts"));
    data.remove("manifest.json");
  }
}

// The last reference goes with the release, on the era thread, inside a callback of the transition.
TEST_F(LifecycleTest, MayBeReleasedForGoodFromAnEraCallback) {
  origin.publish(small_distribution());
  auto manager = registered();
  manager->sync();
  const std::weak_ptr<SyncManager> watched = manager;
  Event killed, restarted;
  SyncManager* const raw = manager.get();
  on_era_event(*manager, [&, raw](const std::string& event_type, std::int64_t era_number) {
    EXPECT_EQ(era_number, event_type == "kill" ? 1 : 2);
    if (event_type == "kill") return killed.set();
    raw->release();
    restarted.set();
  });
  manager->acquire();
  manager.reset();
  const auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(eventually([&] { return monitors(); }));
  origin.publish(small_distribution().era(2));
  ASSERT_TRUE(killed.wait_for(5s));
  ASSERT_TRUE(restarted.wait_for(5s)) << "nobody waits for itself";
  EXPECT_LT(std::chrono::steady_clock::now() - before, 8s);
  EXPECT_TRUE(watched.expired());
  EXPECT_FALSE(is_registered());
  EXPECT_TRUE(eventually([&] { return !data.has(".transition_lock"); }))
      << "the transition ends all the same";
}

TEST_F(LifecycleTest, TellsSearchesOfEraZeroWithoutAManifest) {
  origin.publish(small_distribution());
  origin.set_era_state("closing");
  origin.fault("/data/* status=404 count=all");  // the poll thread gets nothing
  auto manager = registered();
  Event killed;
  on_era_event(*manager, [&](const std::string& event_type, std::int64_t era_number) {
    EXPECT_EQ(event_type + std::to_string(era_number), "kill0");
    killed.set();
  });
  manager->acquire();
  EXPECT_TRUE(killed.wait_for(5s));
  manager->release();
}

TEST(ConsumerCountFile, IsReplacedAndNeverWrittenThroughAnotherName) {
  const testing::TempDir data, outside;
  const std::string file = data.path(".consumer_count");
  outside.write("file", "not ours");
  std::filesystem::create_hard_link(outside.path("file"), file);
  ConsumerCount count(data.path());
  EXPECT_EQ(count.value(), 0);
  count.set(2);
  EXPECT_EQ(data.read(".consumer_count"), "2");
  std::filesystem::remove(file);
  std::filesystem::create_symlink(outside.path("file"), file);
  count.set(3);
  EXPECT_EQ(outside.read("file"), "not ours");
  std::filesystem::remove(file);
  ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
  EXPECT_EQ(ConsumerCount(data.path()).value(), 0) << "a FIFO blocks nobody";
}

// The bounds of a stop, with threads that do not obey.
class StopTest : public ::testing::Test {
 public:
  Lifecycle::Collaborators collaborators() {
    return {.state = state,
            .consumers = consumers,
            .lock = lock,
            .era_callbacks = std::make_shared<EraCallbacks>(),
            .active = std::make_shared<ActiveViewHolder>(flat_view(data.path())),
            .poll_loop = [this](const std::shared_ptr<const Event>& stop) { poll_loop(stop); },
            .make_era_thread = [this](auto, auto) { return era_thread; }};
  }
  testing::LogCapture log;
  testing::TempDir data;
  ManagerState state;
  ConsumerCount consumers{data.path()};
  SyncLock lock{data.path()};
  std::function<void(const std::shared_ptr<const Event>&)> poll_loop = [](const auto& stop) {
    stop->wait_for(10s);
  };
  std::shared_ptr<EraMonitor> era_thread = std::make_shared<EraMonitor>(
      EraMonitor::Options{.server_url = "https://api", .get_token = [] { return ""; }, .target = {}});
  double slept = 0;
  Seams seams = [this] {
    Seams fake = Seams::real();
    fake.sleep = [this](double seconds) { slept += seconds; };
    return fake;
  }();
};

TEST_F(StopTest, WaitsForATransitionForTenSecondsAndForASyncWithoutABound) {
  Lifecycle lifecycle(data.path(), collaborators(), seams);
  lifecycle.start();
  state.enter_transition();
  Event stopped;
  lock._sync_lock().lock();
  std::thread stopper([&] {
    lifecycle.stop();
    stopped.set();
  });
  EXPECT_FALSE(stopped.wait_for(50ms));
  EXPECT_TRUE(state.running());
  lock._sync_lock().unlock();
  stopper.join();
  EXPECT_NEAR(slept, 10.0, 1e-6);
  EXPECT_FALSE(state.running());

  // Inside the sync, or the transition, that would have to end first.
  lifecycle.start();
  lock._sync_lock().lock();
  slept = 0;
  lifecycle.stop();
  lock._sync_lock().unlock();
  EXPECT_EQ(slept, 0) << "the transition runs on this very thread";
  EXPECT_FALSE(lifecycle.is_alive());
  state.leave_transition();
}

TEST_F(StopTest, LeavesAPollThreadThatMissesItsJoinToEndByItself) {
  Event leave;
  std::atomic<int> running = 0;
  std::atomic<int> revived = 0;
  poll_loop = [&](const std::shared_ptr<const Event>& stop) {
    ++running;
    leave.wait_for(10s);
    if (!stop->is_set()) ++revived;
    --running;
  };
  Lifecycle lifecycle(data.path(), collaborators(), seams, {.transition_checks = 0, .poll_thread = 20ms});
  lifecycle.start();
  ASSERT_TRUE(eventually([&] { return running == 1; }));
  lifecycle.stop();
  EXPECT_FALSE(lifecycle.is_alive());
  lifecycle.start();
  ASSERT_TRUE(eventually([&] { return running == 2; }));
  leave.set();
  ASSERT_TRUE(eventually([&] { return running == 0; }));
  EXPECT_EQ(revived, 1) << "the stop of the first run holds for its thread";
  lifecycle.stop();
}

TEST_F(StopTest, ReportsAnEraThreadThatIsStartedAlready) {
  era_thread->start();
  Lifecycle lifecycle(data.path(), collaborators(), seams);
  EXPECT_EQ(failure_of([&] { lifecycle.acquire(); }), "nothing");
  EXPECT_THAT(
      log.lines(LogLevel::error),
      ElementsAre(
          AllOf(StartsWith(
                    R"(error: tidalcrest_surface_event {"component": "state", "level": "error", "metadata": )"
                    R"({"reason": "era_thread_start_state"}, "source_file": "lifecycle.cpp", )"
                    R"("source_function": "_start_internal", "source_line": )"),
                EndsWith(R"(, "sub_service": "sync", "title": "Era synchronization"})"))));
}

}  // namespace
}  // namespace tidalcrest::sync
