#include "rotation/status.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include "siblings/distribution/local_cohort.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* MANIFEST = R"({"era_number": 7, "version": 3, "files": {
    "features/u1/signal_is/a.arrow": {"kind": "feature"}, "features/u1/signal_is/b.arrow": {"kind": "feature"},
    "universe_masks/m": {"kind": "mask"}}})";

class RotationStatusTest : public ::testing::Test {
 public:
  // The state file, last written `seconds` after the epoch.
  void write_state(std::vector<std::string> paths, std::int64_t seconds = 1000) {
    write_feature_rotation_state(data.path(),
                                 {.active_relative_paths = std::move(paths), .generation = 2, .seed = 5});
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, feature_rotation_state_path(data.path()).c_str(), times, 0), 0);
  }
  NextRotation next(const Document& settings, double now) {
    Seams seams = Seams::real();
    seams.wall_seconds = [now] { return now; };
    return _rotation_next_at(data.path(), settings, seams);
  }
  testing::TempDir data;
  const Document hourly = {{"rotation_frequency", "PT1H"}};
};

TEST(RotationFrequency, KnowsWeeksAndHours) {
  const auto seconds = [](const Document& frequency) {
    return _rotation_frequency_seconds({{"rotation_frequency", frequency}});
  };
  EXPECT_THAT(seconds(" weekly "), Optional(604800));
  EXPECT_THAT(seconds("PT12H"), Optional(43200));
  EXPECT_THAT(seconds("PT 2 H"), Optional(7200));
  for (const Document& never :
       {Document("PT0H"), Document("PTxH"), Document("PTH"), Document("P7D"), Document("manual"),
        Document("PT-1H"), Document("PT9223372036854775807H"), Document(nullptr), Document(7)}) {
    EXPECT_EQ(seconds(never), std::nullopt) << never;
  }
  EXPECT_EQ(_rotation_frequency_seconds("weekly"), std::nullopt);
}

TEST_F(RotationStatusTest, TheStateFilesTimeIsTheClock) {
  EXPECT_EQ(next(hourly, 1e9).at, std::nullopt);
  write_state({}, 1000);
  EXPECT_THAT(next(hourly, 4599.5).at, Optional(std::string("1970-01-01T01:16:40Z")));
  EXPECT_THAT(next(hourly, 4599.5).due, Optional(false));
  EXPECT_THAT(next(hourly, 4600).due, Optional(true));
  write_state({}, 2000);
  EXPECT_THAT(next(hourly, 4600).due, Optional(false));
  EXPECT_EQ(next({{"rotation_frequency", "PT2000000000H"}}, 1e9).due, std::nullopt);
}

TEST_F(RotationStatusTest, OfAnEmptyDirectory) {
  EXPECT_EQ(
      dump_json(feature_rotation_status_payload(data.path()), {.sort_keys = true}),
      R"({"active_path_count": 0, "active_relative_paths": [], "departed_feature_count": 0, )"
      R"("departed_relative_paths": [], "eligible_feature_count": 0, "era_number": null, "generation": null, )"
      R"("manifest_available": false, "manifest_version": null, "missing_active_path_count": 0, )"
      R"("missing_active_relative_paths": [], "next_rotation_at": null, "next_rotation_due": null, )"
      R"("rng_state": null, "seed": null, "selected_feature_count": 0, "selected_relative_paths": [], )"
      R"("skipped_feature_count": 0, "skipped_relative_paths": [], "state": "uninitialized", )"
      R"("status_accounting": {"active_path_count": 0, "departed_feature_count": 0, "eligible_feature_count": 0, )"
      R"("missing_active_path_count": 0, "selected_feature_count": 0, "skipped_feature_count": 0}})");
  EXPECT_EQ(feature_rotation_status_payload(data.path("not/yet")),
            feature_rotation_status_payload(data.path()));
}

TEST_F(RotationStatusTest, ComparesStateManifestAndDisk) {
  data.write("manifest.json", MANIFEST);
  write_state({"universe_masks/m", "features/u1/signal_is/a.arrow", "departed"});
  data.write("universe_masks/m", "m");
  Document payload = feature_rotation_status_payload(data.path(), hourly);
  EXPECT_EQ(payload.at("state"), "incomplete");
  EXPECT_EQ(payload.at("era_number"), 7);
  EXPECT_EQ(payload.at("generation"), 2);
  EXPECT_EQ(payload.at("missing_active_relative_paths"), Document::array({"features/u1/signal_is/a.arrow"}));
  EXPECT_EQ(payload.at("departed_relative_paths"), Document::array({"departed"}));
  EXPECT_EQ(payload.at("skipped_relative_paths"), Document::array({"features/u1/signal_is/b.arrow"}));
  EXPECT_EQ(payload.at("status_accounting").at("eligible_feature_count"), 2);
  EXPECT_EQ(payload.at("next_rotation_due"), true);

  data.write("features/u1/signal_is/a.arrow", "a");
  EXPECT_EQ(feature_rotation_status_payload(data.path()).at("state"), "active");
}

TEST_F(RotationStatusTest, LooksForActiveFilesInTheSelectedGeneration) {
  const std::string root = local_cohort::create_generation_root(data.path(), MANIFEST);
  data.write(local_cohort::generation_relative_root(MANIFEST) + "/universe_masks/m", "m");
  const auto completion = local_cohort::build_completion_payload(
      MANIFEST, {"universe_masks/m"}, {{"universe_masks/m", {std::string(64, '0'), 1}}}, {});
  local_cohort::complete_generation(root, MANIFEST, completion);
  local_cohort::publish_manifest(data.path(), MANIFEST);
  write_state({"universe_masks/m"});
  EXPECT_EQ(feature_rotation_status_payload(data.path()).at("state"), "active");
}

TEST_F(RotationStatusTest, HidesNoCorruptFile) {
  const auto status_failure = [&] {
    return failure_of([&] { feature_rotation_status_payload(data.path()); });
  };
  data.write("manifest.json", "{");
  EXPECT_THAT(status_failure(),
              StartsWith("FeatureRotationStateError: invalid manifest.json for feature rotation status: "));
  data.write("manifest.json", R"({"files": {}})");
  EXPECT_THAT(status_failure(), StartsWith("ManifestError: "));
  data.remove("manifest.json");
  std::filesystem::create_directory(data.path("manifest.json"));
  EXPECT_THAT(status_failure(),
              StartsWith("FeatureRotationStateError: invalid manifest.json for feature rotation status: "));
  data.write("feature-rotation-state.json", "{");
  EXPECT_THAT(status_failure(), StartsWith("FeatureRotationStateError: invalid feature rotation state at "));
}

}  // namespace
}  // namespace tidalcrest::sync
