#include "siblings/distribution/rotation_settings.hpp"

#include "support/test.hpp"

namespace tidalcrest::sync::rotation_settings {
namespace {

class RotationSettingsTest : public ::testing::Test {
 public:
  RotationSettings load(const std::string& file) {
    data.write(ROTATION_SETTINGS_FILENAME, file);
    return load_rotation_settings(data.path(), context);
  }
  testing::TempDir data;
  const Document context = {{"current_market", "crypto"}, {"current_universes", {"u1", "u2"}}};
};

TEST_F(RotationSettingsTest, DefaultsComeFromTheCatalog) {
  const auto absent = load_rotation_settings(data.path(), context);
  EXPECT_EQ(
      dump_json(absent.model_dump()),
      R"({"algorithm": "uniform", "rotation_seed": 0, "rotation_frequency": "weekly", "feature_budget_gb": null, )"
      R"("market": "crypto", "named_universes": ["u1", "u2"], "family": null, "subfamily": null})");
  EXPECT_EQ(load(R"({"market": null, "family": null, "feature_budget_gb": null})").model_dump(),
            absent.model_dump());
}

TEST_F(RotationSettingsTest, EveryKeyCanBeGiven) {
  const Document given =
      load(R"({"algorithm": "family-balanced", "rotation_seed": -3, "rotation_frequency": "PT12H",
                                  "feature_budget_gb": 1.5, "market": "fx", "named_universes": ["u9"],
                                  "family": "f", "subfamily": "s"})")
          .model_dump();
  EXPECT_EQ(
      dump_json(given),
      R"({"algorithm": "family-balanced", "rotation_seed": -3, "rotation_frequency": "PT12H", )"
      R"("feature_budget_gb": 1.5, "market": "fx", "named_universes": ["u9"], "family": "f", "subfamily": "s"})");
  EXPECT_EQ(load(R"({"feature_budget_gb": "full"})").model_dump().at("feature_budget_gb"), "full");
  EXPECT_THAT(load(R"({"named_universes": []})").named_universes, IsEmpty());
}

TEST_F(RotationSettingsTest, RefusesWhatItDoesNotUnderstandAndNamesTheKey) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"seed": 1})", "unknown key 'seed'"},
      {R"({"algorithm": "best"})", "algorithm must be 'uniform' or 'family-balanced', got 'best'"},
      {R"({"rotation_seed": true})", "rotation_seed must be a 64-bit integer, got True"},
      {R"({"feature_budget_gb": "half"})",
       "feature_budget_gb must be null, 'full' or a number from 0 to 1000000000, got 'half'"},
      {R"({"feature_budget_gb": -1})",
       "feature_budget_gb must be null, 'full' or a number from 0 to 1000000000, got -1"},
      {R"({"market": 1})", "market must be a non-empty string, got 1"},
      {R"({"named_universes": ["a", ""]})",
       "named_universes must be a list of non-empty strings, got ['a', '']"},
      {"[]", "the file must be an object, got []"},
  };
  for (const auto& [file, text] : cases) {
    EXPECT_EQ(failure_of([&] { load(file); }), std::string("ValueError: rotation-settings.json: ") + text)
        << file;
  }
  for (const char* frequency : {"daily", "PT0H", "PTH", "PT1.5H", "PT-1H", "P7D", " weekly"}) {
    EXPECT_THROW(load(dump_json({{"rotation_frequency", frequency}})), ValueError) << frequency;
  }
  EXPECT_THROW(load(R"({"market": "a", "market": "b"})"), ValueError);
}

}  // namespace
}  // namespace tidalcrest::sync::rotation_settings
