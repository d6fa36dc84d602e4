#include "rotation/catalog.hpp"

#include "manifest/persistence.hpp"
#include "siblings/runtime/modules.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

Manifest manifest_with(const char* members) {
  return Manifest(_parse_full_distribution_manifest(
      std::make_shared<const std::string>(std::string(R"({"era_number": 7, "version": 1, )") + members + "}"),
      "manifest"));
}

std::vector<std::string> paths_of(const Artifacts& artifacts) {
  std::vector<std::string> paths;
  for (const auto& artifact : artifacts) paths.emplace_back(artifact->relative_path);
  return paths;
}

TEST(RotationRows, ComeFromFilesInPathOrderWithoutWhatIsNeverFetched) {
  const std::string own =
      R"("vault-x": {"kind": "vault_module", "platform": ")" + CURRENT_PLATFORM + R"("},)";
  const Manifest manifest = manifest_with((R"("files": {"z": {"kind": "mask"}, )" + own + R"(
      "vault-any": {"kind": "vault_module"}, "vault-other": {"kind": "vault_module", "platform": "other_os"},
      "signals_index.json": {"kind": "signals_index"}, "features/u1/signal_is/a.arrow": {"kind": "feature"}})")
                                              .c_str());
  EXPECT_THAT(paths_of(_rotation_manifest_artifacts(manifest)),
              ElementsAre("features/u1/signal_is/a.arrow", "vault-any", "vault-x", "z"));
}

TEST(RotationRows, TheArtifactSectionIsFinalAndWinsOverFiles) {
  EXPECT_THAT(
      _rotation_manifest_artifacts(manifest_with(R"("files": {"a": {"kind": "feature"}}, "artifacts": [])")),
      IsEmpty());
  const auto artifacts = _rotation_manifest_artifacts(manifest_with(
      R"("files": {"a": {"kind": "feature", "size_bytes": 5, "market": "m1"}, "b": {"kind": "mask"}},
         "artifacts": [{"relative_path": "c", "kind": "mask"}, {"kind": "mask"}, "text",
                       {"path": "a", "relative_path": "b", "market": "m2", "mandatory": true}])"));
  ASSERT_THAT(paths_of(artifacts), ElementsAre("c", "a"));
  EXPECT_EQ(artifacts[1]->size_bytes, 5);
  EXPECT_EQ(artifacts[1]->market, "m2");
  EXPECT_TRUE(artifacts[1]->mandatory);
}

TEST(LegacyScope, FillsWhatFeatureEntriesLeaveOpen) {
  const auto artifacts = _rotation_manifest_artifacts(manifest_with(
      R"("named_universes": [" u9 "], "market": " ", "market_name": "fx ", "files": {
          "features/u1/signal_is/a.arrow": {"kind": "feature"},
          "features/x.arrow": {"kind": "feature"},
          "features/y.arrow": {"kind": "feature", "named_universe": "own", "market": "own"},
          "universe_masks/u1/m": {"kind": "mask"}})"));
  std::vector<std::string> scopes;
  for (const auto& artifact : artifacts)
    scopes.push_back(fmt::format("{}/{}", artifact->named_universe, artifact->market));
  EXPECT_THAT(scopes, ElementsAre("u1/fx", "u9/fx", "own/own", "/"));
}

TEST(LegacyScope, UniverseFromThePath) {
  EXPECT_THAT(_feature_named_universe_from_path("features/universe_a/x.arrow"),
              Optional(std::string("universe_a")));
  EXPECT_THAT(_feature_named_universe_from_path("features\\ u \\e\\x.arrow"), Optional(std::string("u")));
  for (const char* none : {"features/x.arrow", "other/u1/x.arrow", "features//x.arrow", "features/./x",
                           "features/../x", "/features/u1/x"}) {
    EXPECT_EQ(_feature_named_universe_from_path(none), std::nullopt) << none;
  }
}

TEST(LegacyScope, DefaultsOfTheManifest) {
  const auto universe = [](const char* data) {
    return _rotation_manifest_default_named_universe(parse_json(data));
  };
  EXPECT_THAT(universe(R"({"named_universe": " a ", "named_universes": ["b"]})"), Optional(std::string("a")));
  EXPECT_THAT(universe(R"({"named_universe": " ", "named_universes": ["b"]})"), Optional(std::string("b")));
  for (const char* none : {"[]", "{}", R"({"named_universes": ["a", "b"]})", R"({"named_universes": [1]})"}) {
    EXPECT_EQ(universe(none), std::nullopt) << none;
  }
  const auto market = [](const char* data) { return _rotation_manifest_default_market(parse_json(data)); };
  EXPECT_EQ(market(R"({"current_market": "c", "market_name": "b", "market": 1})"), "b");
  EXPECT_EQ(market(R"({"market_id": 2})"), "crypto");
  EXPECT_EQ(market("null"), "crypto");
}

TEST(CatalogContext, ListsWhatRotates) {
  const char* files = R"("files": {
      "features/u2/signal_is/f__b__x__1.arrow": {"kind": "feature"},
      "features/u1/signal_is/f__a__x__1.arrow": {"kind": "feature", "market": "fx"},
      "features/u3/signal_is/g__a__x__1.arrow": {"kind": "feature", "mandatory": true}})";
  EXPECT_EQ(dump_json(_rotation_catalog_context_from_manifest(manifest_with(files))),
            R"({"current_market": "crypto", "market": "crypto", "current_universes": ["u1", "u2"], )"
            R"("named_universes": ["u1", "u2"], "families": {"f": ["a", "b"]}})");

  struct Case {
    const char* rotation;
    const char* market;
    Document universes;
  };
  for (const Case& c :
       {Case{R"({"scope": {"named_universes": [], "market": "fx"}})", "fx", Document::array()},
        Case{R"({"scope": {"named_universes": ["z", 1]}})", "crypto", {"z", "1"}},
        Case{R"({"scope": {"named_universe": "z", "market": ""}})", "crypto", Document::array({"z"})},
        Case{R"({"scope": {"named_universes": ["y"], "named_universe": "z"}})", "crypto",
             Document::array({"y"})},
        Case{R"({"scope": []})", "crypto", {"u1", "u2"}}, Case{"[]", "crypto", {"u1", "u2"}}}) {
    SCOPED_TRACE(c.rotation);
    const Document context = _rotation_catalog_context_from_manifest(
        manifest_with((std::string(R"("rotation": )") + c.rotation + ", " + files).c_str()));
    EXPECT_EQ(context.at("current_market"), c.market);
    EXPECT_EQ(context.at("current_universes"), c.universes);
  }
}

