#include "siblings/distribution/sync_backoff.hpp"

#include <numeric>

#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

using ::testing::Le;

sync_backoff::Module& module() {
  static const auto current = sync_backoff::module_seam().current();
  return *current;
}

TEST(SyncBackoffPolicy, DelaysDoubleUpToAMinuteAndSpread) {
  const double longest[] = {0.5, 1, 2, 4, 8, 16, 32, 60, 60};
  for (std::int64_t index = 0; index < 9; ++index) {
    double lowest_seen = 100;
    double highest_seen = 0;
    for (int i = 0; i < 200; ++i) {
      const double delay = module().delay_seconds(index) / longest[index];
      lowest_seen = std::min(lowest_seen, delay);
      highest_seen = std::max(highest_seen, delay);
    }
    EXPECT_GE(lowest_seen, 0.5);
    EXPECT_LT(lowest_seen, 0.6);
    EXPECT_LE(highest_seen, 1.0);
    EXPECT_GT(highest_seen, 0.9);
  }
  EXPECT_LE(module().delay_seconds(1'000'000'000'000), 60.0);
}

TEST(SyncBackoffPolicy, LooksAtTheStopSignalAllTheTime) {
  std::vector<double> slices;
  const auto sleep = [&slices](double seconds) { slices.push_back(seconds); };
  EXPECT_TRUE(module().sleep(1.25, sleep, [] { return false; }));
  EXPECT_THAT(slices, Each(Le(0.1)));
  EXPECT_NEAR(std::accumulate(slices.begin(), slices.end(), 0.0), 1.25, 1e-6);
  slices.clear();
  EXPECT_FALSE(module().sleep(60, sleep, [&slices] { return slices.size() == 3; }));
  EXPECT_EQ(slices.size(), 3u);
  EXPECT_FALSE(module().sleep(0, sleep, [] { return true; }));
  EXPECT_THROW(module().raise_cancelled(), SyncBackoffCancelled);
}

TEST(SyncBackoffContext, OneThatFailsCountsAsEmpty) {
  class Failing : public sync_backoff::Module {
   public:
    double delay_seconds(std::int64_t) override { return 0; }
    bool sleep(double, const std::function<void(double)>&, const std::function<bool()>&) override {
      return true;
    }
    void raise_cancelled() override {}
    Document sync_backoff_event_fields(const std::string&, std::int64_t, double, const std::string&,
                                       const std::string&) override {
      return {};
    }
    BackoffContext current_context() override { throw RuntimeError("no context on this thread"); }
    std::shared_ptr<void> enter_context(BackoffContext) override { return nullptr; }
  };
  sync_backoff::module_seam().install(std::make_shared<Failing>());
  EXPECT_NO_THROW(sync_backoff::stop_check_of_this_thread()());
  sync_backoff::module_seam().install(nullptr);
}

TEST(SyncBackoffContext, BelongsToItsThreadAndNests) {
  const auto surface = [] { return module().current_context().surface.value_or("none"); };
  const ScopedBackoffContext outer({.surface = "outer", .data_dir = "/d", .stop_requested = {}});
  {
    const ScopedBackoffContext inner({.surface = "inner", .data_dir = {}, .stop_requested = {}});
    EXPECT_EQ(surface(), "inner");
    EXPECT_EQ(module().current_context().data_dir, std::nullopt);
    std::string elsewhere;
    std::thread([&] { elsewhere = surface(); }).join();
    EXPECT_EQ(elsewhere, "none");
  }
  EXPECT_EQ(surface(), "outer");
  EXPECT_EQ(module().current_context().data_dir, "/d");
}

}  // namespace
}  // namespace tidalcrest::sync
