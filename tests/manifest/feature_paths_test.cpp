#include "manifest/feature_paths.hpp"

#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

Manifest manifest_with(const std::vector<std::string>& paths) {
  Document files = Document::object();
  for (const auto& path : paths) files[path] = Document::object();
  return Manifest(Document{{"era_number", 1}, {"files", files}});
}

// Where a feature lies: its name, expression type and universe are asked for.
template <class... Asked>
std::optional<std::string> path_of(const Manifest& manifest, const Asked&... asked) {
  return FeaturePaths(manifest)._manifest_feature_relative_path(asked...);
}

TEST(FeaturePaths, ServeAUniverseItsOwnOrTheLegacyFeatureOnly) {
  const Manifest scoped = manifest_with({"features/u1/signal_is/x.arrow", "features/u2/strategy_is/x.arrow"});
  EXPECT_EQ(path_of(scoped, " x ", "SIGNAL", " u1 "), "features/u1/signal_is/x.arrow");
  EXPECT_EQ(path_of(scoped, "x", "SIGNAL", "u2"), std::nullopt);
  EXPECT_EQ(path_of(scoped, "x", "my Strategy", "u2"), "features/u2/strategy_is/x.arrow");
  EXPECT_EQ(path_of(scoped, "x"), "features/u1/signal_is/x.arrow");
  EXPECT_EQ(path_of(scoped, " "), std::nullopt);
  EXPECT_EQ(path_of(scoped, "y"), std::nullopt);
  const Manifest legacy = manifest_with({"other/u1/signal_is/x.arrow", "features/signal_is/x.arrow"});
  EXPECT_EQ(path_of(legacy, "x", "SIGNAL", "u1"), "features/signal_is/x.arrow");
  const Manifest both = manifest_with({"features/u2/signal_is/x.arrow", "features/signal_is/x.arrow"});
  EXPECT_EQ(path_of(both, "x", "SIGNAL", "u1"), std::nullopt);
  EXPECT_EQ(path_of(both, "x"), "features/signal_is/x.arrow");
  EXPECT_EQ(path_of(manifest_with({"features/signal_is/deep/x.arrow"}), "x"),
            "features/signal_is/deep/x.arrow");
  // An entry that is no object is not present as a candidate, but still shows where the feature belongs.
  const Manifest no_map(parse_json(
      R"({"era_number": 1, "files": {"features/u1/signal_is/x.arrow": 1, "features/signal_is/x.arrow": {}}})"));
  EXPECT_EQ(path_of(no_map, "x", "SIGNAL", "u1"), std::nullopt);
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
