#include "era/transition.hpp"

#include <unistd.h>

#include "core/request_gate.hpp"
#include "siblings/auth/auth.hpp"
#include "siblings/auth/identity.hpp"
#include "siblings/deployment/deployment.hpp"
#include "siblings/search_tracking/search_tracker.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* ERA_CURRENT = "/market/1/era/current";

// The SDK around a transition, in one record of what it was told.
class Sdk : public auth::Module,
            public identity::Module,
            public search_tracking::Module,
            public search_tracking::SearchTracker,
            public deployment::Module,
            public std::enable_shared_from_this<Sdk> {
 public:
  static void install(const std::shared_ptr<Sdk>& sdk) {
    auth::module_seam().install(sdk);
    identity::module_seam().install(sdk);
    search_tracking::module_seam().install(sdk);
    deployment::module_seam().install(sdk);
  }

  void notify_era_change(std::int64_t era_number) override {
    say("auth " + std::to_string(era_number));
    if (fails == "auth") throw RuntimeError("auth is down");
  }
  identity::Identity resolve_identity_for_data_dir(const std::string&) override {
    if (fails == "identity") throw FileNotFoundError("nobody");
    return {.agent_id = "me", .host_object = nullptr};
  }
  std::shared_ptr<search_tracking::SearchTracker> open(
      const std::string&, const std::optional<identity::Identity>& who) override {
    say(who ? "tracker of " + who->agent_id : "tracker");
    if (fails == "open" && who) throw RuntimeError("no identity wanted");
    return shared_from_this();
  }
  void handle_era_transition(std::int64_t era, std::optional<std::int64_t> previous) override {
    say("tracked " + (previous ? std::to_string(*previous) : "None") + " to " + std::to_string(era));
    if (fails == "tracking") throw RuntimeError("tracking is down");
  }
  void close() override { say("closed"); }
  std::string current_version() override { return "1.0.0"; }
  int compare_versions(const std::string& first, const std::string& second) override {
    if (after_confirmation) after_confirmation();
    return first.compare(second);
  }
  std::optional<std::string> check_update(const std::string&) override { return std::nullopt; }
  deployment::UpdateResult auto_update(const std::string&) override { return {}; }

  void say(const std::string& what) { told.push_back(what); }
  std::vector<std::string> told;
  std::string fails;                         // the service that fails
  std::function<void()> after_confirmation;  // the library check comes right after the first gate
};

class TransitionTest : public testing::SyncFixture {
 public:
  TransitionTest() {
    Sdk::install(sdk);
    publish_era(1);
    manager = make_manager();
    manager->sync();
    origin.forget_requests();
  }
  ~TransitionTest() override { Sdk::install(nullptr); }

  void publish_era(std::int64_t era) {
    origin.publish(small_distribution().era(era).feature("u1", "signal_is", "alpha__one__x__a",
                                                         "of era " + std::to_string(era)));
  }
  void trigger(const Document& era) {
    manager->trigger_era_transition(
        era, [this] { on_kill(); }, [this] { on_restart(); });
  }
  Document era() const { return manager->get_manifest()->era_number(); }
  std::size_t gates() const { return origin.requests(ERA_CURRENT).size(); }
  void expect_over() const {
    EXPECT_FALSE(data.has(TRANSITION_LOCK_FILENAME));
    EXPECT_EQ(manager->status(), std::nullopt);
    EXPECT_EQ(failure_of([&] { manager->sync(); }), "nothing") << "the locks are free";
  }

  const std::shared_ptr<Sdk> sdk = std::make_shared<Sdk>();
  std::unique_ptr<SyncManager> manager;
  std::function<void()> on_kill = [this] { sdk->say("kill"); };
  std::function<void()> on_restart = [this] { sdk->say("restart"); };
};

TEST_F(TransitionTest, AdvancesWithSearchesStoppedAndTellsTheSdkOnceTheLocksAreFree) {
  publish_era(2);
  on_kill = [&] {
    sdk->say("kill");
    EXPECT_EQ(data.read(TRANSITION_LOCK_FILENAME), std::to_string(getpid()));
    EXPECT_EQ(gates(), 0u) << "searches stop first";
  };
  on_restart = [&] {
    sdk->say("restart");
    EXPECT_TRUE(data.has(TRANSITION_LOCK_FILENAME)) << "requests are refused until the end";
    EXPECT_NO_THROW(manager->sync());
  };
  trigger(2);
  EXPECT_EQ(era(), 2);
  EXPECT_THAT(sdk->told,
              ElementsAre("kill", "auth 2", "tracker of me", "tracked 1 to 2", "closed", "restart"));
  EXPECT_EQ(gates(), 5u);
  expect_over();

  publish_era(3);
  manager->trigger_era_transition(3);
  EXPECT_EQ(gates(), 9u) << "no confirmation for a restart that nobody wants";
}

