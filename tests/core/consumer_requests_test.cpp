#include "core/consumer_requests.hpp"

#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

class RequestsTest : public testing::SyncFixture {
 public:
  std::unique_ptr<SyncManager> make_running_manager() {
    SyncOptions quiet = options();
    quiet.poll_interval_s = 3600;  // the poll thread leaves the work to the requests
    origin.fault("/data/manifest/version", {.status = 404, .count = 0});
    auto manager = std::make_unique<SyncManager>(quiet, seams);
    manager->start();
    return manager;
  }
};

TEST_F(RequestsTest, AreRefusedWithoutARunningManagerAndDuringATransition) {
  const auto manager = make_manager();
  EXPECT_EQ(failure_of([&] { manager->request_for_sync(); }),
            "StateError: Sync thread is not running. Call start() or acquire() first.");
  EXPECT_THAT(manager->request_feature_files_for_sync({"  ", ""}), IsEmpty());
  data.write(".transition_lock", "1");
  EXPECT_EQ(failure_of([&] { manager->request_for_sync(); }),
            "StateError: Sync is in era transition mode \u2014 request_for_sync rejected");
  EXPECT_EQ(failure_of([&] { manager->request_feature_files_for_sync({"a"}); }),
            "StateError: Sync is in era transition mode \u2014 request_feature_files_for_sync rejected");
}

TEST_F(RequestsTest, TenCallersShareOneSync) {
  origin.publish(small_distribution());
  const auto manager = make_running_manager();
  while (manager->get_manifest() == nullptr) std::this_thread::yield();  // the poll thread's own first sync
  manager->sync();
  origin.forget_requests();
  origin.fault("/data/manifest", {.kind = origin::Fault::Kind::DELAY, .seconds = 0.5, .count = 0});
  std::vector<std::vector<std::string>> answers(10);
  {
    std::vector<std::jthread> callers;
    callers.emplace_back([&] { answers[0] = manager->request_for_sync(); });
    while (origin.requests("/data/manifest").empty()) std::this_thread::yield();
    for (int i = 1; i < 10; ++i)
      callers.emplace_back([&, i] { answers[static_cast<std::size_t>(i)] = manager->request_for_sync(); });
  }
  EXPECT_THAT(origin.requests("/data/manifest"), SizeIs(1));
  for (const auto& answer : answers) EXPECT_EQ(answer.size(), 2u);
}

TEST_F(RequestsTest, ASyncThatBringsFoundFilesGivesOnlyThoseAndLaterOnesGiveAll) {
  auto content = small_distribution();
  origin.publish(content);
  const auto manager = make_running_manager();
  EXPECT_THAT(manager->request_for_sync(), SizeIs(2));
  origin.publish(content.found_signal("u1", "s2", "a new one"));
  EXPECT_THAT(manager->request_for_sync(), ElementsAre(EndsWith("found_signals/u1/s2/is/pnl.arrow")));
  EXPECT_THAT(manager->request_for_sync(), SizeIs(3));

  // Newest first, ties by path; one that vanished is passed over.
  const std::string root = manager->active_data_dir() + "/";
  const auto now = std::filesystem::file_time_type::clock::now();
  std::filesystem::last_write_time(root + "found_signals/u1/s1/is/pnl.arrow", now);
  std::filesystem::last_write_time(root + "found_signals/u1/s2/is/pnl.arrow", now);
  std::filesystem::remove(root + "found_strategies/u1/t1/epoch/pnl.arrow");
  EXPECT_THAT(manager->_get_found_file_paths(),
              ElementsAre(EndsWith("s1/is/pnl.arrow"), EndsWith("s2/is/pnl.arrow")));
}

TEST_F(RequestsTest, FeaturesOutsideTheRotationAreFetchedOnDemandAndSparedLater) {
  data.write("rotation-settings.json", R"({"feature_budget_gb": 0})");
  origin.publish(small_distribution());
  const auto manager = make_running_manager();
  manager->request_for_sync();
  EXPECT_FALSE(std::filesystem::exists(manager->active_data_dir() + "/features"));
  origin.forget_requests();

  const auto paths = manager->request_feature_files_for_sync({"alpha__one__x__b", " alpha__one__x__b "});
  // The companion of its family comes along.
  ASSERT_THAT(paths, ElementsAre(EndsWith("signal_is/alpha__one__x__b.arrow"),
                                 EndsWith("signal_is/alpha__one__x__a.arrow")));
  for (const auto& path : paths) EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_THAT(origin.requests("features/*"), SizeIs(2));
  EXPECT_NE(data.read(".prefetched-features.json").find("alpha__one__x__b.arrow"), std::string::npos);

  EXPECT_EQ(manager->request_feature_files_for_sync({"alpha__one__x__b"}), paths);
  EXPECT_THAT(origin.requests("features/*"), SizeIs(2));
  EXPECT_THAT(manager->request_feature_files_for_sync({"unknown"}), IsEmpty());
}

TEST_F(RequestsTest, AddedFeaturePathsArePersistedOnce) {
  origin.publish(small_distribution());
  const auto manager = make_manager();
  EXPECT_THAT(manager->add_active_feature_paths({"x"}), IsEmpty());
  manager->sync();
  const auto before = manager->active_rotation_state()->active_relative_paths;
  std::vector<std::string> merged = before;
  merged.emplace_back("features/u1/signal_is/new__f__x__y.arrow");
  EXPECT_EQ(manager->add_active_feature_paths({before.front(), merged.back(), merged.back()}), merged);
  EXPECT_EQ(load_feature_rotation_state(data.path())->active_relative_paths, merged);
  const auto written = std::filesystem::last_write_time(data.path("feature-rotation-state.json"));
  EXPECT_EQ(manager->add_active_feature_paths(before), merged);
  EXPECT_EQ(std::filesystem::last_write_time(data.path("feature-rotation-state.json")), written);
}

}  // namespace
}  // namespace tidalcrest::sync
