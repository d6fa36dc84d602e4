#include "rotation/state.hpp"

#include "siblings/runtime/modules.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

TEST(RotationStateFile, IsCompactSortedJsonAndReadsBack) {
  const testing::TempDir data;
  EXPECT_EQ(load_feature_rotation_state(data.path()), std::nullopt);
  EXPECT_EQ(load_feature_rotation_state(data.path("no/directory")), std::nullopt);
  const RotationState state{.active_relative_paths = {"b", "a"},
                            .generation = 3,
                            .seed = -1,
                            .rng_state = "counter-v1:-1:5",
                            .algorithm = "family-balanced",
                            .reason = "sync"};
  EXPECT_EQ(write_feature_rotation_state(data.path(), state), data.path("feature-rotation-state.json"));
  EXPECT_EQ(
      data.read("feature-rotation-state.json"),
      R"({"active_relative_paths":["b","a"],"algorithm":"family-balanced","generation":3,"reason":"sync",)"
      R"("rng_state":"counter-v1:-1:5","schema_version":1,"seed":-1})");
  EXPECT_EQ(load_feature_rotation_state(data.path()), state);
}

TEST(RotationStateFile, IsNeverIgnoredWhenCorrupt) {
  const testing::TempDir data;
  const auto load_failure = [&] { return failure_of([&] { load_feature_rotation_state(data.path()); }); };
  const std::string path = feature_rotation_state_path(data.path());
  for (const char* corrupt : {"", "{", "{\"seed\":1,\"seed\":1}", "\xff"}) {
    SCOPED_TRACE(corrupt);
    data.write("feature-rotation-state.json", corrupt);
    EXPECT_THAT(load_failure(),
                StartsWith("FeatureRotationStateError: invalid feature rotation state at " + path + ": "));
  }
  data.write("feature-rotation-state.json", R"({"schema_version": 2})");
  EXPECT_EQ(load_failure(), "FeatureRotationStateError: invalid rotation state in " + path +
                                ": schema_version must be 1, got 2");
  data.remove("feature-rotation-state.json");
  std::filesystem::create_symlink("elsewhere", path);
  EXPECT_THAT(load_failure(), StartsWith("FeatureRotationStateError: "));
}

TEST(RotationStateFile, AStateThatCannotBeReadBackIsNotWritten) {
  const testing::TempDir data;
  EXPECT_THROW(write_feature_rotation_state(data.path(), {.active_relative_paths = {"a", "a"}}),
               FeatureRotationStateError);
  EXPECT_FALSE(data.has("feature-rotation-state.json"));
  EXPECT_THROW(write_feature_rotation_state(data.path("nowhere"), {}), SyncError);
}

TEST(RetiredPaths, GoUnlessTheManifestStillHasThem) {
  const std::string retired = "modules/backtester-" + CURRENT_PLATFORM + ".so";
  const Manifest without(parse_json(R"({"era_number": 7, "files": {}})"));
  const RotationState state{.active_relative_paths = {"gone", retired}};
  const auto cleaned = _drop_retired_unsupported_runtime_paths_from_state(state, without);
  EXPECT_THAT(cleaned->active_relative_paths, ElementsAre("gone"));
  Document files = Document::object();
  files[retired] = {{"kind", "reference"}};
  const Manifest with(Document{{"era_number", 7}, {"files", files}});
  EXPECT_EQ(_drop_retired_unsupported_runtime_paths_from_state(state, with), state);
  EXPECT_EQ(_drop_retired_unsupported_runtime_paths_from_state(std::nullopt, with), std::nullopt);
}

}  // namespace
}  // namespace tidalcrest::sync