TEST_F(TransitionTest, PublishesTheSameAndAnEarlierEraWithoutNotifications) {
  origin.set_era_state("closing");
  trigger(1);
  EXPECT_THAT(sdk->told, ElementsAre("kill", "restart"));
  expect_over();

  origin.set_era_state("active");
  publish_era(3);
  trigger(3);
  sdk->told.clear();
  publish_era(2);
  trigger(2);
  EXPECT_EQ(era(), 2);
  EXPECT_THAT(sdk->told, ElementsAre("kill", "restart"));
}

TEST_F(TransitionTest, StartsFromNoManifestAtAll) {
  const testing::TempDir empty;
  auto fresh_options = options();
  fresh_options.data_dir = empty.path();
  SyncManager fresh(fresh_options, seams);
  fresh.trigger_era_transition(1);
  EXPECT_EQ(fresh.get_manifest()->era_number(), 1);
  EXPECT_THAT(sdk->told, ElementsAre("auth 1", "tracker of me", "tracked None to 1", "closed"));
}

TEST_F(TransitionTest, EndsEveryFailureTheSameWayAndLeavesTheCohort) {
  const auto fault = [this](const std::string& words) { return [this, words] { origin.fault(words); }; };
  const std::string manifest = "/data/manifest body body=", era_current = ERA_CURRENT;
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[this] { on_kill = [] { throw RuntimeError("will not die"); }; }, "RuntimeError: will not die"},
      {[this] { origin.set_era_state("closing"); },
       "EraError: Active era confirmation for era_number=2 returned state='closing'"},
      {[this] { origin.set_min_library_version("2.0.0"); },
       "LibraryUpdateRequired: tidalcrest >= 2.0.0 required for era 2. Build a local wheel with "
       "build_wheel() and install it with: pip install --upgrade /path/to/tidalcrest-*.whl"},
      {fault("/data/manifest status=404"), "SyncError: Failed to fetch era 2 manifest: HTTP 404"},
      {fault(manifest + R"({"era_number": 2, "version": 1, "market_id": 2, "files": {}})"),
       "ManifestError: era 2 transition manifest.json market_id must exactly match configured market_id=1"},
      {fault(manifest + R"({"era_number": "two", "version": 1, "market_id": 1, "files": {}})"),
       "EraError: Era transition manifest has invalid era_number='two'"},
      {fault(manifest + R"({"era_number": 3, "version": 1, "market_id": 1, "files": {}})"),
       "EraError: Era transition manifest era_number=3 does not match active era_number=2"},
      {fault(era_current + R"( body skip=2 body={"era_number": 3, "state": "active"})"),
       "ManifestSupersededError: era 2 was superseded by era 3 before cohort publication"},
      {fault(era_current + R"( body skip=1 body={"era_number": 1, "state": "active"})"),
       "EraError: Active era_number=1 does not match requested transition era_number=2"},
  };
  publish_era(2);
  for (const auto& [arrange, failure] : cases) {
    SCOPED_TRACE(failure);
    on_kill = [this] { sdk->say("kill"); };
    sdk->told.clear();
    arrange();
    EXPECT_EQ(failure_of([&] { trigger(2); }), failure);
    EXPECT_EQ(era(), 1);
    EXPECT_EQ(manager->active_data_dir(), make_manager()->active_data_dir());
    EXPECT_FALSE(data.has(TRANSITION_LOCK_FILENAME));
    EXPECT_EQ(manager->status(), std::nullopt);
    EXPECT_THAT(sdk->told, ::testing::AnyOf(IsEmpty(), ElementsAre("kill")));
    origin.clear_faults();
    origin.set_era_state("active");
    origin.set_min_library_version("0.0.0");
  }
  EXPECT_EQ(failure_of([&] { trigger(nullptr); }),
            "TypeError: '>' not supported between instances of 'NoneType' and 'int'");
  EXPECT_FALSE(data.has(TRANSITION_LOCK_FILENAME));
  trigger(2);  // nothing is left of all that
  EXPECT_EQ(era(), 2);
}

TEST_F(TransitionTest, KeepsTheNewCohortWhenAConfirmationAfterItFails) {
  for (const std::size_t gates_before : {3, 4}) {
    const std::int64_t next = static_cast<std::int64_t>(gates_before) - 1;
    publish_era(next);
    origin.fault(fmt::format("{} body skip={} body={{}}", ERA_CURRENT, gates_before));
    sdk->told.clear();
    EXPECT_EQ(failure_of([&] { trigger(next); }),
              "EraError: Failed to parse active era response during transition");
    EXPECT_EQ(era(), next);
    EXPECT_THAT(sdk->told, ElementsAre("kill"));
    expect_over();
  }
}

