#include "core/consumer_count.hpp"

#include <sys/stat.h>

#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* NAME = ".consumer_count";

TEST(ConsumerCountFile, IsReplacedAndNeverWrittenThroughAnotherName) {
  const testing::TempDir data;
  const testing::TempDir outside;
  outside.write("file", "not ours");
  std::filesystem::create_hard_link(outside.path("file"), data.path(NAME));
  ConsumerCount count(data.path());
  EXPECT_EQ(count.value(), 0);
  count.set(2);
  EXPECT_EQ(data.read(NAME), "2");

  data.remove(NAME);
  std::filesystem::create_symlink(outside.path("file"), data.path(NAME));
  count.set(3);
  EXPECT_EQ(outside.read("file"), "not ours");
}

TEST(ConsumerCountFile, AFifoInItsPlaceDoesNotBlock) {
  const testing::TempDir data;
  ASSERT_EQ(::mkfifo(data.path(NAME).c_str(), 0600), 0);
  EXPECT_EQ(ConsumerCount(data.path()).value(), 0);
}

}  // namespace
}  // namespace tidalcrest::sync
