#include "rotation/planner.hpp"

#include "siblings/runtime/modules.hpp"
#include "support/search_consumer.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* STATE_FILE = "feature-rotation-state.json";
constexpr const char* A = "features/u1/signal_is/a.arrow";
constexpr const char* B = "features/u1/signal_is/b.arrow";
constexpr const char* MASK = "universe_masks/m";

class RotationPlannerTest : public ::testing::Test {
 public:
  RotationPlannerTest() {
    seams.wall_seconds = [this] { return now; };
  }
  std::unique_ptr<RotationPlanner> planner(std::optional<RotationState> state = {}) {
    return std::make_unique<RotationPlanner>(
        data.path(), std::move(state), consumers, [this](const Manifest&) { return prefetched; }, seams);
  }
  static RotationState state_with(std::vector<std::string> paths) {
    return {.active_relative_paths = std::move(paths), .generation = 3, .rng_state = "counter-v1:0:9"};
  }
  static Manifest manifest_of(const char* files) {
    return Manifest(Document{{"era_number", 7}, {"version", 1}, {"files", parse_json(files)}});
  }

  testing::TempDir data;
  Seams seams = Seams::real();
  double now = 0;
  std::vector<std::string> prefetched;
  const ActiveViewHolder active{std::make_shared<const ActiveView>()};
  SearchConsumers consumers{active};
  const Manifest manifest =
      manifest_of(R"({"features/u1/signal_is/a.arrow": {"kind": "feature", "size_bytes": 40},
      "features/u1/signal_is/b.arrow": {"kind": "feature", "size_bytes": 40},
      "universe_masks/m": {"kind": "mask", "size_bytes": 20}})");
  const Manifest fixed = manifest_of(R"({"universe_masks/m": {"kind": "mask", "size_bytes": 20}})");
};

TEST_F(RotationPlannerTest, RotatesWithoutAStateAndWhenThePeriodIsOver) {
  EXPECT_TRUE(planner()->_feature_rotation_should_rotate(manifest));
  const auto with_state = planner(state_with({A}));
  EXPECT_FALSE(with_state->_feature_rotation_should_rotate(manifest));
  EXPECT_TRUE(with_state->_feature_rotation_needs_sync_for_manifest(manifest));  // no file on disk
  write_feature_rotation_state(data.path(), state_with({A}));
  EXPECT_FALSE(with_state->_feature_rotation_needs_sync_for_manifest(manifest));
  now = Seams::real().wall_seconds() + 8 * 86400;
  EXPECT_TRUE(with_state->_feature_rotation_needs_sync_for_manifest(manifest));
  EXPECT_TRUE(with_state->_feature_rotation_should_rotate(manifest));
  data.write("rotation-settings.json", R"({"rotation_frequency": "manual"})");
  EXPECT_FALSE(with_state->_feature_rotation_should_rotate(manifest));
}

TEST_F(RotationPlannerTest, WhereNothingRotatesOnlyAStaleSelectionIsDue) {
  EXPECT_FALSE(planner()->_feature_rotation_should_rotate(fixed));
  EXPECT_FALSE(planner(state_with({}))->_feature_rotation_needs_sync_for_manifest(fixed));
  const auto stale = planner(state_with({A}));
  EXPECT_TRUE(stale->_feature_rotation_should_rotate(fixed));
  EXPECT_TRUE(stale->_feature_rotation_needs_sync_for_manifest(fixed));

  // One promotion settles it: the mandatory file is held, and nothing is due any more.
  const auto plan = stale->_plan_feature_rotation_for_sync(fixed, 1000).rotation_plan;
  EXPECT_THAT(plan.selection.active_relative_paths, ElementsAre(MASK));
  stale->_promote_rotation_candidate(plan.candidate_state, {MASK});
  EXPECT_FALSE(stale->_feature_rotation_needs_sync_for_manifest(fixed));
}

TEST_F(RotationPlannerTest, TheDefaultBudgetPassesItsOwnCheck) {
  for (const std::int64_t free : {std::int64_t{40}, std::int64_t{121}, std::int64_t{1000}}) {
    const auto planned = planner()->_plan_feature_rotation_for_sync(manifest, free);
    EXPECT_FALSE(planned.explicit_rotation_budget);
    EXPECT_EQ(planned.rotation_plan.selection.feature_budget_bytes, free / 2 - 20);
    EXPECT_NO_THROW(RotationPlanner::_precheck_rotation_disk_budget(planned.rotation_plan.selection, free));
  }
  EXPECT_EQ(failure_of([&] { planner()->_plan_feature_rotation_for_sync(manifest, 19); }),
            "DiskSpaceError: Insufficient disk space: need 20 bytes, have 19 bytes available");
}

TEST_F(RotationPlannerTest, PrecheckCapsMandatoryAndTotal) {
  const auto check = [](std::int64_t mandatory, std::int64_t budget, bool cap) {
    RotationSelection selection;
    selection.mandatory_bytes = mandatory;
    selection.feature_budget_bytes = budget;
    return failure_of([&] { RotationPlanner::_precheck_rotation_disk_budget(selection, 100, cap); });
  };
  for (const bool cap : {true, false}) {
    EXPECT_THAT(check(51, 0, cap), StartsWith("MandatoryArtifactsTooLargeError: "));
    EXPECT_EQ(check(50, 51, cap),
              "DiskSpaceError: Insufficient disk space: need 101 bytes, have 100 bytes available");
    EXPECT_EQ(check(50, 50, cap), "nothing");
    EXPECT_THAT(check(50, 9223372036854775807, cap), StartsWith("DiskSpaceError: "));
  }
}

