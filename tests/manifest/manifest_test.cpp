#include "tidalcrest/sync/manifest.hpp"

#include "manifest/identity.hpp"
#include "manifest/sanitising.hpp"
#include "siblings/distribution/parsed_manifest.hpp"
#include "siblings/runtime/modules.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

SharedDocument shared(const std::string& text) { return std::make_shared<const Document>(parse_json(text)); }

std::string construction_failure(const std::string& text) {
  return failure_of([&] { Manifest(parse_json(text)); });
}

std::vector<std::string> keys(const Document& object) {
  std::vector<std::string> found;
  for (const auto& [key, value] : object.get_ref<const Document::object_t&>()) found.push_back(key);
  return found;
}

TEST(Manifest, RefusesWhatItCannotStandFor) {
  const std::pair<const char*, const char*> cases[] = {
      {"{}", "ManifestError: manifest.json missing required era_number"},
      {R"({"era_number": null})", "ManifestError: manifest.json missing required era_number"},
      {R"({"signals_index": 1})", "ManifestError: manifest signals_index must be a JSON object, got int"},
      {R"({"era_number": 0, "found_signals": {}, "useful_signals": {}})",
       "ManifestError: manifest membership sections must be supplied together; missing ['found_strategies']"},
      {R"({"era_number": 0, "found_signals": {}, "found_strategies": [], "useful_signals": {}})",
       "ManifestError: manifest found_strategies must be a JSON object"},
      {R"({"era_number": 0, "files": null})",
       "ManifestError: manifest files must be a JSON object, got NoneType"},
      {"[]", "ManifestError: manifest document must be a JSON object, got list"},
      {R"({"era_number": 0})", "nothing"},
  };
  for (const auto& [text, failure] : cases) EXPECT_EQ(construction_failure(text), failure) << text;
}

TEST(Manifest, GivesAttributesAsTheDocumentHasThem) {
  const Manifest manifest(parse_json(R"({"era_number": "7", "version": null, "files": {"a": {}, "b": 1}})"));
  EXPECT_EQ(manifest.era_number(), "7");
  EXPECT_TRUE(manifest.version().is_null());
  EXPECT_EQ(manifest.pnl_column_count(), 0);
  EXPECT_TRUE(manifest.market_id().is_null());
  EXPECT_TRUE(manifest.file_entry("a").has_value());
  EXPECT_FALSE(manifest.file_entry("b").has_value());
  EXPECT_EQ(manifest.membership(), nullptr);
  EXPECT_TRUE(Manifest(parse_json(R"({"era_number": 0})")).files().is_object());
}

TEST(Manifest, WritesSectionsTogetherWithAFreshCountOrNotAtAll) {
  const Manifest bare(parse_json(R"({"era_number": 1, "found_signal_count": 9, "own": [1]})"));
  EXPECT_EQ(bare.to_dict(), parse_json(R"({"era_number": 1, "own": [1]})"));

  bare.install_membership(std::make_shared<const MembershipSections>(
      MembershipSections{parse_json(R"({"s1": {}, "s2": {}})"), Document::object(), Document::object()}));
  EXPECT_EQ(bare.to_dict(), parse_json(R"({"era_number": 1, "own": [1], "found_signals": {"s1": {}, "s2": {}},
      "found_strategies": {}, "useful_signals": {}, "found_signal_count": 2})"));

  bare.install_membership(std::make_shared<const MembershipSections>(
      MembershipSections{Document::object(), nullptr, Document::object()}));
  EXPECT_EQ(failure_of([&] { bare.to_dict(); }),
            "ManifestError: manifest membership state is incomplete; all membership sections must be loaded "
            "together");

  const Manifest full(parse_json(R"({"found_signal_count": 9, "era_number": 1, "found_signals": {"a": 3},
      "found_strategies": {}, "useful_signals": {}})"));
  EXPECT_EQ(full.to_dict().at("found_signal_count"), 1);
  EXPECT_EQ(full.membership()->found_signals, parse_json(R"({"a": 3})"));
}

