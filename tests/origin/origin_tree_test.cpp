#include "origin/origin_tree.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "build_paths.hpp"
#include "origin/disk.hpp"
#include "origin/evolution.hpp"
#include "origin/recipe.hpp"
#include "origin/seed_sealing.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::origin {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

using Files = std::map<std::string, std::string>;  // path to digest

class OriginTreeTest : public testing::Test {
 protected:
  OriginTreeTest() {
    recipe.number = 5;
    recipe.universes = {"u1", "u2"};
    recipe.features = 12;
    recipe.feature_bytes = {1, 3000};
    recipe.vault_modules = {"pricing"};
  }

  OriginTree build(const std::string& name, const Recipe& made_from) const {
    OriginState state;
    state.number = made_from.number;
    state.era_number = made_from.era_number;
    state.data_url = "http://127.0.0.1:1";
    auto tree = OriginTree::create(root / name, state);
    tree.make_current(tree.add_release(build_from_recipe(made_from)).name);
    return tree;
  }

  static Files files_of(const Release& release) {
    Files found;
    for (const auto& [path, entry] : release.manifest.at("files").get_ref<const Document::object_t&>()) {
      found[path] = entry.at("sha256");
    }
    return found;
  }

  struct Differences {
    std::vector<std::string> differing, gone, fresh;
  };
  static Differences differences(const Files& before, const Files& after) {
    Differences found;
    for (const auto& [path, digest] : before) {
      if (!after.contains(path)) {
        found.gone.push_back(path);
      } else if (after.at(path) != digest) {
        found.differing.push_back(path);
      }
    }
    for (const auto& [path, digest] : after) {
      if (!before.contains(path)) found.fresh.push_back(path);
    }
    return found;
  }

  const sync::testing::TempDir directory;
  const fs::path root = directory.path();
  Recipe recipe;
};

TEST(SeedSealing, AgreesWithTheVectors) {
  const auto vectors =
      sync::parse_json(disk::read_text(TIDALCREST_TEST_DATA "/shuffle_seed.json")).at("vectors");
  std::size_t compared = 0;
  for (const auto& vector : vectors) {
    if (!vector.at("opens").get<bool>()) continue;
    const auto sealed = from_hex(vector.at("ciphertext"));
    EXPECT_EQ(seal_shuffle_seed(from_hex(vector.at("wallet_secret")), vector.at("market_id"),
                                vector.at("era_number"), from_hex(vector.at("seed")), sealed.substr(0, 12)),
              sealed);
    ++compared;
  }
  EXPECT_GT(compared, 0u);
}

TEST_F(OriginTreeTest, TheSameRecipeGivesTheSameBytesAndAnotherNumberOthers) {
  const auto first = sync::testing::files_below(build("a", recipe).root());
  EXPECT_EQ(first, sync::testing::files_below(build("b", recipe).root()));
  recipe.number = 6;
  auto other = sync::testing::files_below(build("c", recipe).root());
  EXPECT_NE(first.at("token"), other.at("token"));
  EXPECT_NE(first.at("api/m1-e1-v1/shuffle_seed.enc"), other.at("api/m1-e1-v1/shuffle_seed.enc"));
  const auto feature = "releases/m1-e1-v1/features/u1/signal_is/momentum__fast__mean__w00000.arrow";
  EXPECT_NE(first.at(feature), other.at(feature));
}

TEST_F(OriginTreeTest, EvolvingChangesWhatItSaysAndNothingElse) {
  const auto tree = build("a", recipe);
  const auto before = tree.release(tree.state().current);
  const auto evolved =
      evolve(tree, recipe, {parse_amount("10%"), parse_amount("3"), parse_amount("5"), false});
  EXPECT_THAT(evolved.changed, SizeIs(8));  // of 77 that are not made on their own
  EXPECT_THAT(evolved.added, SizeIs(3));
  EXPECT_THAT(evolved.removed, SizeIs(5));
  EXPECT_EQ(tree.state().current, before.name);

  const auto [differing, gone, fresh] = differences(files_of(before), files_of(evolved.release));
  auto expected = evolved.changed;
  for (const char* universe : {"u1", "u2"}) {
    expected.push_back(std::string("named_universes/") + universe + "/vocabulary.json");
  }
  EXPECT_THAT(differing, testing::IsSubsetOf(expected));
  EXPECT_THAT(evolved.changed, testing::IsSubsetOf(differing));
  EXPECT_THAT(evolved.removed, testing::UnorderedElementsAreArray(gone));
  EXPECT_THAT(evolved.added, testing::UnorderedElementsAreArray(fresh));

  struct stat kept {};
  ASSERT_EQ(::stat((evolved.release.directory / "functions.json").c_str(), &kept), 0);
  EXPECT_EQ(kept.st_nlink, 2u);
  EXPECT_THROW(evolve(tree, recipe, {{}, {}, parse_amount("1000"), false}), sync::ValueError);
}

