#include "artifacts/vocabulary.hpp"

#include "artifacts/fixture.hpp"
#include "artifacts/retired_tokens.hpp"

namespace tidalcrest::sync {
namespace {

using namespace testing;

TEST(VocabularyEntryNames, AreNamesThenNestedNamesThenKeys) {
  const Document value = {{"a", {{"name", "x"}, {"b", {{{"name", "y"}}, "bare"}}}}, {"name", 5}};
  EXPECT_THAT(_iter_vocabulary_entry_names(value), ElementsAre("x", "y", "name", "name", "b", "a", "name"));
}

TEST(RetiredTokens, AreReportedOnceAndOnlyFromTheScannedSections) {
  Document vocabulary = {{"features", {{"fn_9", 1}}},
                         {"functions", {{"fn_2", {{"name", "FN_2"}, {"args", {{{"name", "fn_1"}}}}}}}},
                         {"rotations", {{{"name", "fn_1"}}, "fn_8"}}};
  EXPECT_THAT(_retired_function_names_in_vocabulary(vocabulary), ElementsAre("FN_2", "fn_1", "fn_2"));

  const auto message = [](const std::string& sample) {
    return "SyncError: vocabulary.json contains retired function token ids " + sample +
           "; regenerate the era distribution with DB-token vocabulary";
  };
  for (int i = 3; i <= 5; ++i) vocabulary["aggregations"]["fn_" + std::to_string(i)] = 0;
  EXPECT_EQ(failure_of([&] { _validate_no_retired_function_tokens(vocabulary); }),
            message("FN_2, fn_1, fn_2, fn_3, fn_4 (+1 more)"));
  vocabulary.erase("aggregations");
  EXPECT_EQ(failure_of([&] { _validate_no_retired_function_tokens(vocabulary); }),
            message("FN_2, fn_1, fn_2"));
}

TEST(VocabularyData, IsTestedInOrder) {
  // Each step breaks one thing that is tested earlier than everything broken before it.
  const std::pair<std::function<void(Document&)>, const char*> steps[] = {
      {[](Document&) {}, "nothing"},
      {[](Document& v) {
         v["filtrations"] = {{"fn_1", 0}};
       },
       "SyncError: vocabulary.json contains retired function token ids fn_1; regenerate the era distribution "
       "with DB-token vocabulary"},
      {[](Document& v) { v["metadata"].erase("named_universe"); },
       "SyncError: vocabulary.json metadata.named_universe does not match manifest path 'u1'"},
      {[](Document& v) { v["named_universe"] = "u2"; },
       "SyncError: vocabulary.json named_universe does not match manifest path 'u1'"},
      {[](Document& v) { v["metadata"] = nullptr; }, "SyncError: vocabulary.json metadata must be an object"},
      {[](Document& v) { v["era_number"] = "7"; },
       "EraError: vocabulary.json era_number=7 does not match manifest era_number=7"},
      {[](Document& v) { v.erase("era_number"), v.erase("features"); },
       "SyncError: vocabulary.json missing required keys: ['era_number', 'features']"},
      {[](Document& v) { v = {1}; }, "SyncError: vocabulary.json must contain a JSON object"},
  };
  Document vocabulary = vocabulary_document("u1");
  for (const auto& [breaks, failure] : steps) {
    breaks(vocabulary);
    EXPECT_EQ(failure_of([&] { _validate_vocabulary_data(vocabulary, 7, "u1"); }), failure);
  }
}

TEST(VocabularyData, TakesItsOwnUniverseWhenNoneIsGiven) {
  EXPECT_EQ(_validate_vocabulary_data(vocabulary_document("u1"), 7), vocabulary_document("u1"));
  EXPECT_EQ(failure_of([] { _validate_vocabulary_data(vocabulary_document(".."), 7); }),
            "SyncError: named_universe must be a single safe path segment: '..'");
  EXPECT_EQ(failure_of([] { _validate_vocabulary_data(vocabulary_document(" "), 7); }),
            "SyncError: named_universe is required");
}

TEST(VocabularyBytes, ThatAreNoJsonChainTheirCause) {
  for (const char* const bytes : {"{", "\xff", ""}) {
    const auto failure = caught<SyncError>([&] { _validate_vocabulary_bytes(bytes, 7); });
    EXPECT_THAT(failure.what(), StartsWith("vocabulary.json is not valid JSON: "));
    EXPECT_THROW(std::rethrow_exception(failure.cause()), ValueError);
  }
}

TEST(VocabularyPath, MissesWhatIsNoneAndRefusesAnUnsafeUniverse) {
  EXPECT_EQ(_vocabulary_named_universe_from_path("named_universes/u1/vocabulary.json"), "u1");
  for (const char* const path : {"", "vocabulary.json", "named_universes/u1/vocabulary.json/x",
                                 "named_universes/a/b/vocabulary.json", "named_universes//vocabulary.json",
                                 "/named_universes/u1/vocabulary.json", "named_universes/../vocabulary.json",
                                 "named_universes/a b/vocabulary.json", "x/u1/vocabulary.json"}) {
    EXPECT_EQ(_vocabulary_named_universe_from_path(path), std::nullopt) << path;
  }
  EXPECT_EQ(failure_of([] { _vocabulary_named_universe_from_path("named_universes/.u/vocabulary.json"); }),
            "SyncError: named_universe must be a single safe path segment: '.u'");
}

// A root with two vocabularies and a functions file, and the manifest that declares them.
class VocabularyRootTest : public ::testing::Test {
 protected:
  VocabularyRootTest() {
    Document second = vocabulary_document("u2");
    second["functions"] = {{"own", 2}};
    put(vocabulary_path("u2"), dump_json(second), "vocabulary");
    put(vocabulary_path("u1"), dump_json(vocabulary_document("u1")), "vocabulary");
    put("functions.json", R"({"era_number": 7, "functions": {"own": 1, "shared": 1}})", "functions");
  }
  void put(const std::string& path, const std::string& bytes, const std::string& kind) {
    root.write(path, bytes);
    manifest["files"][path] = entry_for(bytes, kind);
  }
  Vocabularies validate() const {
    return _validate_manifest_vocabulary_files(root.path(), Manifest(manifest));
  }
  std::string failure() const {
    return failure_of([this] { validate(); });
  }