TEST_F(TransitionTest, PassesTheFailuresOfTheSdkOnAsItMust) {
  struct Case {
    const char* fails;
    std::vector<std::string> told;
    const char* failure;
  };
  const Case cases[] = {
      {"auth", {"kill", "auth 2", "tracker of me", "tracked 1 to 2", "closed", "restart"}, "nothing"},
      {"identity", {"kill", "auth 3", "tracker", "tracked 2 to 3", "closed", "restart"}, "nothing"},
      {"open",
       {"kill", "auth 4", "tracker of me", "tracker", "tracked 3 to 4", "closed", "restart"},
       "nothing"},
      {"tracking",
       {"kill", "auth 5", "tracker of me", "tracked 4 to 5", "closed"},
       "RuntimeError: tracking is down"},
  };
  std::int64_t next = 1;
  for (const auto& [fails, told, failure] : cases) {
    SCOPED_TRACE(fails);
    publish_era(++next);
    sdk->fails = fails;
    sdk->told.clear();
    EXPECT_EQ(failure_of([&] { trigger(next); }), failure);
    EXPECT_EQ(sdk->told, told);
    EXPECT_EQ(era(), next);
    expect_over();
  }
  EXPECT_TRUE(log.has("warning: Failed to notify auth about era change: auth is down"));
  sdk->fails.clear();
  publish_era(++next);
  on_restart = [] { throw RuntimeError("nothing to restart"); };
  EXPECT_EQ(failure_of([&] { trigger(next); }), "RuntimeError: nothing to restart");
  EXPECT_EQ(era(), next);
  expect_over();
}

TEST_F(TransitionTest, RestartsOnEachEraThatSupersedesItsTarget) {
  publish_era(2);
  std::int64_t superseding = 3;  // twice, each time between the first gate and the check before staging
  sdk->after_confirmation = [&] {
    if (superseding <= 4) origin.set_era_number(superseding++);
  };
  on_kill = [&] {
    sdk->say("kill");
    EXPECT_EQ(manager->status(), std::nullopt);
    EXPECT_TRUE(data.has(TRANSITION_LOCK_FILENAME));
    if (superseding > 3) publish_era(superseding - 1);
  };
  trigger(2);
  EXPECT_EQ(era(), 4);
  EXPECT_THAT(sdk->told, ElementsAre("kill", "kill", "kill", "auth 4", "tracker of me", "tracked 1 to 4",
                                     "closed", "restart"));
  EXPECT_THAT(origin.requests("features/*"), SizeIs(1)) << "only the last one staged";
  expect_over();
}

TEST_F(TransitionTest, RestartsWhenTheGateBeforeThePublicationShowsANewerEra) {
  publish_era(2);
  origin.on_request("features/*", [&] { origin.set_era_number(3); });
  int kills = 0;
  on_kill = [&] {
    if (++kills == 2) publish_era(3);
  };
  trigger(2);
  EXPECT_EQ(kills, 2);
  EXPECT_EQ(era(), 3);
  expect_over();
}

TEST_F(TransitionTest, TakesOverWhatAnotherManagerPublishedMeanwhile) {
  const auto other = make_manager();
  publish_era(2);
  other->trigger_era_transition(2);
  EXPECT_EQ(failure_of([&] { manager->sync(); }),
            "EraError: Era mismatch: local era_number=1, server era_number=2");
  EXPECT_THROW(manager->repair({"functions.json"}), EraError);
  EXPECT_EQ(era(), 1) << "its searches still run on it";
  origin.forget_requests();
  sdk->told.clear();
  trigger(2);
  EXPECT_EQ(era(), 2);
  EXPECT_THAT(sdk->told, ::testing::Contains("tracked 1 to 2"));
  EXPECT_THAT(origin.requests("features/*"), IsEmpty()) << "the cohort is there already";
}

TEST_F(TransitionTest, RefusesRequestsAfterADeathInTheMiddleUntilATransitionEnds) {
  data.write(TRANSITION_LOCK_FILENAME, "999999999");  // of a process that is no more
  const RequestGate gate(
      data.path(), [] { return false; }, [] { return true; });
  EXPECT_THAT(failure_of([&] { gate.require_open("request_for_sync"); }), HasSubstr("era transition mode"));
  EXPECT_NO_THROW(manager->sync()) << "only requests are refused";
  trigger(1);
  EXPECT_EQ(failure_of([&] { gate.require_open("request_for_sync"); }), "nothing");
}

}  // namespace
}  // namespace tidalcrest::sync