TEST(FeatureBudget, IsCountedInWholeGigabytes) {
  rotation_settings::RotationSettings settings;
  EXPECT_EQ(_rotation_feature_budget_bytes(settings), artifact_rotation::FeatureBudget{});
  settings.feature_budget_gb = artifact_rotation::FULL_DOWNLOAD;
  EXPECT_EQ(_rotation_feature_budget_bytes(settings),
            artifact_rotation::FeatureBudget{artifact_rotation::FULL_DOWNLOAD});
  settings.feature_budget_gb = 2.9;
  EXPECT_EQ(_rotation_feature_budget_bytes(settings),
            artifact_rotation::FeatureBudget{std::int64_t{2147483648}});
}

class RequiredPathsTest : public ::testing::Test {
 public:
  const Manifest manifest = manifest_with(R"("files": {"a": {"kind": "feature", "size_bytes": 4},
      "b": {"kind": "feature", "size_bytes": 4}, "m": {"kind": "mask"}, "n": {"kind": "mask"},
      "other.so": {"kind": "vault_module", "platform": "other_os"}})");
  RotationPlan plan_with_budget(std::int64_t bytes) const {
    return artifact_rotation::plan_rotation(_rotation_manifest_artifacts(manifest),
                                            {.feature_budget_bytes = bytes}, std::nullopt);
  }
};

TEST_F(RequiredPathsTest, WidenSelectionStateAndRecordAlike) {
  const auto plan = _rotation_plan_with_required_paths(plan_with_budget(0), manifest, {"b", "m", "b"});
  EXPECT_THAT(plan.selection.active_relative_paths, ElementsAre("m", "n", "b"));
  EXPECT_EQ(plan.candidate_state.active_relative_paths, plan.selection.active_relative_paths);
  EXPECT_EQ(plan.rotation_record().at("active_relative_paths"), Document({"m", "n", "b"}));

  SyncResult result;
  _apply_rotation_result_fields(result, plan.selection);
  EXPECT_THAT(result.active_relative_paths, ElementsAre("m", "n", "b"));
  EXPECT_THAT(result.mandatory_relative_paths, ElementsAre("m", "n"));
  EXPECT_THAT(result.skipped_relative_paths, ElementsAre("a"));
  EXPECT_THAT(result.rotation_seed, Optional(0));
  EXPECT_THAT(result.feature_budget_bytes, Optional(0));
}

TEST_F(RequiredPathsTest, RefusesWhatCannotBeAMember) {
  const auto refusal = [&](const char* path) {
    return failure_of([&] { _rotation_plan_with_required_paths(plan_with_budget(0), manifest, {path}); });
  };
  EXPECT_EQ(refusal("gone"), "SyncError: required cohort artifact is absent from manifest: gone");
  EXPECT_EQ(refusal("other.so"), "SyncError: required cohort artifact is excluded from sync: other.so");
  EXPECT_THAT(refusal("../a"), StartsWith("ManifestError: "));
}

TEST(ExistingPaths, LeavesOutWhatIsMissingAndNothingElse) {
  const testing::TempDir data;
  data.write("b/x", "1");
  data.write("a", "1");
  EXPECT_THAT(_existing_rotation_paths(data.path(), {"b/x", "gone", "b/gone", "a"}), ElementsAre("b/x", "a"));
  EXPECT_THAT(_existing_rotation_paths(data.path("nowhere"), {"a"}), IsEmpty());
  EXPECT_THROW(_existing_rotation_paths(data.path(), {"../a"}), ManifestError);
  std::filesystem::create_symlink("a", data.path("link"));
  EXPECT_THROW(_existing_rotation_paths(data.path(), {"link"}), OSError);
}

TEST(PrefetchedPaths, AreFeaturesOfTheManifest) {
  const Manifest manifest = manifest_with(R"("files": {"b": {"kind": "feature"}, "a": {"kind": "feature"},
                                             "m": {"kind": "mask"}})");
  EXPECT_THAT(_manifest_prefetched_feature_paths(manifest, {" b ", "a", "b", "m", "gone", " "}),
              ElementsAre("a", "b"));
}

}  // namespace
}  // namespace tidalcrest::sync
