#include "cohort/collector.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "siblings/distribution/cohort_roots.hpp"
#include "siblings/distribution/lock.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

class CollectorTest : public testing::SyncFixture {
 public:
  CollectorTest() : lock(data.path()) {}

  std::string publish_and_sync(SyncManager& manager, int number) {
    origin.publish(small_distribution().file("number.bin", std::to_string(number), "reference"));
    manager.sync();
    return std::filesystem::relative(manager.active_data_dir(), data.path()).generic_string();
  }
  CollectionReport collect(std::int64_t keep = DEFAULT_KEPT_GENERATIONS, bool dry_run = false) {
    return Collector(data.path(), lock, seams).collect_generations(keep, dry_run);
  }
  static std::vector<std::string> removed_by(const CollectionReport& report) {
    std::vector<std::string> paths;
    for (const auto& entry : report.removed) paths.push_back(entry.relative_path);
    return paths;
  }

  SyncLock lock;
};

TEST_F(CollectorTest, KeepsWhatIsSelectedPinnedOrAmongTheNewest) {
  const auto manager = make_manager();
  std::vector<std::string> roots;
  for (int i = 0; i < 5; ++i) roots.push_back(publish_and_sync(*manager, i));

  auto reader = acquire_distribution_lock(data.path(), /*exclusive=*/false);
  const auto plan = collect(2, /*dry_run=*/true);  // does not wait for readers
  reader.close();
  EXPECT_THAT(removed_by(plan), UnorderedElementsAre(roots[0], roots[1], roots[2]));
  EXPECT_GT(plan.bytes_freed, 0);
  EXPECT_TRUE(data.has(roots[0]));

  const int held = ::open(data.path(roots[1]).c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_EQ(::flock(held, LOCK_SH), 0);  // what a pin holds
  EXPECT_THAT(removed_by(collect(2)), UnorderedElementsAre(roots[0], roots[2]));
  ::close(held);
  EXPECT_THAT(removed_by(collect(0)), UnorderedElementsAre(roots[1], roots[3]));
  EXPECT_TRUE(data.has(roots[4]));
  EXPECT_TRUE(manager->verify().valid);
  EXPECT_THAT(removed_by(collect(0)), IsEmpty());
  EXPECT_THROW(collect(-1), ValueError);
}

TEST_F(CollectorTest, LeftoversGoByTheirKindAndAge) {
  const auto manager = make_manager();
  publish_and_sync(*manager, 1);
  const std::string failed = ".tidalcrest-cohorts/" + std::string(64, 'a');
  data.write(failed + "/member.bin", "half");
  data.write(".tidalcrest-cohorts/.repair-x/member.bin", "x");
  data.write(".tidalcrest-cohorts/.removed-x/member.bin", "x");
  data.write(".tidalcrest-cohorts/operators-own/note", "not ours");
  EXPECT_THAT(removed_by(collect()),
              UnorderedElementsAre(".tidalcrest-cohorts/.repair-x", ".tidalcrest-cohorts/.removed-x"));
  seams.wall_seconds = [now = seams.wall_seconds] { return now() + 25 * 3600; };
  EXPECT_THAT(removed_by(collect()), ElementsAre(failed));
  EXPECT_TRUE(data.has(".tidalcrest-cohorts/operators-own/note"));
}

}  // namespace
}  // namespace tidalcrest::sync
