#include "integrity/verify.hpp"

#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

using VerifyTest = testing::SyncFixture;

TEST_F(VerifyTest, AStopEndsItWithinALargeFile) {
  constexpr std::size_t MEBIBYTES = 8;
  origin.publish(small_distribution().file("large.bin", std::string(MEBIBYTES << 20, 'x'), "reference"));
  const auto manager = make_manager();
  const std::size_t members = manager->sync().active_relative_paths.size();

  std::size_t asked = 0;
  std::size_t stop_at = 0;
  const ScopedBackoffContext context({.stop_requested = [&] { return ++asked == stop_at; }});
  EXPECT_TRUE(manager->verify().valid);
  EXPECT_GE(asked, members + MEBIBYTES);
  stop_at = std::exchange(asked, 0) / 2;
  EXPECT_THROW(manager->verify(), SyncBackoffCancelled);
  EXPECT_EQ(asked, stop_at);
}

}  // namespace
}  // namespace tidalcrest::sync
