#include "cohort/cohort_stager.hpp"

#include "siblings/distribution/disk_calls.hpp"
#include "siblings/runtime/modules.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

using testing::files_below;

constexpr const char* FEATURE_A = "features/u1/signal_is/alpha__one__x__a.arrow";
constexpr const char* FEATURE_B = "features/u1/signal_is/alpha__one__x__b.arrow";

class StagingTest : public testing::SyncFixture {
 public:
  std::vector<std::string> roots_named(const std::string& part) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(data.path(".tidalcrest-cohorts"))) {
      const std::string name = entry.path().filename().string();
      if (name.find(part) != std::string::npos) names.push_back(name);
    }
    return names;
  }
};

TEST_F(StagingTest, FailedStagingLeavesTheActiveCohortByteForByte) {
  auto content = small_distribution();
  const auto manager = synced_manager(content);
  const std::string root = manager->active_data_dir();
  const auto before = files_below(root);

  // The entry says another digest than the true one: no number of attempts can bring it.
  origin.publish(content.file("extra.bin", "x", "reference", {{"sha256", std::string(64, '0')}}));
  EXPECT_THROW(manager->sync(), IntegrityError);
  EXPECT_EQ(manager->active_data_dir(), root);
  EXPECT_EQ(files_below(root), before);
  EXPECT_FALSE(data.has("sync-progress.json"));
  EXPECT_EQ(make_manager()->active_data_dir(), root);

  // The next attempt for the same identity starts from an empty root; a good version goes through.
  EXPECT_THROW(manager->sync(), IntegrityError);
  origin.publish(content.file("extra.bin", "x", "reference"));
  manager->sync();
  EXPECT_EQ(files_below(manager->active_data_dir()).at("extra.bin"), "x");
}

TEST_F(StagingTest, DiskSpaceIsTestedAgainstWhatIsToBeFetched) {
  origin.publish(small_distribution());
  int calls = 0;
  seams.free_bytes = [&](const std::string&) { return ++calls == 2 ? 10 : 1000000000; };
  const auto manager = make_manager();
  EXPECT_THAT(failure_of([&] { manager->sync(); }),
              ::testing::MatchesRegex(
                  "DiskSpaceError: Insufficient disk space: need [0-9]+ bytes, have 10 bytes .*"));
  EXPECT_THAT(origin.resources_asked("features/*"), IsEmpty());
}

TEST_F(StagingTest, RepairCopiesInOnlyWhatDiffersAndForcesTheSeedPairTogether) {
  const auto manager = synced_manager();
  const std::string root = manager->active_data_dir();
  const auto whole = files_below(root);
  std::ofstream(root + "/" + FEATURE_A) << "damaged";
  const auto untouched = std::filesystem::last_write_time(root + "/" + FEATURE_B);
  origin.forget_requests();

  const VerifyResult report = manager->verify();
  EXPECT_THAT(report.corrupted_files, ElementsAre(FEATURE_A));
  manager->repair({FEATURE_A, "no/such/member.bin"});
  EXPECT_EQ(files_below(root), whole);
  EXPECT_EQ(std::filesystem::last_write_time(root + "/" + FEATURE_B), untouched);
  EXPECT_THAT(origin.resources_asked("features/*"), ElementsAre(FEATURE_A));
  EXPECT_THAT(roots_named(".repair-"), IsEmpty());

  std::filesystem::remove(root + "/shuffle_seed.enc");
  EXPECT_THAT(manager->verify().missing_files, ElementsAre("shuffle_seed.enc"));
  std::ofstream(root + "/shuffle_seed.enc") << std::string(60, 'x');
  EXPECT_THAT(manager->verify().corrupted_files,
              ElementsAre("shuffle_seed.enc", "shuffle_seed.enc.meta.json"));
  manager->repair({"shuffle_seed.enc.meta.json"});
  EXPECT_TRUE(manager->verify().valid);
  EXPECT_THROW(manager->repair({"../outside"}), ManifestError);
  EXPECT_EQ(files_below(root).at(FEATURE_B), whole.at(FEATURE_B));
}

TEST_F(StagingTest, RepairWhoseFlushFailedIsMadeAgain) {
  const auto manager = synced_manager();
  const std::string root = manager->active_data_dir();
  const auto whole = files_below(root);
  for (const char* path : {FEATURE_A, "shuffle_seed.enc"}) std::ofstream(root + "/" + path) << "damaged";
  std::atomic<int> flushes = 0;
  disk_calls().flush_file_system = [&](int) { return ++flushes == 2 ? (errno = EIO, -1) : 0; };
  EXPECT_THROW(manager->repair({FEATURE_A, "shuffle_seed.enc"}), OSError);
  disk_calls() = DiskCalls::real();
  // What it brought would read right, from memory.
  EXPECT_EQ(files_below(root).at(FEATURE_A), "");
  EXPECT_EQ(files_below(root).at("shuffle_seed.enc"), "");
  manager->sync();
  EXPECT_TRUE(manager->verify().valid);
  EXPECT_EQ(files_below(root).at(FEATURE_A), whole.at(FEATURE_A));
}

