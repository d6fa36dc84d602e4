#include <chrono>
#include <random>

#include "support/command_fixture.hpp"

namespace tidalcrest::sync {
namespace {

using Clock = std::chrono::steady_clock;
using testing::Command;

class KillTest : public testing::CommandFixture {
 public:
  Arguments command() const { return remote("sync", {"--json"}); }
  origin::ManifestBuilder generation(int number) {
    auto content = small_distribution();
    for (int i = 0; i < 30; ++i) {
      const bool changes = i % 3 == number % 3;
      content.file("reference/file" + std::to_string(i) + ".bin",
                   std::string(20000, static_cast<char>('a' + (changes ? number : i) % 26)), "reference");
    }
    return content;
  }
  std::string selected_bytes() {
    return data.has("manifest.json") ? data.read("manifest.json") : std::string();
  }
};

TEST_F(KillTest, KilledAtAnyMomentLeavesTheOldCohortOrTheNewOne) {
  constexpr int ROUNDS = 36;
  std::mt19937 random(20240611);
  std::chrono::duration<double> whole_run{0};
  std::string old_bytes;
  int killed_before = 0;
  for (int round = 0; round < ROUNDS; ++round) {
    SCOPED_TRACE(round);
    const std::string new_bytes = origin.publish(generation(round)).manifest_bytes;
    {
      Command victim(command());
      const double share = std::uniform_real_distribution<double>(0.0, 1.1)(random);
      std::this_thread::sleep_for(whole_run * share);
      victim.end_with(SIGKILL);
    }
    const std::string selected = selected_bytes();
    ASSERT_TRUE(selected == old_bytes || selected == new_bytes);
    killed_before += selected == old_bytes ? 1 : 0;
    {
      const auto reader = make_manager();
      ASSERT_EQ(reader->get_manifest() != nullptr, !selected.empty());
      ASSERT_TRUE(reader->verify().valid);
      if (!selected.empty()) {
        ASSERT_EQ(reader->active_cohort_snapshot().manifest_bytes(), selected);
      }
    }
    const auto started = Clock::now();
    ASSERT_EQ(run(command()).code, 0);
    if (round == 0) whole_run = Clock::now() - started;
    ASSERT_EQ(selected_bytes(), new_bytes);
    ASSERT_TRUE(make_manager()->verify().valid);
    old_bytes = new_bytes;
  }
  EXPECT_GT(killed_before, 0);  // else the moments were badly chosen
}

TEST_F(KillTest, InterruptEndsTheCommandCleanlyAndExitCodesTellWhatHappened) {
  origin.publish(generation(0));
  origin.fault("reference/*", {.kind = origin::Fault::Kind::STALL, .after = 100, .seconds = 30, .count = 0});
  {
    Command stalled(command());
    while (origin.requests("reference/*").empty()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const auto started = Clock::now();
    EXPECT_EQ(stalled.end_with(SIGINT), 130);
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(10));
  }
  origin.clear_faults();
  EXPECT_EQ(selected_bytes(), "");
  EXPECT_EQ(run({"sync"}).code, 2);

  origin.fault("/data/manifest/version", {.status = 503, .body = R"({"retryable": false})"});
  EXPECT_EQ(run(command()).code, 3);
  EXPECT_EQ(run(command()).code, 0);
  origin.publish(generation(0).era(7));
  EXPECT_EQ(run(command()).code, 4);
  auto other_market = command();
  other_market.insert(other_market.end(), {"--market-id", "9"});
  EXPECT_EQ(run(other_market).code, 4);
  auto no_token = command();
  secrets.remove("token");
  EXPECT_EQ(run(no_token).code, 1);
}

}  // namespace
}  // namespace tidalcrest::sync
