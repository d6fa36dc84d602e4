#include "era/era_monitor.hpp"

#include "siblings/onboarding/agent_onboarding.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

class Nudges : public agent_onboarding::Module {
 public:
  void update_nudge(const std::string& occasion, std::int64_t new_era_number,
                    std::optional<std::int64_t> previous) override {
    told.push_back(occasion + " " + std::to_string(previous.value()) + " to " +
                   std::to_string(new_era_number));
    if (fails) throw RuntimeError("nobody there");
  }
  std::vector<std::string> told;
  bool fails = false;
};

// A monitor whose server says what the test wants, and what it made of it.
class EraMonitorTest : public ::testing::Test {
 public:
  EraMonitorTest() {
    agent_onboarding::module_seam().install(nudges);
    target->manifest_era_number = [this] { return manifest_era; };
    target->http_get = [this](const std::string& url, const std::string& token) {
      EXPECT_EQ(url + " " + token, "https://api/market/1/era/current secret");
      return answer;
    };
    target->trigger_era_transition = [this](const Document& era, const auto& kill, const auto& restart) {
      events.push_back("transition to " + era.dump());
      if (kill) kill();
      if (transition_fails) throw EraError("no way");
      if (restart) restart();
    };
  }
  ~EraMonitorTest() override { agent_onboarding::module_seam().install(nullptr); }

  EraMonitor::Options options() {
    return {.server_url = "https://api",
            .get_token = [] { return "secret"; },
            .target = target,
            .poll_interval = 0.005,
            .restart_searches_fn = [this] { events.push_back("restart"); }};
  }
  std::vector<std::string> poll(EraMonitor& monitor, const std::string& body, int status = 200) {
    answer = {status, {}, body};
    events.clear();
    monitor._poll_once();
    return events;
  }
  // A monitor that knows the era of the manifest, as after its start.
  std::unique_ptr<EraMonitor> started_once() {
    auto monitor = std::make_unique<EraMonitor>(options());
    answer.status = 404;
    monitor->start();
    monitor->stop();
    return monitor;
  }

  testing::LogCapture log;
  const std::shared_ptr<Nudges> nudges = std::make_shared<Nudges>();
  std::shared_ptr<EraTarget> target = std::make_shared<EraTarget>();
  std::optional<Document> manifest_era = 7;
  HttpResult answer;
  bool transition_fails = false;
  std::vector<std::string> events;
};

constexpr const char* ACTIVE_7 = R"({"era_number": 7, "state": "active"})";
constexpr const char* CLOSING_7 =
    R"({"era": {"era_number": 7, "next_closing_at": "noon"}, "state": "closing"})";
constexpr const char* BETWEEN = R"({"era": null, "state": "between_eras"})";
constexpr const char* ACTIVE_8 = R"({"era_number": 8})";

TEST_F(EraMonitorTest, ActsOnAClosingOnceAndResumesWhenItIsCancelled) {
  for (const bool fails : {false, true}) {
    SCOPED_TRACE(fails);
    transition_fails = fails;
    const auto monitor = started_once();
    EXPECT_THAT(poll(*monitor, ACTIVE_7), IsEmpty());
    const auto closing = poll(*monitor, CLOSING_7);
    EXPECT_EQ(closing.front(), "transition to 7");
    EXPECT_TRUE(monitor->memory().in_closing);
    EXPECT_EQ(monitor->memory().last_transition_error,
              fails ? std::optional<std::string>("closing: no way") : std::nullopt);
    EXPECT_THAT(poll(*monitor, CLOSING_7), IsEmpty());
    EXPECT_THAT(poll(*monitor, BETWEEN), IsEmpty());
    EXPECT_THAT(poll(*monitor, ACTIVE_7), ElementsAre("restart"));
    EXPECT_FALSE(monitor->memory().in_closing);
    EXPECT_EQ(monitor->memory().transition_failed, fails);
    EXPECT_EQ(monitor->memory().last_known_era_number, 7);
  }
  EXPECT_TRUE(log.has("info: Scheduled close announced at noon. Continue normal operation."));
  EXPECT_TRUE(log.has("info: Era transition cancelled — resuming normal operation."));
  EXPECT_TRUE(log.has("warning: Trigger era transition (closing) failed: no way"));
}

TEST_F(EraMonitorTest, TriesANewEraAtEachPollUntilItIsReached) {
  const auto monitor = started_once();
  transition_fails = true;
  EXPECT_THAT(poll(*monitor, ACTIVE_8), ElementsAre("transition to 8"));
  EXPECT_EQ(monitor->memory().last_transition_error, "new era: no way");
  EXPECT_EQ(monitor->memory().last_known_era_number, 7);
  transition_fails = false;
  EXPECT_THAT(poll(*monitor, ACTIVE_8), ElementsAre("transition to 8", "restart"));
  EXPECT_FALSE(monitor->memory().transition_failed);
  EXPECT_THAT(poll(*monitor, ACTIVE_8), IsEmpty());
  nudges->fails = true;
  EXPECT_THAT(poll(*monitor, ACTIVE_7), ElementsAre("transition to 7", "restart"))
      << "a lower era counts too";
  EXPECT_THAT(poll(*monitor, CLOSING_7), ElementsAre("transition to 7", "restart"));
  EXPECT_THAT(poll(*monitor, R"({"era_number": 9, "state": "closing"})"),
              ElementsAre("transition to 9", "restart"));
  EXPECT_FALSE(monitor->memory().in_closing);
  EXPECT_THAT(nudges->told, ElementsAre("era_change 7 to 8", "era_change 8 to 7", "era_change 7 to 9"));
  EXPECT_TRUE(log.has("warning: update_nudge call failed: nobody there"));
}