TEST_F(StagingTest, ManagerOlderThanItsDirectoryAdoptsWhatIsSelected) {
  const auto late = synced_manager();
  synced_manager(small_distribution().file("extra.bin", "x", "reference"));
  EXPECT_THROW(late->active_cohort_snapshot(), StateError);
  origin.forget_requests();
  late->sync();
  EXPECT_THAT(origin.resources_asked(), ElementsAre("/data/manifest/version"));
  EXPECT_EQ(late->active_cohort_snapshot().manifest_bytes(), origin.current().manifest_bytes);
}

TEST_F(StagingTest, MembersThatAnotherManagerAddedToTheLiveCohortStay) {
  data.write("rotation-settings.json", R"({"feature_budget_gb": 0})");
  const auto first = synced_manager();
  const auto second = make_manager();
  first->repair({FEATURE_A});
  second->repair({FEATURE_B});
  const auto cohort = local_cohort::load_active_cohort(data.path(), true);
  EXPECT_THAT(cohort->members.active_relative_paths, ::testing::IsSupersetOf({FEATURE_A, FEATURE_B}));
  EXPECT_THAT(load_feature_rotation_state(data.path())->active_relative_paths,
              ::testing::IsSupersetOf({FEATURE_A, FEATURE_B}));
}

TEST_F(StagingTest, DamagedSelectedCohortIsMendedWhereItsRecordReadsAndRebuiltWhereNot) {
  const std::string root = synced_manager()->active_data_dir();
  const auto whole = files_below(root);
  const std::string marker = root + "/left-by-hand";

  for (const char* damaged : {"/functions.json", "/.cohort-manifest.json"}) {
    SCOPED_TRACE(damaged);
    std::ofstream(root + damaged) << "{}";
    std::ofstream(marker) << "still here when the root was never cleared";
    const auto manager = make_manager();
    EXPECT_EQ(manager->get_manifest(), nullptr);
    EXPECT_EQ(manager->active_data_dir(), data.path()) << "nothing unproven is shown";
    EXPECT_TRUE(
        log.has("warning: Failed to load verified immutable local cohort; the first sync must repair it: "));
    manager->sync();
    EXPECT_TRUE(std::filesystem::exists(marker));
    std::filesystem::remove(marker);
    EXPECT_EQ(files_below(root), whole);
  }
  std::ofstream(root + "/.cohort-complete.json") << "{";
  std::ofstream(marker) << "gone when the root was rebuilt";
  const auto manager = make_manager();
  manager->sync();
  EXPECT_EQ(files_below(root), whole);
  EXPECT_TRUE(manager->verify().valid);
}

TEST_F(StagingTest, ALostSelectorIsWrittenAgainWithoutFetchingMembersAndALinkInItsPlaceSelectsNothing) {
  const auto manager = synced_manager();
  const auto put_link = [&] {
    data.remove("manifest.json");
    std::filesystem::create_symlink("elsewhere.json", data.path("manifest.json"));
  };
  const std::string elsewhere = origin.current().manifest_bytes + " ";
  data.write("elsewhere.json", elsewhere);
  origin.forget_requests();
  data.remove("manifest.json");
  manager->sync();
  EXPECT_EQ(manager->active_cohort_snapshot().manifest_bytes(), origin.current().manifest_bytes);
  put_link();
  EXPECT_THROW(manager->active_cohort_snapshot(), LocalCohortError);
  manager->sync();
  EXPECT_FALSE(std::filesystem::is_symlink(data.path("manifest.json")));
  put_link();
  const auto late = make_manager();
  EXPECT_EQ(late->get_manifest(), nullptr);
  late->sync();
  EXPECT_TRUE(late->verify().valid);
  EXPECT_EQ(data.read("elsewhere.json"), elsewhere);
  EXPECT_THAT(origin.resources_asked(FEATURE_A), IsEmpty());
}

TEST_F(StagingTest, RuntimeModulesGetASnapshotOfTheirOwn) {
  const auto manager = synced_manager(
      small_distribution().file("vault_modules/pricing-" + CURRENT_PLATFORM + ".so", "machine code",
                                "vault_module", {{"platform", CURRENT_PLATFORM}}));
  const auto members = files_below(manager->active_data_dir());
  std::vector<std::string> snapshots;
  for (const auto& [path, bytes] : members) {
    if (path.starts_with("runtime_snapshots/pricing/")) snapshots.push_back(bytes);
  }
  EXPECT_THAT(snapshots, ElementsAre("machine code"));
  EXPECT_TRUE(manager->verify().valid);
}

TEST_F(StagingTest, MatchingFilesOfAFlatDirectoryAreTakenOver) {
  data.write(FEATURE_A, "feature a");
  data.write(FEATURE_B, "another b");
  data.write("signals_index.json", "not reused from a flat directory");
  const auto manager = synced_manager();
  EXPECT_THAT(origin.resources_asked(FEATURE_A), IsEmpty());
  EXPECT_THAT(origin.resources_asked(FEATURE_B), ElementsAre(FEATURE_B));
  EXPECT_THAT(origin.resources_asked("signals_index.json"), ElementsAre("signals_index.json"));
}

}  // namespace
}  // namespace tidalcrest::sync