  TempDir root;
  Document manifest = {{"era_number", 7}, {"functions", "functions.json"}, {"files", Document::object()}};
};

TEST_F(VocabularyRootTest, IsProvenAndMergedInPathOrder) {
  const Vocabularies vocabularies = validate();
  const auto& items = vocabularies.get_ref<const Document::object_t&>();
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items.begin()->first, "u1");
  EXPECT_EQ(vocabularies["u1"]["functions"], (Document{{"own", 1}, {"shared", 1}}));
  EXPECT_EQ(vocabularies["u2"]["functions"], (Document{{"own", 2}, {"shared", 1}}));
}

TEST_F(VocabularyRootTest, NamesWhatIsWrongWithIt) {
  const std::string path = vocabulary_path("u1");
  const std::string good = root.read(path);

  put(path, dump_json(vocabulary_document("u2")), "vocabulary");
  EXPECT_EQ(failure(), "SyncError: vocabulary.json named_universe does not match manifest path 'u1'");
  root.write(path, good);
  EXPECT_EQ(failure(), "IntegrityError: " + path + " sha256 mismatch");
  manifest["files"][path]["sha256"] = nullptr;
  EXPECT_EQ(failure(), "SyncError: manifest files[\"" + path + "\"].sha256 is required");
  root.remove(path);
  EXPECT_EQ(failure(), "SyncError: vocabulary.json is missing");
  root.write(path + "/inside", "a directory in the place of the file");
  EXPECT_THAT(failure(), StartsWith("SyncError: vocabulary.json is not readable: "));
  root.remove("functions.json");
  EXPECT_EQ(failure(), "SyncError: functions.json is missing: functions.json");
  manifest["files"].erase(path);
  manifest["files"].erase(vocabulary_path("u2"));
  EXPECT_EQ(failure(), "SyncError: manifest is missing per-universe vocabulary.json entries");
}

TEST(FirstVocabularyMetadata, IsOfTheFirstThatHasOne) {
  EXPECT_EQ(_first_vocabulary_metadata(Document::object()), Document::object());
  EXPECT_EQ(
      _first_vocabulary_metadata({{"a", 1}, {"b", {{"metadata", 2}}}, {"c", {{"metadata", {{"n", 3}}}}}}),
      (Document{{"n", 3}}));
  EXPECT_EQ(_first_vocabulary_metadata({{"a", {{"features", 1}}}, {"b", {{"metadata", {{"n", 3}}}}}}),
            Document::object());
}

}  // namespace
}  // namespace tidalcrest::sync
