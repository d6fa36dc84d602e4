#include "host/equality.hpp"

#include <limits>

#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

TEST(HostEquality, ComparesNumbersByValueAndNothingElseAcrossTypes) {
  struct Case {
    Document a;
    Document b;
    bool equal;
  };
  constexpr std::uint64_t top = std::numeric_limits<std::uint64_t>::max();
  const Case cases[] = {
      {7, 7.0, true},
      {true, 1, true},
      {false, 0u, true},
      {"7", 7, false},
      {nullptr, 0, false},
      {-1, top, false},
      {top, 18446744073709551616.0, false},
      {std::int64_t{9007199254740993}, 9007199254740992.0, false},
      {std::numeric_limits<std::int64_t>::min(), -0x1p63, true},
      {7, 7.5, false},
      {7, std::numeric_limits<double>::quiet_NaN(), false},
      {{1, true}, {true, 1.0}, true},
      {{1, 2}, {1}, false},
      {{{"a", 1}, {"b", 2}}, {{"b", 2.0}, {"a", true}}, true},
      {{{"a", 1}}, {{"b", 1}}, false},
  };
  for (const Case& item : cases) {
    SCOPED_TRACE(item.a.dump() + " and " + item.b.dump());
    EXPECT_EQ(host_equal(item.a, item.b), item.equal);
    EXPECT_EQ(host_equal(item.b, item.a), item.equal);
  }
}

}  // namespace
}  // namespace tidalcrest::sync
