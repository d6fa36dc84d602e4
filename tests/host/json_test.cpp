#include "host/json.hpp"

#include <nlohmann/json.hpp>

#include "host/plain_json.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

TEST(StrictJson, RefusesWhatTwoParsersCouldReadDifferently) {
  for (const char* bad : {"", "{", "{} x", "{\"a\":1,\"a\":2}", "{\"x\":{\"a\":1,\"a\":1}}", "[NaN]",
                          "[Infinity]", "\xef\xbb\xbf{}", "{\"a\":01}", "[1,]"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(parse_strict_json(bad), JSONDecodeError);
  }
  EXPECT_THROW(parse_strict_json("\"\xff\""), UnicodeDecodeError);
  EXPECT_NO_THROW(parse_strict_json(std::string(64, '[') + std::string(64, ']')));
  EXPECT_THROW(parse_strict_json(std::string(65, '[') + std::string(65, ']')), JSONDecodeError);
  EXPECT_EQ(parse_json("{\"a\":1,\"a\":2}").at("a"), 2);
}

// The reader of plain documents reads as the library does, or not at all.
TEST(PlainJson, AgreesWithTheLibraryOrLeavesTheTextToIt) {
  for (const char* text :
       {"{}", "[]", " [ ] ", "0", "-7", "999999999999999999", "-999999999999999999", "\"\"", "true", "false",
        "null", "\"\u00e9\"", "{\"a\":{\"b\":[1,\"x\",null]},\"\":false}\r\n\t",
        "{\"1\":1,\"2\":2,\"3\":3,\"4\":4,\"5\":5,\"6\":6,\"7\":7,\"8\":8,\"9\":9,\"10\":10}"}) {
    SCOPED_TRACE(text);
    const auto plain = read_plain_json(text);
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->dump(), Document::parse(text).dump());
    EXPECT_EQ(plain->type(), Document::parse(text).type());
  }
  for (const char* text :
       {"",      " ",     "-",  "-0",      "01",       "1.0",        "1e3",   "1000000000000000000",
        "tru",   "nulls", "\"", "\"\\n\"", "\"\t\"",   "[",          "[1",    "[1,]",
        "[,1]",  "[1 2]", "{",  "{\"a\"}", "{\"a\":}", "{\"a\":1,}", "{a:1}", "{\"a\":1,\"a\":2}",
        "{} {}", "]"}) {
    EXPECT_FALSE(read_plain_json(text)) << text;
  }
  EXPECT_FALSE(read_plain_json(std::string("1\0", 2)));
  EXPECT_FALSE(read_plain_json(std::string("\0", 1)));
}

TEST(JsonText, IsTheHostsDefaultForm) {
  const Document value = parse_json("{\"b\": [1, 2.0, null], \"a\": {\"\u00e9\": true}}");
  EXPECT_EQ(dump_json(value), "{\"b\": [1, 2.0, null], \"a\": {\"\\u00e9\": true}}");
  EXPECT_EQ(dump_json(value, {.sort_keys = true, .compact = true}),
            "{\"a\":{\"\\u00e9\":true},\"b\":[1,2.0,null]}");
}

TEST(Documents, KeepTheOrderOfTheirKeysThroughChanges) {
  Document value = parse_json("{\"z\": 1, \"a\": 2, \"m\": 3}");
  value.erase("a");
  value["z"] = 9;
  value["a"] = 4;
  EXPECT_EQ(dump_json(value), "{\"z\": 9, \"m\": 3, \"a\": 4}");
  EXPECT_EQ(value, parse_json("{\"a\": 4, \"m\": 3, \"z\": 9}"));

  // Past the few that lie in a plain list.
  for (int i = 0; i < 20; ++i) value["k" + std::to_string(i)] = i;
  Document copy = value;
  value.erase("m");
  value.erase("k7");
  EXPECT_EQ(value.size(), 21u);
  EXPECT_EQ(value.at("k19"), 19);
  EXPECT_EQ(find_member(value, "k7"), nullptr);
  EXPECT_EQ(value.begin().key(), "z");
  EXPECT_EQ((++value.begin()).key(), "a");
  EXPECT_EQ(copy.at("k7"), 7);
}

TEST(Documents, FindWhatIsLeftAfterEveryErasure) {
  Document full = Document::object();
  for (int i = 0; i < 40; ++i) full["k" + std::to_string(i)] = i;
  for (int first = 0; first < 40; ++first) {
    Document value = full;
    for (int i = 0; i < 39; ++i) {
      value.erase("k" + std::to_string((first + 7 * i) % 40));
      for (const auto& [key, member] : value.get_ref<const Document::object_t&>()) {
        ASSERT_EQ(find_member(value, key), &member) << key;
      }
    }
    EXPECT_EQ(value.size(), 1u);
  }
}

}  // namespace
}  // namespace tidalcrest::sync