TEST_F(EraMonitorTest, StaysStillWhereTheServerSaysNothingToActOn) {
  const auto monitor = started_once();
  for (const char* body : {ACTIVE_7, BETWEEN, R"({"era": null})", R"([1, 2])",
                           R"({"state": "odd", "era_number": 7})", R"({"state": "active"})"}) {
    SCOPED_TRACE(body);
    EXPECT_THAT(poll(*monitor, body), IsEmpty());
  }
  EXPECT_THAT(poll(*monitor, ACTIVE_8, 404), IsEmpty());
  EXPECT_THAT(poll(*monitor, ACTIVE_8, 503), IsEmpty());
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_THAT(poll(*monitor, "{"), IsEmpty());
  EXPECT_TRUE(log.has("warning: Era poll failed: "));
  for (int poll_number = 0; poll_number < 2; ++poll_number) {
    EXPECT_THAT(poll(*monitor, R"({"era_number": 7, "next_closing_at": 12.5})"), IsEmpty());
  }
  EXPECT_EQ(log.lines().size(), 3u) << "the announcement repeats";
}

TEST_F(EraMonitorTest, LeavesTheFirstEraToTheSync) {
  manifest_era.reset();
  const auto monitor = started_once();
  EXPECT_THAT(poll(*monitor, ACTIVE_8), IsEmpty());
  EXPECT_TRUE(monitor->memory().last_known_era_number.is_null());
  EXPECT_THAT(poll(*monitor, CLOSING_7), ElementsAre("transition to 7", "restart"));
}

TEST_F(EraMonitorTest, RefusesAnUnsafeAddressBeforeABadMarket) {
  auto unsafe = options();
  unsafe.server_url = "http://example.com";
  unsafe.market_id = "none";
  EXPECT_THAT(failure_of([&] { EraMonitor{unsafe}; }), Not(HasSubstr("market_id")));
  unsafe.server_url = "https://api";
  EXPECT_EQ(failure_of([&] { EraMonitor{unsafe}; }),
            "ValueError: market_id must be a positive integer, got 'none'");
}

// The thread as its users meet it.
TEST_F(EraMonitorTest, StartsOnceAndMayBeStoppedFromItsOwnCallback) {
  Event stopped_inside;
  EraMonitor* self = nullptr;
  auto with_stop = options();
  with_stop.kill_searches_fn = [&] {
    self->stop();
    stopped_inside.set();
  };
  EraMonitor monitor(with_stop);
  self = &monitor;
  EXPECT_FALSE(monitor.is_alive());
  monitor.stop();
  answer = {200, {}, ACTIVE_8};
  monitor.start();
  ASSERT_TRUE(stopped_inside.wait_for(std::chrono::seconds(5)));
  EXPECT_TRUE(eventually([&] { return !monitor.is_alive(); }));
  answer.status = 404;
  monitor.start();
  EXPECT_EQ(failure_of([&] { monitor.start(); }), "StateError: EraThread already started");
  monitor.stop();
  EXPECT_FALSE(monitor.is_alive());
}

TEST_F(EraMonitorTest, LeavesAThreadThatMissesItsJoinToEndByItself) {
  Event entered, leave;
  std::atomic<int> transitions = 0;
  target->trigger_era_transition = [&](const Document&, const auto&, const auto&) {
    ++transitions;
    entered.set();
    leave.wait_for(std::chrono::seconds(10));
    throw EraError("too late");
  };
  auto impatient = options();
  impatient.stop_patience = std::chrono::milliseconds(20);
  answer = {200, {}, ACTIVE_8};
  auto monitor = std::make_unique<EraMonitor>(impatient);
  monitor->start();
  ASSERT_TRUE(entered.wait_for(std::chrono::seconds(5)));
  monitor->stop();
  EXPECT_TRUE(monitor->is_alive());
  // Neither a new start nor the end of the monitor brings the old thread back to its loop.
  monitor->start();
  monitor.reset();
  const std::weak_ptr<EraTarget> watched = target;
  target.reset();
  leave.set();
  EXPECT_TRUE(eventually([&] { return watched.expired(); }));
  EXPECT_LE(transitions, 2);
}

TEST_F(EraMonitorTest, EndsWhenItsManagerIsGone) {
  EraMonitor monitor(options());
  answer.status = 404;
  monitor.start();
  target.reset();
  EXPECT_TRUE(eventually([&] { return !monitor.is_alive(); }));
}

}  // namespace
}  // namespace tidalcrest::sync
