#include "manifest/feature_paths.hpp"

#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

Manifest manifest_with(const std::vector<std::string>& paths) {
  Document files = Document::object();
  for (const auto& path : paths) files[path] = Document::object();
  return Manifest(Document{{"era_number", 1}, {"files", files}});
}

TEST(FeaturePaths, ServeAUniverseItsOwnOrTheLegacyFeatureOnly) {
  const Manifest scoped = manifest_with({"features/u1/signal_is/x.arrow", "features/u2/strategy_is/x.arrow"});
  EXPECT_EQ(FeaturePaths(scoped)._manifest_feature_relative_path(" x ", "SIGNAL", " u1 "),
            "features/u1/signal_is/x.arrow");
  EXPECT_EQ(FeaturePaths(scoped)._manifest_feature_relative_path("x", "SIGNAL", "u2"), std::nullopt);
  EXPECT_EQ(FeaturePaths(scoped)._manifest_feature_relative_path("x", "my Strategy", "u2"),
            "features/u2/strategy_is/x.arrow");
  EXPECT_EQ(FeaturePaths(scoped)._manifest_feature_relative_path("x"), "features/u1/signal_is/x.arrow");
  EXPECT_EQ(FeaturePaths(scoped)._manifest_feature_relative_path(" "), std::nullopt);
  EXPECT_EQ(FeaturePaths(scoped)._manifest_feature_relative_path("y"), std::nullopt);

  const Manifest legacy = manifest_with({"other/u1/signal_is/x.arrow", "features/signal_is/x.arrow"});
  EXPECT_EQ(FeaturePaths(legacy)._manifest_feature_relative_path("x", "SIGNAL", "u1"),
            "features/signal_is/x.arrow");

  const Manifest both = manifest_with({"features/u2/signal_is/x.arrow", "features/signal_is/x.arrow"});
  EXPECT_EQ(FeaturePaths(both)._manifest_feature_relative_path("x", "SIGNAL", "u1"), std::nullopt);
  EXPECT_EQ(FeaturePaths(both)._manifest_feature_relative_path("x"), "features/signal_is/x.arrow");

  const Manifest nested = manifest_with({"features/signal_is/deep/x.arrow"});
  EXPECT_EQ(FeaturePaths(nested)._manifest_feature_relative_path("x"), "features/signal_is/deep/x.arrow");
}

// An entry that is no object is not present as a candidate, but still shows where the feature belongs.
TEST(FeaturePaths, DoNotTakeAnEntryThatIsNoMapForAFile) {
  const Manifest manifest(parse_json(
      R"({"era_number": 1, "files": {"features/u1/signal_is/x.arrow": 1, "features/signal_is/x.arrow": {}}})"));
  EXPECT_EQ(FeaturePaths(manifest)._manifest_feature_relative_path("x", "SIGNAL", "u1"), std::nullopt);
}

TEST(FeatureCompanions, ShareDirectoryAndFamily) {
  EXPECT_EQ(_feature_artifact_family_prefix(" a__b__c__d.arrow "), "a__b__");
  for (const char* name : {"", " ", "a__b__c", "__b__c__d", "a____c__d", ".arrow"}) {
    EXPECT_EQ(_feature_artifact_family_prefix(name), std::nullopt) << name;
  }
  const std::string feature = "features/u1/signal_is/a__b__c__d.arrow";
  const Manifest manifest = manifest_with(
      {"features/u1/signal_is/a__b__z.arrow", feature, "features/u1/signal_is/deep/a__b__c.arrow",
       "features/u2/signal_is/a__b__c.arrow", "features/u1/signal_is/a__c__c__d.arrow",
       "features/u1/signal_is/a__b__c__d.txt", "features/u1/signal_is/bad path/a__b__c.arrow"});
  EXPECT_THAT(FeaturePaths(manifest)._manifest_feature_companion_relative_paths(feature),
              ElementsAre("features/u1/signal_is/a__b__z.arrow", "features/u1/signal_is/deep/a__b__c.arrow"));
  EXPECT_THAT(FeaturePaths(manifest)._manifest_feature_prefetch_relative_paths("a__b__c__d"),
              ElementsAre(feature, "features/u1/signal_is/a__b__z.arrow",
                          "features/u1/signal_is/deep/a__b__c.arrow"));
  for (const char* path : {"features/signal_is/a__b__c__d.arrow", "other/u1/signal_is/a__b__c__d.arrow",
                           "features/u1/signal_is/a__b__c__d.txt", "/bad"}) {
    EXPECT_THAT(FeaturePaths(manifest)._manifest_feature_companion_relative_paths(path), IsEmpty()) << path;
  }
  EXPECT_THAT(FeaturePaths(manifest)._manifest_feature_prefetch_relative_paths("unknown"), IsEmpty());
}

}  // namespace
}  // namespace tidalcrest::sync