TEST_F(RotationPlannerTest, KeepsTheSubsetUnlessANewOneIsWanted) {
  const RotationState state = state_with({B});
  const auto kept = planner(state)->_plan_feature_rotation_for_sync(manifest, 1000, false).rotation_plan;
  EXPECT_THAT(kept.selection.active_relative_paths, ElementsAre(MASK, B));
  EXPECT_EQ(kept.candidate_state.generation, 3);
  const auto wanted = planner(state)->_plan_feature_rotation_for_sync(manifest, 1000).rotation_plan;
  EXPECT_EQ(wanted.candidate_state.generation, 4);
  const auto first = planner()->_plan_feature_rotation_for_sync(manifest, 1000, false).rotation_plan;
  EXPECT_THAT(first.candidate_state.active_relative_paths, SizeIs(3));
  EXPECT_EQ(failure_of([&] {
              planner(state_with({B, B}))->_plan_feature_rotation_for_sync(manifest, 1000, false);
            }),
            "SyncError: active rotation state cannot be used: active_relative_paths holds a path twice: '" +
                std::string(B) + "'");
}

TEST_F(RotationPlannerTest, PlanningDropsRetiredModulesFromTheState) {
  const auto with_retired = planner(state_with({B, "m/backtester-" + CURRENT_PLATFORM + ".so"}));
  with_retired->_plan_feature_rotation_for_manifest(manifest, 1000, false);
  EXPECT_THAT(with_retired->active_rotation_state()->active_relative_paths, ElementsAre(B));
  EXPECT_THAT(load_feature_rotation_state(data.path())->active_relative_paths, ElementsAre(B));
}

TEST_F(RotationPlannerTest, FilesToDownloadCarryTheirEntry) {
  auto plan = planner()->_plan_feature_rotation_for_sync(manifest, 1000).rotation_plan;
  const auto files = RotationPlanner::_rotation_scoped_files_to_download(fixed, plan.selection, {B});
  ASSERT_THAT(files, SizeIs(2));
  EXPECT_EQ(files[0].first, MASK);
  EXPECT_EQ(dump_json(files[0].second), R"({"kind": "mask", "size_bytes": 20})");
  EXPECT_EQ(dump_json(files[1].second),
            R"({"kind": "feature", "artifact_kind": "feature", "size_bytes": 40, "mandatory": false, )"
            R"("market": "crypto", "named_universe": "u1", "family": "", "subfamily": ""})");
}

TEST_F(RotationPlannerTest, TheFileIsWrittenBeforeMemoryAndOnlyWhenNeeded) {
  const auto owner = planner(state_with({A}));
  owner->_write_promoted_rotation_state(state_with({A}));
  EXPECT_TRUE(data.has(STATE_FILE));  // equal, but there was no file
  data.write(STATE_FILE, "touched");
  owner->_write_promoted_rotation_state(state_with({A}));
  EXPECT_EQ(data.read(STATE_FILE), "touched");

  data.remove(STATE_FILE);
  std::filesystem::create_directory(data.path(STATE_FILE));
  EXPECT_THROW(owner->_write_promoted_rotation_state(state_with({B})), SyncError);
  EXPECT_EQ(owner->active_rotation_state(), state_with({A}));
}

TEST_F(RotationPlannerTest, CleanupSparesActivePrefetchedAndMetadata) {
  const char* const other = "features/u1/signal_is/other.arrow";
  prefetched = {B};
  for (const char* name : {A, B, MASK, other, "found_signals/u1/s/old", "modules/x", "manifest.json"}) {
    data.write(name, "x");
  }
  planner()->_cleanup_inactive_rotation_artifacts(manifest, {A});
  for (const char* kept : {A, B, MASK, "modules/x", "manifest.json"}) EXPECT_TRUE(data.has(kept)) << kept;
  for (const char* gone : {other, "found_signals/u1/s/old"}) EXPECT_FALSE(data.has(gone)) << gone;
}

TEST_F(RotationPlannerTest, APromotionPreparesWritesCleansAndTellsInThisOrder) {
  const auto owner = planner(state_with({B}));
  const auto consumer = std::make_shared<testing::SearchConsumer>();
  consumers.register_rotation_search_consumer(consumer);
  data.write(B, "x");
  auto candidate = state_with({MASK, A});
  candidate.generation = 4;

  const Document unusable = {{"u1", 1}};
  EXPECT_THROW(owner->_complete_rotation_promotion(candidate, {MASK, A}, manifest, &unusable),
               VocabularyScopeError);
  EXPECT_FALSE(data.has(STATE_FILE));
  EXPECT_TRUE(data.has(B));

  consumer->on_refresh = [&] {
    EXPECT_EQ(load_feature_rotation_state(data.path())->generation, 4);
    EXPECT_FALSE(data.has(B));
  };
  const Document vocabulary = {{"u1", {{"named_universe", "u1"}, {"features", {"a", "b"}}}}};
  const auto promoted = owner->_complete_rotation_promotion(candidate, {"x", A}, manifest, &vocabulary);
  EXPECT_THAT(promoted.active_relative_paths, ElementsAre(A));
  EXPECT_EQ(owner->active_rotation_state(), promoted);
  EXPECT_EQ(consumer->generation, 4);
  EXPECT_EQ(owner->_promote_rotation_candidate(state_with({A}), {A}).generation, 4);
  EXPECT_THAT(consumer->heard, ElementsAre(R"(["a"])"));
}

}  // namespace
}  // namespace tidalcrest::sync