TEST(Sanitising, GivesACleanDocumentBackAsItIs) {
  const SharedDocument clean = shared(R"({"era_number": 1, "files": {"a.so": {"kind": "vault_module"}},
      "artifacts": [1, {}], "found_signals": {"s": {"files": ["found_signals/u/s/is/pnl_long.arrow"]}}})");
  EXPECT_EQ(_sanitize_manifest_data_for_sync(clean), clean);
}

TEST(Sanitising, DropsDeclarationsModulesAndRetiredFiles) {
  const SharedDocument served = shared(R"({"era_number": 1,
      "files": {"a/x.pxd": {"kind": "feature"}, "b": {"kind": "vault_declaration"}, "keep": {},
                "c": {"kind": "backtester_declaration"}, "d": {"kind": "risk_module"},
                "found_signals/u/s/is/pnl_long.arrow": {}, "found_strategies/u/s/is/pnl.long.arrow": {}},
      "artifacts": [{"relative_path": "d", "kind": "risk_module"}, 5, {"path": "keep"}],
      "found_signals": {"gone": {"files": ["found_signals/u/s/is/pnl_long.arrow"]},
                        "thinner": {"n": 1, "files": ["found_signals/u/s/is/pnl_long.arrow", "keep"]},
                        "odd": 3, "no list": {"files": 4}},
      "found_strategies": [], "last": true})");
  const Document before = *served;
  const SharedDocument clean = _sanitize_manifest_data_for_sync(served);
  EXPECT_EQ(*served, before);
  EXPECT_EQ(keys(*clean), keys(*served));
  EXPECT_EQ(*clean, parse_json(R"({"era_number": 1, "files": {"keep": {}}, "artifacts": [5, {"path": "keep"}],
      "found_signals": {"thinner": {"n": 1, "files": ["keep"]}, "odd": 3, "no list": {"files": 4}},
      "found_strategies": [], "last": true})"));
}

// A manifest that is kept as its text and one that is a document come to the same, whichever of the rules
// drops something.
TEST(Sanitising, IsTheSameForATextAsForADocument) {
  const std::string sections =
      R"(, "found_signals": {"s": {"files": ["found_signals/u/s/is/pnl_long.arrow"]}},
      "found_strategies": {}, "useful_signals": {})";
  const std::pair<const char*, std::string> cases[] = {
      {R"("keep": {"kind": "vault_module"})", sections},
      {R"("a/x.pxd": {"kind": "feature", "n": 1}, "keep": {"m": [2]})", ""},
      {R"("keep": {}, "b": {"kind": "vault_declaration"})", sections},
      {R"("keep": {}, "d": {"kind": "risk_module"}, "z": {"size_bytes": 4})", ""},
      {R"("keep": {})", R"(, "artifacts": [{"path": "d", "kind": "risk_module"}, {"path": "keep"}])"},
      {R"("found_signals/u/s/is/pnl_long.arrow": {}, "keep": {})", sections},
      {R"("found_signals/u/s/is/pnl_long.arrow": {"kind": "vault_declaration"})", sections},
      {R"("x.pxd": {}, "m": {"kind": "old_module"}, "found_strategies/u/s/is/pnl.long.arrow": {}, "keep": {})",
       R"(, "artifacts": [{"path": "m", "kind": "old_module"}], "found_signals": {}, "useful_signals": {},
          "found_strategies": {"t": {"files": ["keep", "found_strategies/u/s/is/pnl.long.arrow"]}})"},
  };
  for (const auto& [files, more] : cases) {
    const std::string all = "\"files\": {" + std::string(files) + "}";
    const std::string era = "\"era_number\": 1";
    for (const std::string& text : {"{" + all + ", " + era + more + "}", "{" + era + more + ", " + all + "}",
                                    "{" + era + ", " + all + more + "}", "{" + era + more + "}"}) {
      const auto parsed = ParsedManifest::of_plain_text(std::make_shared<const std::string>(text));
      ASSERT_NE(parsed, nullptr) << text;
      const Manifest of_text(parsed);
      const Manifest of_document(parse_json(text));
      EXPECT_EQ(of_text.to_dict().dump(), of_document.to_dict().dump()) << text;
      EXPECT_EQ(of_text.data().dump(), of_document.data().dump()) << text;
      EXPECT_NE(of_text.parsed()->text(), nullptr);
      ASSERT_EQ(of_text.entries().size(), of_document.entries().size()) << text;
      for (const auto& [path, entry] : of_document.entries())
        EXPECT_EQ(of_text.file_entry(path)->document(), entry.document()) << text;
      EXPECT_FALSE(of_text.entries().contains("d"));
      EXPECT_EQ(parsed->whole(), parse_json(text)) << text;
      const bool is_clean = of_document.data() == parse_json(text);
      EXPECT_EQ(of_text.parsed() == parsed, is_clean) << text;
    }
  }
}

