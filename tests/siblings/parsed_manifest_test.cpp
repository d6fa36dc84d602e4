#include "siblings/distribution/parsed_manifest.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <set>
#include <thread>

#include "host/json.hpp"
#include "siblings/distribution/manifest_document.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

SharedManifest parsed(const std::string& text) {
  return parse_distribution_manifest(std::make_shared<const std::string>(text), "served manifest");
}

// Every way to ask for an entry gives what the document holds.
void expect_same(const ManifestEntries& entries, const Document& files) {
  ASSERT_EQ(entries.size(), files.size());
  auto expected = files.get_ref<const Document::object_t&>().begin();
  for (const auto& [path, entry] : entries) {
    EXPECT_EQ(path, expected->first);
    ASSERT_TRUE(entries.contains(path));
    EXPECT_EQ(entry.document().dump(), expected->second.dump());
    EXPECT_EQ(entry.empty(), expected->second.empty());
    for (const auto& [key, value] : expected->second.get_ref<const Document::object_t&>()) {
      EXPECT_EQ(entries.find(path)->value(key), value) << key;
      EXPECT_EQ(entry.value(key).type(), value.type()) << key;
      const auto text =
          value.is_string() ? std::optional<std::string>(value.get<std::string>()) : std::nullopt;
      EXPECT_EQ(entry.text(key), text) << key;
    }
    ++expected;
  }
}

TEST(ParsedManifest, ReadsTheSameAsTextAndAsDocument) {
  std::string files;
  for (int i = 0; i < 300; ++i)
    files += fmt::format(R"("f{0}/{0}" : {{"sha256": "{0}", "size_bytes":{0}}},)", i);
  const std::string plain = R"({"version": 3, "files": {)" + files + R"(
      "none": {}, "b": {"kind": "feature", "kin": "", "kinds": null, "": "x", "mandatory" : true, "n": -4,
      "list": [1, {"a": "b"}, []], "map": {"kind": "inner"}, "last": 999999999999999999}, "a": {"kind": "x"}},
      "artifacts": [{"path": "b"}], "market_id": 7})";
  // A float in one entry is enough to make a document of all.
  const std::string other = plain.substr(0, plain.size() - 1) + R"(, "more": 1.5})";
  for (const std::string& text : {plain, other}) {
    const auto manifest = parsed(text);
    EXPECT_EQ(manifest->text() != nullptr, text == plain);
    const Document document = parse_strict_json(text);
    EXPECT_EQ(manifest->whole().dump(), document.dump());
    EXPECT_EQ(manifest->head().at("version"), 3);
    EXPECT_EQ(manifest->head().at("artifacts"), document.at("artifacts"));
    expect_same(manifest->entries(), document.at("files"));
    EXPECT_FALSE(manifest->entries().contains("f300/300"));
    EXPECT_FALSE(manifest->entries().contains(""));
    EXPECT_TRUE(manifest->entries().find("a")->value("missing").is_null());
    EXPECT_EQ(manifest->entries().find("b")->text("kin"), "");
    EXPECT_EQ(manifest->entries().find("b")->plain_text("n"), "-4");
  }
  EXPECT_TRUE(parsed("{}")->entries().empty());
  EXPECT_FALSE(parsed(R"({"version": 1})")->has_files());
  EXPECT_TRUE(parsed(R"({"files": {}})")->has_files());
  EXPECT_FALSE(parsed(R"({"files": {}})")->entries().contains("a"));
}

TEST(ParsedManifest, IsADocumentWhereTheTextIsNotPlain) {
  std::string many;
  for (int i = 0; i < 40; ++i) many += fmt::format("{}\"k{}\": {}", i == 0 ? "" : ", ", i, i);
  for (const std::string& files :
       {std::string(R"("a": {"kind": "fe\u0061ture"})"), std::string(R"("\u0061": {})"),
        std::string(R"("a": {"x": 1e3})"), "\"a\": {" + many + "}"}) {
    const std::string text = "{\"files\": {" + files + "}}";
    const auto manifest = parsed(text);
    EXPECT_EQ(manifest->text(), nullptr) << text;
    expect_same(manifest->entries(), parse_strict_json(text).at("files"));
  }
}

TEST(ParsedManifest, FailsAsItsDocumentDoes) {
  const auto nested = [](const char* begin, int depth, const char* end) {
    return begin + std::string(depth, '[') + std::string(depth, ']') + end;
  };
  // As a number of 16 bits, the length of this path would be that of a good one.
  const std::string too_long = R"({"files": {")" + std::string(65536 + 4, 'a') + R"(": {}}})";
  const std::string too_deep = nested(R"({"x": )", 64, "}");
  const std::string entry_too_deep = nested(R"({"files": {"a": {"b": )", 62, "}}}");
  for (const std::string& text : std::vector<std::string>{
           "", "[]", "{", R"({"files": {"a": {}, "a": {}}})", R"({"files": {"a": {"b": 1, "b": 1}}})",
           R"({"files": {}, "files": {}})", R"({"files": null})", R"({"files": {"a": 1}})",
           R"({"files": {"a": {}}} x)", R"({"version": 1, "files": {}, "version": 2})",
           R"({"files": {"../a": {}}})", R"({"files": {"a": {"b":}}})", R"({"files": {"a": {}, "a/b": {}}})",
           "{\"files\": {\"a\": {\"b\": \"\xff\"}}}", "\xef\xbb\xbf{}", too_long, too_deep, entry_too_deep}) {
    const std::string failure =
        failure_of([&] { parse_distribution_manifest_bytes(text, "served manifest"); });
    EXPECT_NE(failure, "nothing") << text;
    EXPECT_EQ(failure_of([&] { parsed(text); }), failure) << text;
  }
}

TEST(ParsedManifest, GivesItsDocumentToSeveralThreadsAtOnce) {
  const auto manifest = parsed(R"({"files": {"a": {"n": 1}}, "version": 2})");
  std::array<const Document*, 4> seen{};
  std::vector<std::thread> threads;
  for (auto& document : seen) threads.emplace_back([&] { document = &manifest->whole(); });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(std::set<const Document*>(seen.begin(), seen.end()).size(), 1u);
  EXPECT_EQ(seen[0]->dump(), R"({"files":{"a":{"n":1}},"version":2})");
}

TEST(ManifestEntries, OfADocumentMayHoldAnyValue) {
  const ParsedManifest odd(Document{{"files", {{"a", nullptr}, {"b", 3}, {"c", {{"kind", 4}}}}}});
  EXPECT_TRUE(odd.entries().find("a")->is_null());
  EXPECT_FALSE(odd.entries().find("b")->is_object());
  EXPECT_TRUE(odd.entries().find("b")->value("kind").is_null());
  EXPECT_EQ(odd.entries().find("c")->text("kind"), std::nullopt);
  EXPECT_EQ(odd.entries().find("c")->plain_text("kind"), "4");
  EXPECT_TRUE(ParsedManifest(Document{{"files", {1, 2}}}).entries().empty());
  EXPECT_TRUE(FileEntry().is_none());
  EXPECT_TRUE(FileEntry().document().is_object());
}

}  // namespace
}  // namespace tidalcrest::sync::client_manifest
