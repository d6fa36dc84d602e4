#include "origin/byte_range.hpp"

#include <gtest/gtest.h>

namespace tidalcrest::origin {
namespace {

TEST(ByteRange, ReadsWhatAClientMayAskFor) {
  using Kind = RangeDecision::Kind;
  struct Case {
    const char* header;
    std::uint64_t size;
    Kind kind;
    std::uint64_t first = 0;
    std::uint64_t last = 0;
  };
  for (const auto& c : {
           Case{"bytes=0-", 10, Kind::PART, 0, 9},
           Case{"bytes=4-6", 10, Kind::PART, 4, 6},
           Case{"bytes=4-99", 10, Kind::PART, 4, 9},
           Case{"bytes=9-9", 10, Kind::PART, 9, 9},
           Case{"bytes=-3", 10, Kind::PART, 7, 9},
           Case{"bytes=-99", 10, Kind::PART, 0, 9},
           Case{"bytes=10-", 10, Kind::UNSATISFIABLE},
           Case{"bytes=-0", 10, Kind::UNSATISFIABLE},
           Case{"bytes=0-", 0, Kind::UNSATISFIABLE},
           Case{"bytes=-5", 0, Kind::UNSATISFIABLE},
           Case{"bytes=6-4", 10, Kind::WHOLE},
           Case{"bytes=-", 10, Kind::WHOLE},
           Case{"bytes=a-4", 10, Kind::WHOLE},
           Case{"bytes=0-1,3-4", 10, Kind::WHOLE},
           Case{"bytes=99999999999999999999-", 10, Kind::WHOLE},
           Case{"lines=0-1", 10, Kind::WHOLE},
       }) {
    SCOPED_TRACE(c.header);
    const auto got = decide_range(c.header, c.size);
    EXPECT_EQ(got.kind, c.kind);
    EXPECT_EQ(got.first, c.first);
    EXPECT_EQ(got.last, c.last);
  }
}

}  // namespace
}  // namespace tidalcrest::origin
