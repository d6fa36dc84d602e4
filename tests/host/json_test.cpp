#include "host/json.hpp"

#include <gtest/gtest.h>

#include <chrono>

#include "tidalcrest/sync/errors.hpp"

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
}

}  // namespace
}  // namespace tidalcrest::sync
