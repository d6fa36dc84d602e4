#include <limits>

#include "core/registry.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

using ConstructionTest = testing::SyncFixture;

TEST_F(ConstructionTest, RefusesBadArgumentsWithTheirOwnTexts) {
  data.write("file", "x");
  const std::pair<std::function<void(SyncOptions&)>, ::testing::Matcher<std::string>> cases[] = {
      {[](auto& bad) { bad.token.reset(); }, "TypeError: get_token must be callable, got NoneType"},
      {[](auto& bad) { bad.server_url = ""; }, "ValueError: server_url must not be empty"},
      {[](auto& bad) { bad.server_url = "http://example.com"; }, StartsWith("ValueError: ")},
      {[&](auto& bad) { bad.data_dir = data.path("absent"); },
       "FileNotFoundError: data_dir does not exist: " + data.path("absent")},
      {[&](auto& bad) { bad.data_dir = data.path("file"); },
       "ValueError: data_dir is not a safe directory: " + data.path("file")},
      {[](auto& bad) { bad.market_id = "zero"; },
       "ValueError: market_id must be a positive integer, got 'zero'"},
      {[](auto& bad) { bad.poll_interval_s = std::numeric_limits<double>::quiet_NaN(); },
       "ValueError: poll_interval_s must be a number of seconds, not nan"},
      {[](auto& bad) { bad.sync_max_concurrency = 0; },
       "ValueError: invalid sync_max_concurrency: expected a positive integer"},
  };
  for (const auto& [spoil, failure] : cases) {
    SyncOptions bad = options();
    spoil(bad);
    EXPECT_THAT(failure_of([&] { const SyncManager manager(bad); }), failure);
  }
}

TEST_F(ConstructionTest, OneManagerPerRealDirectory) {
  std::filesystem::create_directory(data.path("real"));
  std::filesystem::create_directory_symlink(data.path("real"), data.path("link"));
  SyncOptions first = options();
  first.data_dir = data.path("real");
  SyncOptions second = first;
  second.data_dir = data.path("link");
  const auto manager = SyncManager::get_or_create(first);
  EXPECT_EQ(SyncManager::get_or_create(second), manager);

  second.sync_max_concurrency = "many";
  EXPECT_THROW(SyncManager::get_or_create(second), ValueError);
  second = first;
  second.server_url = "https://other.example";
  EXPECT_THROW(SyncManager::get_or_create(second), ValueError);
  second = first;
  second.market_id = 2;
  EXPECT_EQ(failure_of([&] { SyncManager::get_or_create(second); }),
            "ValueError: SyncManager for '" + canonical_path(first.data_dir) +
                "' already exists with market_id=1, cannot reuse with market_id=2");
  EXPECT_EQ(SyncManager::get_or_create(first), manager);
  SyncManager::_evict(data.path("link"));
  SyncManager::_evict(data.path("never"));
  EXPECT_NE(SyncManager::get_or_create(first), manager);
  SyncManager::_evict(first.data_dir);
}

TEST_F(ConstructionTest, NewestTokenWinsAndAbsentSuppliersStay) {
  origin.publish(small_distribution());
  SyncOptions first = options();
  first.token = "stale";
  const auto manager = SyncManager::get_or_create(first);
  EXPECT_THROW(manager->sync(), AuthError);
  SyncOptions second = options();
  second.get_wallet_secret = nullptr;
  SyncManager::get_or_create(second);
  EXPECT_NO_THROW(manager->sync());
  SyncManager::_evict(data.path());
}

TEST_F(ConstructionTest, ComesUpWithoutACohortWhateverLiesAtTheRoot) {
  data.write(".consumer_count", "many");
  data.write("manifest.json", R"({"era_number": 1, "market_id": 1, "files": {}})");
  const auto manager = make_manager();
  EXPECT_EQ(manager->get_manifest(), nullptr);
  EXPECT_EQ(manager->active_data_dir(), data.path());
  EXPECT_TRUE(log.has("warning: Failed to read consumer count: "));
  EXPECT_TRUE(
      log.has("warning: Root manifest has no complete immutable local cohort; treating it as unverified "
              "legacy state until sync: "));
  data.write("manifest.json", "{");
  EXPECT_THROW(make_manager(), ManifestError);
}

}  // namespace
}  // namespace tidalcrest::sync