TEST(Sanitising, KnowsRetiredPathsByTheirShape) {
  for (const char* path :
       {"found_signals/u/s/is/pnl_long.arrow", "found_strategies/u/s/is/pnl.long.arrow",
        "//found_signals/u/s/is/pnl_long.arrow/", "found_signals\\u\\s\\is\\pnl_long.arrow"}) {
    EXPECT_TRUE(_is_retired_found_pnl_long_file(path)) << path;
  }
  for (const char* path : {"useful_signals/u/s/is/pnl_long.arrow", "found_signals/u/s/pnl_long.arrow",
                           "found_signals/u/s/is/x/pnl_long.arrow", "found_signals/u/s/is/pnl.arrow", ""}) {
    EXPECT_FALSE(_is_retired_found_pnl_long_file(path)) << path;
  }
  const std::string tail = "-" + CURRENT_PLATFORM;
  EXPECT_EQ(_retired_unsupported_runtime_module_name_from_path("r/backtester" + tail + ".so"), "backtester");
  EXPECT_EQ(_retired_unsupported_runtime_module_name_from_path("r\\risk_model" + tail + ".pyd"),
            "risk_model");
  EXPECT_FALSE(_is_retired_unsupported_runtime_module_path("r/vault" + tail + ".so"));
  EXPECT_FALSE(_is_retired_unsupported_runtime_module_path("r/backtester-other.so"));
}

TEST(MarketIdentity, TakesOnlyATrueEqualInteger) {
  EXPECT_EQ(_coerce_agent_market_id(" 3 "), 3);
  for (const Document& bad : {Document(0), Document(-1), Document("x"), Document(nullptr)}) {
    EXPECT_THAT(failure_of([&] { _coerce_agent_market_id(bad); }),
                HasSubstr("must be a positive integer, got "));
  }
  EXPECT_EQ(failure_of([] { _coerce_agent_market_id("x"); }),
            "ValueError: market_id must be a positive integer, got 'x'");
  EXPECT_EQ(_require_manifest_market_identity(parse_json(R"({"market_id": 1})"), 1, "manifest"), 1);
  for (const char* bad : {R"({"market_id": true})", R"({"market_id": "1"})", R"({"market_id": 1.0})",
                          R"({"market_id": 2})", "{}", "[]"}) {
    EXPECT_EQ(failure_of([&] { _require_manifest_market_identity(parse_json(bad), 1, "served manifest"); }),
              "ManifestError: served manifest market_id must exactly match configured market_id=1")
        << bad;
  }
  const Manifest manifest(parse_json(R"({"era_number": 1, "market_id": 4})"));
  EXPECT_EQ(_require_manifest_market_identity(manifest, 4, "manifest"), 4);
  EXPECT_THROW(_require_manifest_market_identity(manifest, 5, "manifest"), ManifestError);
}

}  // namespace
}  // namespace tidalcrest::sync
