#include "core/sync_driver.hpp"

#include "host/integer.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* VERSION_PATH = "/data/manifest/version";
constexpr const char* MANIFEST_PATH = "/data/manifest";
constexpr const char* FEATURE_A = "features/u1/signal_is/alpha__one__x__a.arrow";

class SyncDriverTest : public testing::SyncFixture {
 public:
  void answer_version(const std::string& body, const std::string& kind = "body") {
    origin.fault(VERSION_PATH + (" " + kind + " count=all body=" + body));
  }
};

TEST_F(SyncDriverTest, FirstSyncPublishesTheWholeDistributionAndTheSecondFindsNothingToDo) {
  const auto release = origin.publish(small_distribution());
  const auto manager = make_manager();
  EXPECT_EQ(manager->get_manifest(), nullptr);
  EXPECT_EQ(manager->active_data_dir(), data.path());

  const SyncResult first = manager->sync();

  const auto members = testing::files_below(manager->active_data_dir());
  for (const auto& [path, file_info] : release.manifest.at("files").get_ref<const Document::object_t&>()) {
    ASSERT_TRUE(members.contains(path)) << path;
    EXPECT_EQ(sha256_hex(members.at(path)), file_info.at("sha256"));
  }
  EXPECT_EQ(data.read("manifest.json"), release.manifest_bytes);
  EXPECT_EQ(first.features_downloaded, 3);
  EXPECT_EQ(first.n_features, 3);
  EXPECT_EQ(first.found_pnl_paths_downloaded.size(), 2u);
  EXPECT_TRUE(first.vocabulary_downloaded);
  EXPECT_TRUE(first.shuffle_seed_downloaded);
  EXPECT_FALSE(data.has("sync-progress.json"));

  origin.forget_requests();
  const SyncResult second = manager->sync();
  EXPECT_THAT(origin.resources_asked(), ElementsAre(VERSION_PATH));
  EXPECT_EQ(second.bytes_downloaded, 0);
  EXPECT_EQ(second.era_number, 1);
  EXPECT_EQ(second.n_features, 3);

  const auto reopened = make_manager();
  ASSERT_NE(reopened->get_manifest(), nullptr);
  EXPECT_EQ(reopened->get_manifest()->membership()->found_signals.size(), 1u);
}

TEST_F(SyncDriverTest, NewVersionFetchesOnlyWhatChanged) {
  auto content = small_distribution();
  const auto manager = synced_manager(content);
  const std::string first_root = manager->active_data_dir();
  const auto before = testing::files_below(first_root);
  origin.publish(content.feature("u1", "signal_is", "alpha__one__x__a", "feature a, changed"));
  origin.forget_requests();

  manager->sync();

  EXPECT_THAT(origin.resources_asked("features/*"), ElementsAre(FEATURE_A));
  EXPECT_THAT(origin.resources_asked("found_*"), IsEmpty());
  EXPECT_NE(manager->active_data_dir(), first_root);
  EXPECT_EQ(testing::files_below(manager->active_data_dir()).at(FEATURE_A), "feature a, changed");
  EXPECT_EQ(testing::files_below(first_root), before);  // a generation is immutable
}

TEST_F(SyncDriverTest, VersionAnswerDecidesTheRoad) {
  const auto manager = synced_manager();
  struct Case {
    const char* label;
    std::string body;
    bool fetches_manifest;
    const char* kind = "body";
  };
  const std::string matching = R"({"version": 1, "era_number": 1, "market_id": 1, "manifest_sha256": ")" +
                               local_cohort::manifest_sha256(origin.current().manifest_bytes) + "\"}";
  const Case cases[] = {
      {"matching", matching, false},
      {"no hash", R"({"version": 1, "era_number": 1, "market_id": 1})", true},
      {"other hash", R"({"version": 1, "era_number": 1, "market_id": 1, "sha256": "00"})", true},
      {"not found", "", true, "status=404"},
      {"nonsense", "<html>", true},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.label);
    origin.clear_faults();
    origin.forget_requests();
    answer_version(item.body, item.kind);
    manager->sync();
    EXPECT_EQ(!origin.resources_asked(MANIFEST_PATH).empty(), item.fetches_manifest);
  }
  EXPECT_TRUE(log.has("debug: Manifest version response was not parseable: "));
  EXPECT_TRUE(log.has("info: Manifest version matched but manifest hash changed; fetching full manifest"));
}

