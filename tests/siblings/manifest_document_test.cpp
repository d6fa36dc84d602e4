#include "siblings/distribution/manifest_document.hpp"

#include <ctime>

#include "support/test.hpp"
#include "support/test_data.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

std::string parse_failure(const std::string& body) {
  return failure_of([&] { parse_distribution_manifest_bytes(body, "served manifest"); });
}

std::string files_body(const std::vector<std::string>& paths) {
  Document files = Document::object();
  for (const auto& path : paths) files[path] = Document::object();
  return dump_json({{"files", files}});
}

TEST(ManifestPath, AgreesWithTheSharedVectors) {
  const Document vectors = testing::test_data("paths.json");
  for (const Document& path : vectors.at("accepted")) {
    EXPECT_EQ(failure_of([&] { validate_manifest_relative_path(path); }), "nothing") << path;
  }
  for (const Document& path : vectors.at("refused")) {
    EXPECT_THAT(failure_of([&] { validate_manifest_relative_path(path); }), StartsWith("ValueError: "))
        << path;
  }
}

TEST(ManifestBytes, RefuseWhatIsNoStrictJsonObject) {
  EXPECT_THAT(parse_failure("{"), StartsWith("ManifestJsonError: served manifest is not valid JSON: "));
  EXPECT_THAT(parse_failure(R"({"files": {"a": {}, "a": {}}})"), HasSubstr("duplicate key 'a'"));
  EXPECT_THAT(parse_failure("\"\xff\""), StartsWith("ManifestJsonError: served manifest "));
  EXPECT_EQ(parse_failure("[]"), "ValueError: served manifest must contain a JSON object");
  EXPECT_EQ(parse_failure(R"({"files": null})"),
            "ValueError: served manifest files must be a JSON object, got NoneType");
  EXPECT_EQ(parse_failure(R"({"files": {"a": []}})"),
            "ValueError: served manifest files['a'] must be a JSON object, got list");
  EXPECT_EQ(parse_failure(R"({"files": {"../a": {}}})"),
            "ValueError: served manifest files has an invalid path '../a': path has a relative segment '..'");
  EXPECT_EQ(parse_failure("{}"), "nothing");
}

TEST(ManifestBytes, StopAt256MebibytesBeforeParsing) {
  const std::string body((std::size_t{256} << 20) + 1, ' ');
  EXPECT_EQ(parse_failure(body),
            "ValueError: served manifest is too large: 268435457 bytes, at most 268435456");
}

TEST(ManifestBytes, RefusePathsThatWouldStandInTheClientsWay) {
  for (const char* name :
       {"manifest.json", "shuffle_seed.enc", "shuffle_seed.enc.meta.json", "sync-progress.json",
        "feature-rotation-state.json", "rotation-settings.json", ".manifest_sync_metadata.json",
        ".sync_hash_cache.json", ".consumer_count", ".sync_flock", ".transition_lock",
        ".prefetched-features.json", ".tidalcrest-identity.json", ".search-tracking.json",
        ".cohort-manifest.json", ".cohort-complete.json", ".tidalcrest-cohorts/x", "manifest.json/x"}) {
    EXPECT_THAT(parse_failure(files_body({name})), HasSubstr("the client's own name")) << name;
  }
  EXPECT_THAT(parse_failure(files_body({"a/b.tmp"})),
              EndsWith("path ends in '.tmp', the name of a staging file"));
  EXPECT_EQ(parse_failure(files_body({"u1/manifest.json", ".hidden", "x.tmp/a", "u1/.transition_lock"})),
            "nothing");
}

TEST(ManifestBytes, RefuseAPathThatIsAlsoADirectory) {
  for (const std::vector<std::string>& paths : std::vector<std::vector<std::string>>{
           {"a", "a/b"}, {"a/b", "a"}, {"a/b/c/d", "z", "a/b"}, {"a!", "a-b", "a/b", "a.c", "a"}}) {
    EXPECT_THAT(parse_failure(files_body(paths)), HasSubstr("a path that is also a directory")) << paths[0];
  }
  EXPECT_EQ(parse_failure(files_body({"a.b", "a/b", "a/bc", "ab", "a/b.c/d"})), "nothing");
}

double processor_seconds(const std::function<void()>& work) {
  const std::clock_t start = std::clock();
  work();
  return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

// Held against plain parsing in the same moment, so that a busy machine does not count: a path's rules cost a
// few times as much, quadratic ones some hundred times.
TEST(ManifestBytes, StayLinearForManyFilesAndForDeepOnes) {
  std::vector<std::string> paths;
  for (int i = 0; i < 50000; ++i)
    paths.push_back(fmt::format("features/u{}/signal_is/a__b__{}.arrow", i % 7, i));
  std::string deep;
  for (int i = 0; i < 500; ++i) deep += "d/";
  for (int i = 0; i < 1000; ++i) paths.push_back(fmt::format("{}/{}{}", i, deep, i));
  const std::string body = files_body(paths);
  const double plainly = processor_seconds([&] { parse_json(body); });
  Document document;
  EXPECT_LT(processor_seconds([&] { document = parse_distribution_manifest_bytes(body, "served manifest"); }),
            50 * plainly);
  EXPECT_EQ(document.at("files").size(), paths.size());
  std::size_t found = 0;
  const auto read_and_look_up = [&] {
    const auto manifest =
        parse_distribution_manifest(std::make_shared<const std::string>(body), "served manifest");
    for (const auto& path : paths) found += manifest->entries().contains(path) ? 1 : 0;
  };
  EXPECT_LT(processor_seconds(read_and_look_up), 50 * plainly);
  EXPECT_EQ(found, paths.size());
}

TEST(SignalsIndexDeclaration, IsAbsentOrWhole) {
  const auto declaration = [](const std::string& value, const char* files = "{}") {
    return validate_signals_index_manifest_declaration(
        ParsedManifest(parse_json(R"({"signals_index": )" + value + R"(, "files": )" + files + "}")));
  };
  const char* const whole = R"({"schema_version": 1, "path": "i"})";
  EXPECT_EQ(validate_signals_index_manifest_declaration(ParsedManifest(Document::object())), std::nullopt);
  EXPECT_EQ(declaration("null"), std::nullopt);
  EXPECT_EQ(declaration(whole), "i");
  EXPECT_EQ(declaration(whole, R"({"i": {"kind": "signals_index"}})"), "i");
  EXPECT_EQ(failure_of([&] { declaration(whole, R"({"i": {"kind": "feature"}})"); }),
            "ValueError: manifest files['i'].kind must be signals_index");
  const std::pair<const char*, const char*> cases[] = {
      {"[]", "TypeError: manifest signals_index must be a JSON object, got list"},
      {R"({"schema_version": 1})", "TypeError: manifest signals_index.path must be a string"},
      {R"({"schema_version": 1, "path": 3})", "TypeError: manifest signals_index.path must be a string"},
      {R"({"schema_version": 1, "path": "/i"})",
       "ValueError: manifest signals_index.path '/i' is invalid: path begins with '/'"},
      {R"({"schema_version": 2, "path": "i"})",
       "ValueError: manifest signals_index.schema_version must be 1, got 2"},
      {R"({"schema_version": true, "path": "i"})",
       "ValueError: manifest signals_index.schema_version must be 1, got True"},
      {R"({"path": "i"})", "ValueError: manifest signals_index.schema_version must be 1, got None"},
  };
  for (const auto& [text, failure] : cases) {
    EXPECT_EQ(failure_of([&] { declaration(text); }), failure) << text;
  }
}

}  // namespace
}  // namespace tidalcrest::sync::client_manifest
