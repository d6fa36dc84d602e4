#include "siblings/distribution/artifact_rotation.hpp"

#include <algorithm>

#include "siblings/distribution/artifact_catalog.hpp"
#include "siblings/distribution/artifact_rotation_generator.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync::artifact_rotation {
namespace {

// Keeps alive what it was made from.
Artifact artifact_of(const std::string& path, const Document& entry) {
  ArtifactCatalog catalog(nullptr);
  catalog.add_copy(path, entry);
  return std::move(catalog).artifacts().front();
}

Artifact feature(const std::string& path, std::int64_t size = 10, const Document& more = Document::object()) {
  Document entry = {{"kind", "feature"}, {"size_bytes", size}};
  entry.update(more);
  return artifact_of(path, entry);
}

Artifact file(const std::string& path, std::int64_t size = 10) {
  return artifact_of(path, {{"kind", "vocabulary"}, {"size_bytes", size}});
}

Artifacts features(int count, std::int64_t size = 10) {
  Artifacts artifacts;
  for (int i = 0; i < count; ++i)
    artifacts.push_back(feature("features/u1/signal_is/f" + std::to_string(i), size));
  return artifacts;
}

ArtifactRotationSettings with_budget(std::int64_t bytes) { return {.feature_budget_bytes = bytes}; }

std::vector<std::string> chosen(const RotationPlan& plan) {
  std::vector<std::string> paths;
  for (const auto& artifact : plan.selection.rotatable_artifacts) paths.emplace_back(artifact->relative_path);
  return paths;
}

RotationState state_with(std::vector<std::string> paths, std::int64_t generation = 4) {
  return {.active_relative_paths = std::move(paths),
          .generation = generation,
          .seed = 9,
          .rng_state = "counter-v1:9:5"};
}

// The numbers were computed by an independent implementation of the written rule.
TEST(CounterGenerator, DrawsTheSameNumbersEverywhereAndContinuesFromItsText) {
  CounterGenerator zero(0);
  EXPECT_EQ(zero.next(), 0xe220a8397b1dcdafu);
  EXPECT_EQ(zero.next(), 0x6e789e6aa1b965f4u);
  EXPECT_EQ(CounterGenerator(-1).next(), 0xa577782bc52a9f5au);

  std::string letters = "abcdefgh";
  std::vector<char> first(letters.begin(), letters.end());
  CounterGenerator generator(7);
  generator.shuffle(first);
  EXPECT_EQ(std::string(first.begin(), first.end()), "dfegacbh");
  EXPECT_EQ(generator.state_text(), "counter-v1:7:7");
  std::vector<char> second(letters.begin(), letters.end());
  CounterGenerator::continued(7, generator.state_text()).shuffle(second);
  EXPECT_EQ(std::string(second.begin(), second.end()), "fhdbgeca");
  for (const char* other : {"", "counter-v1:8:7", "counter-v1:7:", "counter-v1:7:7x", "counter-v1:7:-1"}) {
    EXPECT_EQ(CounterGenerator::continued(7, other).state_text(), "counter-v1:7:0") << other;
  }
}

TEST(Descriptors, ReadWhatTheEntrySaysAndDeriveTheRest) {
  const auto derived = feature("features/u1/signal_is/alpha__beta__x__y.arrow");
  EXPECT_FALSE(derived->mandatory);
  EXPECT_EQ(derived->artifact_kind, "feature");
  EXPECT_EQ(fmt::format("{}/{}", derived->family, derived->subfamily), "alpha/beta");
  EXPECT_EQ(feature("features/u1/signal_is/alpha__beta__x.arrow")->family, "");
  EXPECT_EQ(feature("features/u1/signal_is/____x__y.arrow")->family, "");

  const auto own =
      feature("a__b__c__d", 3, {{"family", "f"}, {"subfamily", "s"}, {"mandatory", true}, {"market", "m"}});
  EXPECT_TRUE(own->mandatory);
  EXPECT_EQ(fmt::format("{}{}{}", own->family, own->subfamily, own->market), "fsm");
  EXPECT_EQ(own->size_bytes, 3);
  EXPECT_EQ(feature("a", 3, {{"mandatory", "no"}, {"size_bytes", "3"}})->mandatory, false);
  EXPECT_TRUE(file("v")->mandatory);
  EXPECT_EQ(file("v")->artifact_kind, "vocabulary");
}

TEST(PlanRotation, HoldsMandatoryFilesFirstAndFillsTheBudget) {
  Artifacts artifacts = features(20);
  artifacts.insert(artifacts.begin() + 3, file("named_universes/u1/vocabulary.json", 500));
  const auto plan = plan_rotation(artifacts, with_budget(55), std::nullopt);
  const auto& selection = plan.selection;
  EXPECT_EQ(selection.mandatory_bytes, 500);
  EXPECT_EQ(selection.active_relative_paths.front(), "named_universes/u1/vocabulary.json");
  EXPECT_EQ(chosen(plan).size(), 5u);
  EXPECT_EQ(selection.skipped_relative_paths().size(), 15u);
  EXPECT_EQ(plan.candidate_state.active_relative_paths, selection.active_relative_paths);
  EXPECT_EQ(plan.rotation_record().at("active_relative_paths"), Document(selection.active_relative_paths));

  // The choice depends on the rows, not on their order; the result keeps the row order.
  std::reverse(artifacts.begin(), artifacts.end());
  auto backwards = chosen(plan_rotation(artifacts, with_budget(55), std::nullopt));
  std::reverse(backwards.begin(), backwards.end());
  EXPECT_EQ(backwards, chosen(plan));
}

TEST(PlanRotation, ContinuesTheGeneratorOfTheSameSeed) {
  const Artifacts artifacts = features(40);
  const auto first = plan_rotation(artifacts, with_budget(100), std::nullopt);
  const auto second = plan_rotation(artifacts, with_budget(100), first.candidate_state);
  EXPECT_EQ(first.candidate_state.generation, 1);
  EXPECT_EQ(second.candidate_state.generation, 2);
  EXPECT_NE(chosen(second), chosen(first));
  EXPECT_EQ(chosen(plan_rotation(artifacts, with_budget(100), first.candidate_state)), chosen(second));
  auto other_seed = with_budget(100);
  other_seed.seed = 5;
  EXPECT_EQ(plan_rotation(artifacts, other_seed, first.candidate_state).candidate_state.rng_state,
            plan_rotation(artifacts, other_seed, std::nullopt).candidate_state.rng_state);
}

TEST(PlanRotation, TakesTheNextThatFitsAfterOneThatDoesNot) {
  const Artifacts artifacts = {feature("big", 100), feature("small", 5), feature("tiny", 5)};
  EXPECT_THAT(chosen(plan_rotation(artifacts, with_budget(10), std::nullopt)), ElementsAre("small", "tiny"));
  EXPECT_THAT(chosen(plan_rotation(artifacts, with_budget(0), std::nullopt)), IsEmpty());
  EXPECT_THAT(chosen(plan_rotation(artifacts, with_budget(110), std::nullopt)),
              ElementsAre("big", "small", "tiny"));
}

TEST(PlanRotation, BalancesFamilies) {
  Artifacts artifacts;
  for (int i = 0; i < 30; ++i) artifacts.push_back(feature("a__s__x__" + std::to_string(i)));
  for (int i = 0; i < 3; ++i) artifacts.push_back(feature("b__s__x__" + std::to_string(i)));
  artifacts.push_back(feature("c__s__x__0"));
  auto settings = with_budget(80);
  settings.algorithm = "family-balanced";
  std::map<std::string, int> taken;
  for (const auto& artifact :
       plan_rotation(artifacts, settings, std::nullopt).selection.rotatable_artifacts) {
    ++taken[std::string(artifact->family)];
  }
  EXPECT_EQ(taken, (std::map<std::string, int>{{"a", 4}, {"b", 3}, {"c", 1}}));

  // With room for less than one turn, it is not always the same families that get it.
  settings.feature_budget_bytes = std::int64_t{10};
  std::set<std::string> first_families;
  for (settings.seed = 0; settings.seed < 20; ++settings.seed) {
    first_families.emplace(
        plan_rotation(artifacts, settings, std::nullopt).selection.rotatable_artifacts[0]->family);
  }
  EXPECT_EQ(first_families.size(), 3u);
  settings.algorithm = "best";
  EXPECT_EQ(failure_of([&] { plan_rotation(artifacts, settings, std::nullopt); }),
            "ValueError: unknown rotation algorithm 'best'");
}

TEST(PlanRotation, BudgetRules) {
  Artifacts artifacts = features(10, 100);
  artifacts.push_back(file("m", 200));
  const auto budget = [&](FeatureBudget rule, std::optional<std::int64_t> free) {
    const ArtifactRotationSettings settings{.feature_budget_bytes = rule, .free_disk_bytes = free};
    return plan_rotation(artifacts, settings, std::nullopt).selection.feature_budget_bytes;
  };
  EXPECT_EQ(budget({}, 1001), 300);  // half of the free bytes less the mandatory ones
  EXPECT_EQ(budget({}, 300), 0);
  EXPECT_EQ(budget({}, std::nullopt), 1000);
  EXPECT_EQ(budget(FULL_DOWNLOAD, 300), 1000);
  EXPECT_EQ(budget(std::int64_t{7}, std::nullopt), 7);
  EXPECT_EQ(budget(std::int64_t{-7}, std::nullopt), 0);
  EXPECT_NO_THROW(budget({}, 200));
  const auto failure = caught<MandatoryArtifactsTooLargeError>([&] { budget(FULL_DOWNLOAD, 199); });
  EXPECT_EQ(failure.mandatory_bytes, 200);
  EXPECT_EQ(failure.available_bytes, 199);
  EXPECT_THAT(failure.selected_paths, ElementsAre("m"));
}

TEST(PlanRotation, ChoosesWithinTheScopeOnly) {
  const Artifacts artifacts = {feature("u1", 1, {{"market", "crypto"}, {"named_universe", "u1"}}),
                               feature("u2", 1, {{"market", "crypto"}, {"named_universe", "u2"}}),
                               feature("old", 1, {{"market", "crypto"}, {"named_universe", "signal_is"}}),
                               feature("fx", 1, {{"market", "fx"}, {"named_universe", "u1"}}),
                               feature("fam__sub__x__y", 1),
                               feature("fam__tra__x__y", 1)};
  const auto eligible = [&](SelectionScope scope) {
    return chosen(plan_rotation(artifacts, {.scope = std::move(scope)}, std::nullopt));
  };
  EXPECT_EQ(eligible({}).size(), 6u);
  EXPECT_THAT(eligible({.market = "crypto", .named_universes = {"u1"}}),
              ElementsAre("u1", "old", "fam__sub__x__y", "fam__tra__x__y"));
  EXPECT_THAT(eligible({.family = "fam"}), ElementsAre("fam__sub__x__y", "fam__tra__x__y"));
  EXPECT_THAT(eligible({.family = "fam", .subfamily = "tra"}), ElementsAre("fam__tra__x__y"));
}

TEST(PlanFromActiveState, KeepsThePresentSubset) {
  const Artifacts artifacts = {feature("a"), file("new_mandatory"), feature("b"), feature("c"), file("m")};
  const RotationState state = state_with({"m", "c", "a", "departed"});
  const auto plan = plan_from_active_rotation_state(artifacts, with_budget(5), state);
  EXPECT_THAT(plan.selection.active_relative_paths, ElementsAre("new_mandatory", "m", "a", "c"));
  EXPECT_THAT(plan.selection.skipped_relative_paths(), ElementsAre("b"));
  EXPECT_EQ(plan.candidate_state.active_relative_paths, plan.selection.active_relative_paths);
  EXPECT_EQ(plan.candidate_state.generation, state.generation);
  EXPECT_EQ(plan.candidate_state.rng_state, state.rng_state);
  EXPECT_EQ(plan.selection.seed, 9);
  EXPECT_EQ(plan.selection.feature_budget_bytes, 5);
}

TEST(PlanFromActiveState, ChoosesAnewOnlyWhereNothingIsLeftToKeep) {
  const RotationState foreign = state_with({"another/era"});
  const auto plan = plan_from_active_rotation_state(features(3), {}, foreign);
  EXPECT_EQ(chosen(plan).size(), 3u);
  EXPECT_EQ(plan.candidate_state.generation, 5);
  // Nor does a budget without room make one generation after the other.
  EXPECT_EQ(plan_from_active_rotation_state(features(3), with_budget(0), foreign).candidate_state.generation,
            4);
}

TEST(StatePayload, IsStrictAboutItsShape) {
  EXPECT_EQ(failure_of([] { rotation_state_payload(state_with({"\xff"}), 1); }),
            "RotationStatePayloadError: rotation state cannot be written: active_relative_paths holds a path "
            "that is not UTF-8: '\\xff'");
  const Document sound = rotation_state_payload(state_with({"a"}), 1);
  const struct {
    const char* key;
    Document value;
    const char* text;
  } cases[] = {
      {"schema_version", 2, "schema_version must be 1, got 2"},
      {"generation", true, "generation must be a 64-bit integer, got bool"},
      {"generation", -1, "generation must not be negative, got -1"},
      {"seed", 18446744073709551615u, "seed must be a 64-bit integer, got int"},
      {"rng_state", nullptr, "rng_state must be a string, got NoneType"},
      {"active_relative_paths", "a", "active_relative_paths must be a list of strings, got str"},
      {"active_relative_paths", {"a", 1}, "active_relative_paths"},
      {"active_relative_paths", {"a", "a"}, "active_relative_paths holds a path twice: 'a'"},
      {"extra", 1, "'extra' is not a known key"},
  };
  const auto refusal = [](const Document& payload) {
    return failure_of([&] { rotation_state_from_payload(payload, "state.json", 1); });
  };
  const std::string start = "RotationStatePayloadError: invalid rotation state in state.json: ";
  for (const auto& [key, value, text] : cases) {
    Document payload = sound;
    payload[key] = value;
    EXPECT_THAT(refusal(payload), HasSubstr(start + text));
  }
  Document lacking = sound;
  lacking.erase("reason");
  EXPECT_EQ(refusal(lacking), start + "reason is missing");
  EXPECT_EQ(refusal(Document::array()), start + "the payload must be an object, got list");
}

TEST(ScopedVocabulary, KeepsFeaturesThatHaveAnActiveFileInTheirUniverse) {
  const auto in = [](const char* universe) { return Document{{"named_universe", universe}}; };
  const Artifacts artifacts = {feature("features/u1/signal_is/a.arrow", 1, in("u1")),
                               feature("features/u1/signal_is/b.arrow", 1, in("u1")),
                               feature("features/u2/signal_is/c.arrow", 1, in("u2")),
                               feature("features/signal_is/old.arrow", 1, in("signal_is")),
                               feature("features/u1/signal_is/m.arrow", 1, {{"mandatory", true}})};
  const auto scoped = [&](const char* features) {
    const Document vocabulary = {
        {"named_universe", "u1"}, {"features", parse_json(features)}, {"metadata", 1}};
    return dump_json(scope_vocabulary_to_active_rotation(
        vocabulary,
        {"features/u1/signal_is/a.arrow", "features/u2/signal_is/c.arrow", "features/signal_is/old.arrow"},
        artifacts));
  };
  EXPECT_EQ(scoped(R"({"b": 1, "a": 2, "c": 3, "old": 4, "m": 5, "unknown": 6})"),
            R"({"named_universe": "u1", "features": {"a": 2, "old": 4, "m": 5}, "metadata": 1})");
  EXPECT_EQ(scoped(R"(["b", "a", {"name": "m"}, {"name": "c"}])"),
            R"({"named_universe": "u1", "features": ["a", {"name": "m"}], "metadata": 1})");
  for (const char* wrong : {"1", "null", "[1]", "[{}]"})
    EXPECT_THROW(scoped(wrong), VocabularyScopeError) << wrong;
  for (const Document& wrong : {Document(nullptr), Document::array(), Document{{"metadata", 1}}}) {
    EXPECT_THROW(scope_vocabulary_to_active_rotation(wrong, {}, {}), VocabularyScopeError);
  }
}

}  // namespace
}  // namespace tidalcrest::sync::artifact_rotation
