#include "cohort/active_cohort_views.hpp"

#include <future>

#include "cohort/cohort_loader.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

using ViewsTest = testing::SyncFixture;

TEST_F(ViewsTest, FlatStateHasNoView) {
  const auto manager = make_manager();
  EXPECT_THROW(manager->active_cohort_snapshot(), FileNotFoundError);
  data.write("manifest.json", R"({"era_number": 1, "market_id": 1, "files": {}})");
  EXPECT_THROW(make_manager()->active_cohort_snapshot(), LocalCohortError);
}

TEST_F(ViewsTest, PublicationWaitsForAPinAndTheSnapshotKeepsDescribingItsRoot) {
  const auto manager = synced_manager();
  const auto snapshot = manager->active_cohort_snapshot();
  EXPECT_EQ(snapshot.root_dir(), manager->active_data_dir());
  EXPECT_EQ(snapshot, manager->active_cohort_snapshot());

  origin.publish(small_distribution().file("extra.bin", "x", "reference"));
  const auto other = make_manager();
  std::future<SyncResult> publication;
  {
    ActiveCohortPin pin = manager->pin_active_cohort_snapshot();
    publication = std::async(std::launch::async, [&] { return other->sync(); });
    EXPECT_EQ(publication.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    EXPECT_TRUE(std::filesystem::exists(pin.snapshot().root_dir() + "/functions.json"));
    pin.release();
  }
  publication.get();
  EXPECT_NE(other->active_cohort_snapshot().root_dir(), snapshot.root_dir());
  EXPECT_TRUE(std::filesystem::exists(snapshot.root_dir() + "/functions.json"));
  EXPECT_EQ(failure_of([&] { manager->active_cohort_snapshot(); }),
            "StateError: Pinned active cohort differs from the sync manager selection");
}

TEST_F(ViewsTest, CallUnderAPinRefusesToWaitForItselfAndOthersHearAStop) {
  const auto manager = synced_manager();
  const ActiveCohortPin pin = manager->pin_active_cohort_snapshot();
  EXPECT_THROW(manager->sync(), StateError);
  EXPECT_THROW(manager->active_cohort_snapshot(), StateError);
  std::atomic<bool> stop = false;
  auto waiting = std::async(std::launch::async, [&] {
    const ScopedBackoffContext context({.stop_requested = [&] { return stop.load(); }});
    manager->sync();
  });
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  stop = true;
  EXPECT_THROW(waiting.get(), SyncBackoffCancelled);
}

TEST_F(ViewsTest, PinMayOutliveItsManager) {
  auto manager = synced_manager();
  std::optional<ActiveCohortPin> pin = manager->pin_active_cohort_snapshot();
  manager.reset();
  EXPECT_TRUE(std::filesystem::exists(pin->snapshot().root_dir() + "/functions.json"));
  pin.reset();  // the checkers see a lock that went with the manager
  EXPECT_NO_THROW(make_manager()->sync());

  // As the pin of a view that nobody else owns.
  const auto lock = std::make_shared<SyncLock>(data.path());
  const ActiveViewHolder active(load_cohort_pointer(data.path()));
  const ActiveCohortViews views(data.path(), *lock, active);
  pin = views.pin_active_cohort_snapshot(lock);
  EXPECT_EQ(lock.use_count(), 2);
  pin->release();
  EXPECT_EQ(lock.use_count(), 1);
}

TEST_F(ViewsTest, ReadbackFindsASwappedRootAndLetsGoOfEverything) {
  const auto manager = synced_manager();
  const std::string root = manager->active_data_dir();
  ActiveCohortPin pin = manager->pin_active_cohort_snapshot();
  std::filesystem::rename(root, root + "-aside");
  std::filesystem::copy(root + "-aside", root, std::filesystem::copy_options::recursive);
  EXPECT_THROW(pin.release(), OSError);
  EXPECT_NO_THROW(manager->active_cohort_snapshot());
}

}  // namespace
}  // namespace tidalcrest::sync