TEST_F(OriginTreeTest, TheNextEraRenewsOnlyWhatNamesTheEra) {
  const auto tree = build("a", recipe);
  const auto before = tree.release(tree.state().current);
  tree.update_state([](OriginState& state) { state.era_state = "closing"; });
  Evolution next;
  next.next_era = true;
  const auto evolved = evolve(tree, recipe, next);
  tree.make_current(evolved.release.name);
  EXPECT_EQ(evolved.release.name, "m1-e2-v1");
  EXPECT_EQ(tree.state().era_number, 2);
  EXPECT_EQ(tree.state().era_state, "active");
  EXPECT_THAT(differences(files_of(before), files_of(evolved.release)).differing,
              ElementsAre("functions.json", "named_universes/u1/vocabulary.json",
                          "named_universes/u2/vocabulary.json", "signals_index.json"));
  EXPECT_NE(disk::read_text(tree.api_directory("m1-e2-v1") / "shuffle_seed.enc"),
            disk::read_text(tree.api_directory("m1-e1-v1") / "shuffle_seed.enc"));
}

TEST_F(OriginTreeTest, AFolderBecomesARelease) {
  const auto folder = root / "folder";
  disk::write_text(folder / "features/u9/signal_is/a__b__c__d.arrow", "feature");
  disk::write_text(folder / "found_signals/u9/s1/is/pnl.arrow", "pnl");
  disk::write_text(folder / "notes.txt", "notes");
  const auto tree = OriginTree::create(root / "t", {});
  const auto release = tree.add_release(build_from_folder(folder));
  const auto& files = release.manifest.at("files");
  EXPECT_EQ(files.at("features/u9/signal_is/a__b__c__d.arrow").at("kind"), "feature");
  EXPECT_EQ(files.at("found_signals/u9/s1/is/pnl.arrow").at("kind"), "found_signal_is_pnl");
  EXPECT_EQ(files.at("notes.txt").at("kind"), "reference");
  EXPECT_TRUE(files.contains("named_universes/u9/vocabulary.json"));
  const auto index = sync::parse_strict_json(disk::read_text(release.directory / "signals_index.json"));
  EXPECT_THAT(index.at("found_signals").at("s1").at("files"),
              ElementsAre("found_signals/u9/s1/is/pnl.arrow"));
}

TEST(Recipe, IsReadStrictlyAndWrittenBack) {
  const auto recipe = parse_recipe(R"({"features": 3, "feature_bytes": 10, "found_bytes": [1, 9]})");
  EXPECT_EQ(recipe.features, 3u);
  EXPECT_EQ(recipe.feature_bytes.most, 10u);
  EXPECT_EQ(parse_recipe(sync::dump_json(recipe_document(recipe))).found_bytes.least, 1u);
  const std::pair<const char*, const char*> cases[] = {
      {"[]", "expected a JSON object"},
      {R"({"fetures": 3})", "unknown key fetures"},
      {R"({"features": -1})", "features: expected a number"},
      {R"({"feature_bytes": [9, 1]})", "feature_bytes: expected a size"},
      {R"({"universes": [1]})", "universes: expected a list of texts"}};
  for (const auto& [text, failure] : cases) {
    SCOPED_TRACE(text);
    EXPECT_THAT(sync::testing::failure_of([&] { parse_recipe(text); }), HasSubstr(failure));
  }
  for (const char* text : {"", "x", "5 %", "-1", "3x"})
    EXPECT_THROW(parse_amount(text), sync::ValueError) << text;
}

}  // namespace
}  // namespace tidalcrest::origin
