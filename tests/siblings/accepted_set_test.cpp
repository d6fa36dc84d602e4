#include "siblings/distribution/accepted_set.hpp"

#include "siblings/runtime/modules.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

constexpr const char* RETIRED = "found_signals/u1/s1/is/pnl_long.arrow";

Document index_document() {
  return parse_json(R"({"schema_version": 1, "era_number": 7, "market_id": 1,
      "found_signals": {"s1": {"files": ["s/a.arrow", "found_signals/u1/s1/is/pnl_long.arrow"]}, "s2": {}},
      "found_strategies": {"t1": {"files": ["t/b.arrow", "m-other.so"]}},
      "useful_signals": {"s1": {"files": ["not/in/the/manifest.arrow"]}}})");
}

// A manifest that declares `body` as its signals index.
Document manifest_for(const std::string& body) {
  Document manifest = parse_json(R"({"era_number": 7, "market_id": 1,
      "signals_index": {"schema_version": 1, "path": "signals_index.json"},
      "files": {"signals_index.json": {"kind": "signals_index"}, "s/a.arrow": {}, "t/b.arrow": {},
                "m-other.so": {"kind": "vault_module", "platform": "some_other_platform"}}})");
  manifest["files"]["signals_index.json"]["size_bytes"] = body.size();
  manifest["files"]["signals_index.json"]["sha256"] = sha256_hex(body);
  return manifest;
}

std::string failure_for(const std::string& body) {
  return failure_of([&] { validate_accepted_distribution_set(ParsedManifest(manifest_for(body)), body); });
}

TEST(AcceptedSet, ChecksInItsFixedOrder) {
  const struct {
    const char* pointer;  // what is spoiled; everything later in the list is spoiled already
    const char* value;
    const char* failure;
  } cases[] = {
      {"/useful_signals/s1/files", R"(["/a"])",
       "ValueError: signals_index useful_signals lists an invalid path '/a'"},
      {"/found_strategies/t1/files", R"(["unknown"])",
       "ValueError: signals_index found_strategies lists 'unknown', which the manifest does not"},
      {"/found_signals/s1/files", "[3]",
       "TypeError: signals_index found_signals['s1'].files holds a path that"},
      {"/found_signals/s1/files", "{}", "TypeError: signals_index found_signals['s1'].files must be a list"},
      {"/found_signals/s1", "[]", "TypeError: signals_index found_signals['s1'] must be a JSON object"},
      {"/found_signals", "[]", "TypeError: signals_index found_signals must be a JSON object"},
      {"/market_id", "2", "ValueError: signals_index market_id=2 does not match manifest market_id=1"},
      {"/era_number", "\"7\"",
       "ValueError: signals_index era_number='7' does not match manifest era_number=7"},
      {"/schema_version", "2", "ValueError: signals_index schema_version must be 1, got 2"},
      {"", "[]", "TypeError: signals_index must contain a JSON object"},
  };
  Document index = index_document();
  for (const auto& [pointer, value, failure] : cases) {
    index[Document::json_pointer(pointer)] = parse_json(value);
    EXPECT_THAT(failure_for(dump_json(index)), StartsWith(failure)) << pointer;
    EXPECT_THAT(failure_for(dump_json(index)), Not(HasSubstr("signals_index sidecar s"))) << pointer;
  }
  EXPECT_THAT(failure_for(R"({"schema_version": 1, "schema_version": 1})"), HasSubstr("duplicate key"));
}

TEST(AcceptedSet, NeedsItsOwnDeclaration) {
  const std::string body = dump_json(index_document());
  Document manifest = manifest_for(body);
  manifest["files"]["signals_index.json"].erase("size_bytes");
  EXPECT_EQ(failure_of([&] { validate_accepted_distribution_set(ParsedManifest(manifest), body); }),
            "ValueError: manifest files['signals_index.json'].size_bytes is required");
  manifest["files"].erase("signals_index.json");
  EXPECT_EQ(failure_of([&] { validate_accepted_distribution_set(ParsedManifest(manifest), body); }),
            "ValueError: manifest files has no entry for 'signals_index.json'");
  manifest.erase("signals_index");
  EXPECT_EQ(failure_of([&] { validate_accepted_distribution_set(ParsedManifest(manifest), body); }),
            "ValueError: manifest declares no signals_index");
}

// The retired path is listed by no manifest and the module is another platform's: neither is asked for.
TEST(AcceptedSet, LoadsOnlyWithEveryMemberInPlace) {
  const testing::TempDir root;
  const std::string body = dump_json(index_document());
  const Document manifest = manifest_for(body);
  const auto load = [&] {
    return failure_of([&] { load_accepted_distribution_set(root.path(), ParsedManifest(manifest)); });
  };
  EXPECT_THAT(load(), StartsWith("FileNotFoundError: "));
  root.write("signals_index.json", body);
  root.write("s/a.arrow", "a");
  EXPECT_THAT(load(), HasSubstr("t/b.arrow"));
  EXPECT_THAT(load(), StartsWith("FileNotFoundError: "));
  root.write("t/b.arrow", "b");
  EXPECT_EQ(load(), "nothing");
  root.remove("s/a.arrow");
  root.write("s/a.arrow/x", "a directory where the member belongs");
  EXPECT_THAT(load(), StartsWith("OSError: "));
}

}  // namespace
}  // namespace tidalcrest::sync::client_manifest
