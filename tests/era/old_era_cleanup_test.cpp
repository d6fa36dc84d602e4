#include "era/old_era_cleanup.hpp"

#include "cohort/cohort_loader.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

class OldEraCleanupTest : public ::testing::Test {
 public:
  OldEraCleanupTest() {
    for (const char* file :
         {"era_11/a", "era_12/deep/er/b", "era12/c", "era_x/d", "eras/e", "era_/f", "other/g", ".hidden/h",
          ".tidalcrest-cohorts/i", "manifest.json", "shuffle_seed.enc", "notes.txt"}) {
      data.write(file, "0123456789");
    }
    outside.write("precious", "not ours");
    std::filesystem::create_directory_symlink(outside.path(), data.path("era_5"));
    std::filesystem::create_symlink(outside.path("precious"), data.path("era_11/link"));
  }
  void load_manifest(const Document& era_number) {
    ActiveView view = *active.get();
    view.manifest = std::make_shared<const Manifest>(Document{{"era_number", era_number}, {"market_id", 1}});
    active.set(std::make_shared<const ActiveView>(view));
  }
  std::vector<std::string> children() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(data.path())) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  testing::LogCapture log;
  testing::TempDir data, outside;
  ActiveViewHolder active{flat_view(data.path())};
  OldEraCleanup cleanup{data.path(), active};
};

TEST_F(OldEraCleanupTest, RemovesTheDirectoriesOfOtherErasAndWhatNoLinkPointsTo) {
  load_manifest(12);
  EXPECT_EQ(cleanup.cleanup_old_eras(), 10);
  EXPECT_THAT(children(), ElementsAre(".hidden", ".tidalcrest-cohorts", "era12", "era_", "era_12", "era_x",
                                      "eras", "manifest.json", "notes.txt", "other", "shuffle_seed.enc"));
  EXPECT_EQ(outside.read("precious"), "not ours");
}

TEST_F(OldEraCleanupTest, RemovesEveryEraWithoutAManifestOrWithoutItsNumber) {
  load_manifest("no number");
  EXPECT_EQ(cleanup.cleanup_old_eras(), 30);
  data.write("era_1/a", "xy");
  active.set(flat_view(data.path()));
  EXPECT_EQ(cleanup.cleanup_old_eras(true), 2);
}

TEST_F(OldEraCleanupTest, WipesTheDataButWhatIsHidden) {
  load_manifest(12);
  EXPECT_EQ(cleanup.cleanup_old_eras(/*keep_current=*/false), 90);
  EXPECT_THAT(children(), ElementsAre(".hidden", ".tidalcrest-cohorts", "notes.txt"));
  EXPECT_EQ(outside.read("precious"), "not ours");
}

TEST_F(OldEraCleanupTest, PassesAFailureOnAndLogsItInTheBackground) {
  const OldEraCleanup nowhere(data.path("missing"), active);
  EXPECT_THAT(failure_of([&] { nowhere.cleanup_old_eras(); }), StartsWith("FileNotFoundError: "));
  nowhere._cleanup_old_eras_background(true);
  EXPECT_TRUE(log.has("warning: Background old-era cleanup failed: "));
  cleanup._cleanup_old_eras_background(true);
  EXPECT_TRUE(log.has("info: Old era cleanup completed: freed 30 bytes"));
  const auto lines = log.lines().size();
  cleanup._cleanup_old_eras_background(true);
  EXPECT_EQ(log.lines().size(), lines) << "nothing freed, nothing said";
}

TEST_F(OldEraCleanupTest, RunsInTheBackgroundOnceAtATime) {
  // The first run is held in its log line until the second call has come and gone.
  Event logged, go_on;
  set_log_sink([&](const LogRecord&) {
    logged.set();
    go_on.wait_for(std::chrono::seconds(5));
  });
  const auto shared = std::make_shared<const OldEraCleanup>(data.path(), active);
  OldEraCleanupThread thread;
  const auto is_over = [&] { return eventually([&] { return shared.use_count() == 1; }); };
  thread._schedule_cleanup_old_eras(shared, true);
  ASSERT_TRUE(logged.wait_for(std::chrono::seconds(5)));
  thread._schedule_cleanup_old_eras(shared, /*keep_current=*/false);
  go_on.set();
  EXPECT_TRUE(is_over());
  EXPECT_TRUE(data.has("manifest.json")) << "the second call was dropped";
  thread._schedule_cleanup_old_eras(shared, /*keep_current=*/false);
  EXPECT_TRUE(is_over());
  EXPECT_FALSE(data.has("manifest.json"));
}

}  // namespace
}  // namespace tidalcrest::sync
