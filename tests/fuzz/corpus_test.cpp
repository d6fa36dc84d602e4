#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "build_paths.hpp"
#include "fuzz/targets.hpp"
#include "tidalcrest/sync/log.hpp"

namespace tidalcrest::fuzz {
namespace {

// What fuzzing has found worth keeping, and every input that was ever a finding.
TEST(Corpus, EveryInputIsTakenOrRefused) {
  sync::set_log_sink([](const sync::LogRecord&) {});
  const std::filesystem::directory_iterator corpora(TIDALCREST_TEST_DATA "/fuzz");
  EXPECT_EQ(targets().size(), std::distance(begin(corpora), end(corpora)));
  for (const auto& target : targets()) {
    std::size_t inputs = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator(TIDALCREST_TEST_DATA + ("/fuzz/" + target.name))) {
      SCOPED_TRACE(entry.path().string());
      std::ifstream in(entry.path(), std::ios::binary);
      const std::string bytes{std::istreambuf_iterator<char>(in), {}};
      EXPECT_NO_THROW(feed(target, bytes));
      ++inputs;
    }
    EXPECT_GT(inputs, 0u) << target.name;
  }
  sync::set_log_sink({});
}

}  // namespace
}  // namespace tidalcrest::fuzz
