#include "support/search_consumer.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

// Each of these calls takes the locks of the manager, so a callback under one of them would wait for itself.
void use_everything(SyncManager& manager) {
  EXPECT_EQ(failure_of([&] { manager.sync(); }), "nothing");
  EXPECT_TRUE(manager.verify().valid);
  EXPECT_EQ(manager.active_cohort_snapshot().root_dir(), manager.active_data_dir());
  EXPECT_EQ(failure_of([&] { manager.repair({"reference/calendar.bin"}); }), "nothing");
  EXPECT_EQ(failure_of([&] { manager.collect_generations(); }), "nothing");
}

using CallbacksTest = testing::SyncFixture;

TEST_F(CallbacksTest, MayCallBackIntoTheManagerWhereverNoLockIsHeld) {
  const auto manager = synced_manager();
  std::vector<std::string> told;
  const auto search = std::make_shared<testing::SearchConsumer>("u1");
  int refreshes = 0;
  search->on_refresh = [&] {
    told.emplace_back("refresh");
    if (++refreshes == 1) return;  // of the publication itself: under the locks of a sync
    manager->unregister_rotation_search_consumer(*search);
    use_everything(*manager);
  };
  int identity = 0;
  const auto call = [&](const std::string& event_type, std::int64_t) {
    told.push_back(event_type);
    manager->unregister_era_callback({.call = {}, .identity = &identity});
    use_everything(*manager);
    manager->register_era_callback({.call = [](const std::string&, std::int64_t) {}, .identity = &told});
  };
  const auto notify = [&](const char* event_type) {
    manager->register_era_callback({.call = call, .identity = &identity});
    manager->_notify_era_callbacks(event_type, 2);
  };
  manager->trigger_era_transition(
      1,
      [&] {
        notify("kill");
        manager->register_rotation_search_consumer(search);
      },
      [&] {
        notify("restart");
        EXPECT_THAT(failure_of([&] { manager->request_for_sync(); }),
                    StartsWith("StateError: Sync is in era transition mode"));
      });
  EXPECT_THAT(told, ElementsAre("kill", "refresh", "refresh", "restart"));
  EXPECT_TRUE(manager->verify().valid);
}

}  // namespace
}  // namespace tidalcrest::sync
