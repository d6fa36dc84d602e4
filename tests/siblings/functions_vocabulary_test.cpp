#include "siblings/functions/token_safety.hpp"
#include "siblings/functions/vocabulary.hpp"
#include "siblings/runtime/modules.hpp"
#include "siblings/simulation/named_universe.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

Document merge(const char* functions, const char* vocabulary) {
  return merge_functions_vocabulary(parse_json(functions), parse_json(vocabulary), "u1", 7);
}

TEST(FunctionsVocabulary, CompletesAVocabularyAndLetsItsOwnEntriesWin) {
  const Document merged = merge(
      R"({"era_number": 7, "other": 1, "rotations": {"a": 1, "b": {"deep": 1}}, "filtrations": ["x", "y", "y"],
          "reductions": ["r"], "aggregations": {"k": 1}, "functions": {"f": 1}})",
      R"({"era_number": 7, "named_universe": "u1", "features": [], "rotations": {"b": {"own": 2}, "c": 3},
          "filtrations": ["y", "z"], "reductions": null, "aggregations": ["own"]})");
  EXPECT_EQ(merged, parse_json(
                        R"({"era_number": 7, "named_universe": "u1", "features": [],
                            "rotations": {"b": {"own": 2}, "c": 3, "a": 1}, "filtrations": ["y", "z", "x"],
                            "reductions": null, "aggregations": ["own"], "functions": {"f": 1}})"));
}

TEST(FunctionsVocabulary, ComparesNumbersByValue) {
  const Document merged =
      merge(R"({"functions": [true, {"w": 1}, 2, 0.5]})",
            R"({"era_number": 7.0, "named_universe": "u1", "functions": [1.0, {"w": 1.0}]})");
  EXPECT_EQ(dump_json(merged.at("functions")), R"([1.0, {"w": 1.0}, 2, 0.5])");
}

TEST(FunctionsVocabulary, RefusesAVocabularyOfAnotherEraOrUniverse) {
  EXPECT_EQ(failure_of([] { merge("{}", R"({"era_number": 8, "named_universe": "u1"})"); }),
            "ValueError: vocabulary era_number=8 does not match expected 7");
  EXPECT_EQ(failure_of([] { merge("{}", R"({"era_number": "7", "named_universe": "u1"})"); }),
            "ValueError: vocabulary era_number='7' does not match expected 7");
  EXPECT_EQ(failure_of([] { merge("{}", R"({"era_number": 7})"); }),
            "ValueError: vocabulary named_universe=None does not match expected 'u1'");
}

TEST(NameRules, KnowRetiredTokensAndUnsafeUniverses) {
  for (const char* name : {"fn_0", "FN_12", "Fn_000"})
    EXPECT_TRUE(is_retired_public_function_token_name(name));
  for (const char* name : {"fn_", "fn_1a", "fn1", "xfn_1", "fn_1 ", "ma_20", ""}) {
    EXPECT_FALSE(is_retired_public_function_token_name(name)) << name;
  }
  for (const char* name : {".", "..", ".u", "a/b", "a\\b", "a\nb", "a\x7f", "a\xc2\x85"}) {
    EXPECT_TRUE(_is_unsafe_named_universe(name)) << name;
  }
  for (const char* name : {"u1", "a.b", "a b", "\xc3\x85"})
    EXPECT_FALSE(_is_unsafe_named_universe(name)) << name;
  EXPECT_EQ(_normalize_named_universe(nullptr), "");
  EXPECT_EQ(_normalize_named_universe(" u1\t"), "u1");
  EXPECT_EQ(_normalize_named_universe(7), "7");
}

TEST(RuntimeModules, AreKnownByKindPlatformAndPath) {
  EXPECT_TRUE(is_runtime_module_kind("vault_module"));
  EXPECT_FALSE(is_runtime_module_kind("backtester_module"));
  const std::string source = "runtime/vault-" + CURRENT_PLATFORM + ".so";
  EXPECT_EQ(runtime_module_name_from_kind("vault_module", source), "vault");
  EXPECT_EQ(runtime_module_name_from_kind("vault_module", "vault-" + CURRENT_PLATFORM + ".pyd"), "vault");
  EXPECT_EQ(runtime_module_name_from_kind("feature", source), std::nullopt);
  EXPECT_EQ(runtime_module_name_from_kind("vault_module", "runtime/vault-other_platform.so"), std::nullopt);
  EXPECT_EQ(runtime_module_name_from_kind("vault_module", "runtime/-" + CURRENT_PLATFORM + ".so"),
            std::nullopt);

  const std::string sha256(64, 'a');
  const auto [path, record] = extension_snapshot::snapshot_record("vault", source, sha256, 12);
  EXPECT_EQ(path, "runtime_snapshots/vault/aaaaaaaaaaaaaaaa/vault-" + CURRENT_PLATFORM + ".so");
  EXPECT_EQ(record.at("size_bytes"), 12);
  EXPECT_EQ(record.at("source_sha256"), sha256);
  EXPECT_EQ(
      failure_of([&] { extension_snapshot::snapshot_record("vault", source, "../../aaaaaaaaaaaa", 12); }),
      "ValueError: runtime module 'vault' has no valid sha256: '../../aaaaaaaaaaaa'");
}

}  // namespace
}  // namespace tidalcrest::sync
