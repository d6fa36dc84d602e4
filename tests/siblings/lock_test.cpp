#include "siblings/distribution/lock.hpp"

#include <sys/file.h>

#include <deque>

#include "files_fixture.hpp"
#include "siblings/distribution/cohort_layout.hpp"
#include "siblings/distribution/sync_backoff.hpp"
#include "tidalcrest/sync/log.hpp"

namespace tidalcrest::sync {
namespace {

// Called at the moment when a waiter says that it waits.
std::function<void(const LogRecord&)> on_waiting(std::function<void()> act) {
  return [act](const LogRecord& record) {
    if (record.message.starts_with("waiting for")) act();
  };
}

/// Whether the lock is free now: a context that is stopped already ends the first wait.
bool can_lock(const testing::TempDir& dir, bool exclusive) {
  const ScopedBackoffContext stopped({.stop_requested = [] { return true; }});
  return failure_of([&] { acquire_distribution_lock(dir.path(), exclusive); }) == "nothing";
}

TEST(DistributionLockTest, ExcludesHandlesOfOneProcess) {
  const testing::TempDir dir;
  {
    const auto first = acquire_distribution_lock(dir.path(), false);
    EXPECT_TRUE(can_lock(dir, false));
    EXPECT_FALSE(can_lock(dir, true));
  }
  auto writer = acquire_distribution_lock(dir.path(), true);
  EXPECT_FALSE(can_lock(dir, false));
  auto moved = std::move(writer);
  EXPECT_FALSE(can_lock(dir, false));
  moved.release();
  moved.release();
  moved.close();
  EXPECT_TRUE(can_lock(dir, true));
  moved = acquire_distribution_lock(dir.path(), true);
  moved.close();
  EXPECT_TRUE(can_lock(dir, true));
}

TEST(DistributionLockTest, ExcludesOtherProcessesAndDiesWithItsHolder) {
  struct Case {
    bool held_exclusive, wanted_exclusive, granted;
  };
  for (const auto& c : {Case{false, false, true}, Case{false, true, false}, Case{true, false, false},
                        Case{true, true, false}}) {
    SCOPED_TRACE(::testing::Message() << "held " << c.held_exclusive << " wanted " << c.wanted_exclusive);
    const testing::TempDir dir;
    testing::Child holder(
        [&] { new DistributionLock(acquire_distribution_lock(dir.path(), c.held_exclusive)); });
    ASSERT_TRUE(holder.is_ready);
    EXPECT_EQ(can_lock(dir, c.wanted_exclusive), c.granted);
    holder.kill();
    EXPECT_TRUE(can_lock(dir, c.wanted_exclusive));
  }
}

TEST(DistributionLockTest, WaitsUntilTheHolderLetsGoAndSaysSo) {
  const testing::TempDir dir;
  auto held = acquire_distribution_lock(dir.path(), true);
  const testing::LogCapture log(on_waiting([&] { held.release(); }));
  const auto lock = acquire_distribution_lock(dir.path(), false);
  const std::string name = "the shared distribution lock of " + dir.path();
  EXPECT_THAT(log.lines(LogLevel::debug),
              ElementsAre("debug: waiting for " + name,
                          AllOf(StartsWith("debug: got " + name + " after "), EndsWith(" s"))));
}

TEST(DistributionLockTest, AStopEndsTheWait) {
  const testing::TempDir dir;
  const auto held = acquire_distribution_lock(dir.path(), true);
  int asked = 0;
  const ScopedBackoffContext context({.stop_requested = [&] { return ++asked == 4; }});
  EXPECT_THROW(acquire_distribution_lock(dir.path(), true), SyncBackoffCancelled);
  EXPECT_EQ(asked, 4);
}

TEST(DistributionLockTest, ARemovedLockFileLocksNobodyOut) {
  const testing::TempDir dir;
  auto held = acquire_distribution_lock(dir.path(), true);
  const testing::LogCapture log(on_waiting([&] {
    dir.remove(local_cohort::COHORTS_DIRECTORY);
    held.release();
  }));
  const auto lock = acquire_distribution_lock(dir.path(), true);
  EXPECT_TRUE(dir.has(local_cohort::DISTRIBUTION_LOCK_FILE));
  EXPECT_FALSE(can_lock(dir, true));
}

TEST(DistributionLockTest, InterruptionsAndFileSystemsThatDoNotExclude) {
  const testing::RestoredDiskCalls restored;
  const testing::TempDir dir;
  int interruptions = 3;
  disk_calls().lock = [&](int descriptor, int operation) {
    if (interruptions-- > 0) return errno = EINTR, -1;
    return DiskCalls::real().lock(descriptor, operation);
  };
  EXPECT_NO_THROW(acquire_distribution_lock(dir.path(), true));

  disk_calls().lock = [](int, int) { return 0; };
  std::deque<testing::TempDir> others;  // the first may get the inode of a lock file that was proven before
  std::string refused = "nothing";
  while (refused == "nothing" && others.size() < 500) {
    refused = failure_of([&] { acquire_distribution_lock(others.emplace_back().path(), false); });
  }
  EXPECT_THAT(refused, AllOf(StartsWith("OSError: "), HasSubstr(others.back().path())));
  EXPECT_THROW(acquire_distribution_lock(dir.path("missing"), true), FileNotFoundError);
}

}  // namespace
}  // namespace tidalcrest::sync
