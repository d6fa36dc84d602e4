#include "host/text.hpp"

#include <limits>

#include "host/integer.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

TEST(TextForms, FollowTheHost) {
  const std::pair<Document, const char*> cases[] = {
      {nullptr, "None"},
      {true, "True"},
      {30.0, "30.0"},
      {1e16, "1e+16"},
      {123456789012345.0, "123456789012345.0"},
      {0.0001, "0.0001"},
      {0.00001, "1e-05"},
      {0.1, "0.1"},
      {"plain", "'plain'"},
      {"it's", "\"it's\""},
      {"it's \"both\"", "'it\\'s \"both\"'"},
      {"tab\tnul", "'tab\\tnul'"},
      {std::string("\x01\\"), "'\\x01\\\\'"},
      {"\u00e9\u2028", "'\u00e9\\u2028'"},
      {{"found_strategies"}, "['found_strategies']"},
  };
  for (const auto& [value, quoted] : cases) EXPECT_EQ(text::repr(value), quoted);
  EXPECT_EQ(text::repr(Document{{"a", {1, nullptr}}, {"b", Document::object()}}),
            "{'a': [1, None], 'b': {}}");
  EXPECT_EQ(text::general_text(30.0), "30");
  EXPECT_EQ(text::general_text(2.5), "2.5");
  EXPECT_EQ(text::strip("\xc2\xa0 a b\n\xe2\x80\xa9"), "a b");
}

TEST(IntegerConversion, FollowsTheHost) {
  EXPECT_EQ(to_int(Document(true)), 1);
  EXPECT_EQ(to_int(Document(-2.9)), -2);
  EXPECT_EQ(to_int(Document(" +1_000\n")), 1000);
  EXPECT_EQ(to_int(Document("-9223372036854775808")), std::numeric_limits<std::int64_t>::min());
  for (const char* bad : {"", "1.0", "1__0", "_1", "1_", "0x10", "9223372036854775808", "- 1"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(to_int(Document(bad)), ValueError);
  }
  for (const Document& bad : {Document(nullptr), Document::array(), Document::object()}) {
    EXPECT_THROW(to_int(bad), TypeError);
  }
  EXPECT_THROW(to_int(Document(1e300)), ValueError);
}

TEST(Text, FindsWhatIsNotUtf8AtEveryPlaceOfATextOfAscii) {
  const std::string ascii(20, 'a');
  EXPECT_TRUE(text::is_valid_utf8(ascii));
  for (std::size_t at = 0; at <= ascii.size(); ++at) {
    std::string bytes = ascii;
    EXPECT_FALSE(text::is_valid_utf8(bytes.insert(at, "\xff"))) << at;
    bytes = ascii;
    EXPECT_TRUE(text::is_valid_utf8(bytes.insert(at, "\xc3\xa9"))) << at;
    EXPECT_FALSE(text::is_valid_utf8(bytes.substr(0, at + 1))) << at;
  }
}

}  // namespace
}  // namespace tidalcrest::sync