TEST_F(SyncDriverTest, RefusesWhatWouldMoveBackwardsOrAcross) {
  auto content = small_distribution();
  const auto manager = synced_manager(content.version(5));
  const auto published = testing::files_below(data.path());
  const auto failure = [&] { return failure_of([&] { manager->sync(); }); };

  answer_version(R"({"version": 5, "market_id": 1, "sha256": ")" +
                 local_cohort::manifest_sha256(origin.current().manifest_bytes) + "\"}");
  EXPECT_EQ(failure(), "EraError: Era mismatch: local era_number=1, server era_number=None");
  origin.clear_faults();
  answer_version(R"({"version": 5, "era_number": 1, "market_id": 2})");
  EXPECT_EQ(failure(),
            "ManifestError: manifest version response market_id must exactly match configured market_id=1");
  origin.clear_faults();
  answer_version("", "status=401");
  EXPECT_EQ(failure(), "AuthError: Authentication failed: HTTP 401");
  origin.clear_faults();

  origin.publish(content.version(4).file("extra.bin", "x", "reference"));
  EXPECT_EQ(failure(), "SyncError: Refusing manifest downgrade: local version=5, server version=4");
  Document changed = origin.current().manifest;
  changed["version"] = 5;
  origin.fault(MANIFEST_PATH + (" body body=" + changed.dump()));
  EXPECT_EQ(failure(), "SyncError: Refusing same-version manifest with different exact identity");
  changed["era_number"] = true;  // the same era by value
  origin.fault(MANIFEST_PATH + (" body body=" + changed.dump()));
  EXPECT_EQ(failure(), "SyncError: Refusing same-version manifest with different exact identity");
  origin.publish(content.era(2).version(6));
  EXPECT_EQ(failure(), "EraError: Era mismatch: local era_number=1, server era_number=2");
  EXPECT_EQ(testing::files_below(data.path()), published);
}

TEST_F(SyncDriverTest, ADisplayThatFailsFailsNoSync) {
  class BrokenDisplay : public SyncProgress {
   public:
    void on_phase(const std::string&) override { throw std::runtime_error("no terminal"); }
    void on_download_set(std::int64_t, std::int64_t) override { throw 1; }
  };
  origin.publish(small_distribution());
  SyncOptions shown = options();
  shown.progress = std::make_shared<BrokenDisplay>();
  EXPECT_EQ(SyncManager(shown, seams).sync().features_downloaded, 3);
}

TEST_F(SyncDriverTest, DamagedLocalDataLeadsFromTheFastPathToARepair) {
  const auto manager = synced_manager();
  const std::string root = manager->active_data_dir();
  std::filesystem::remove(root + "/" + FEATURE_A);
  std::ofstream(root + "/reference/calendar.bin") << "CALENDAR";
  origin.forget_requests();

  manager->sync();

  EXPECT_TRUE(log.has("warning: Manifest version matched but local metadata needs repair: "));
  EXPECT_EQ(manager->active_data_dir(), root);
  EXPECT_EQ(testing::files_below(root).at(FEATURE_A), "feature a");
  EXPECT_EQ(testing::files_below(root).at("reference/calendar.bin"), "calendar");
  EXPECT_THAT(origin.resources_asked("*.bin"), ElementsAre("reference/calendar.bin"));
  EXPECT_THAT(origin.resources_asked("features/*"), ElementsAre(FEATURE_A));
  EXPECT_TRUE(manager->verify().valid);
}

TEST_F(SyncDriverTest, SupersededManifestRestartsTheSyncAtMostThreeTimes) {
  // A file that is shorter than its entry says, and a newer version with the same fault at every attempt.
  auto content = small_distribution().file("short.bin", "short", "reference", {{"size_bytes", 50}});
  origin.publish(content);
  const auto manager = make_manager();
  int version = 1;
  const std::function<void()> publish_next = [&] {
    ++version;
    origin.publish(content.file("extra.bin", std::to_string(version), "reference"));
    if (version < 4) origin.on_request("short.bin", publish_next);
  };
  origin.on_request("short.bin", publish_next);
  EXPECT_THROW(manager->sync(), ManifestSupersededError);
  EXPECT_TRUE(
      log.has("warning: Manifest changed during sync; refreshing manifest and restarting download set (1/3): "
              "Manifest advanced while downloading short.bin; refreshing before retry"));
  EXPECT_TRUE(log.has("restarting download set (3/3)"));
  EXPECT_EQ(version, 4);
  origin.publish(content.file("short.bin", "short", "reference"));
  manager->sync();
  EXPECT_EQ(to_int(manager->get_manifest()->version()), 5);
}

}  // namespace
}  // namespace tidalcrest::sync
