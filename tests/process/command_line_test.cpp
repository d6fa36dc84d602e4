#include "process/command_fixture.hpp"
#include "siblings/distribution/lock.hpp"

namespace tidalcrest::sync {
namespace {

using origin::Fault;
using testing::Command;

class CommandLineTest : public testing::CommandFixture {
 public:
  Arguments verify_arguments(const Arguments& more = {}) const {
    Arguments arguments = local("verify", {"--wallet-secret-file", secrets.path("wallet")});
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  void publish_and_sync(const origin::ManifestBuilder& content = small_distribution()) {
    origin.publish(content);
    ASSERT_EQ(run(remote("sync")).code, 0);
  }
  Document status() const { return DataDirectory(data.path()).status(); }
  std::string published_root() const {
    return DataDirectory(data.path()).active_cohort_snapshot().root_dir();
  }
  void damage(const std::string& path) const { std::ofstream(published_root() + "/" + path) << "damaged!"; }
};

TEST_F(CommandLineTest, EveryCommandExplainsItselfAndRefusesWrongUse) {
  for (const char* name :
       {"sync", "watch", "status", "snapshot", "verify", "repair", "features", "gc", "cleanup-eras"}) {
    SCOPED_TRACE(name);
    const Outcome help = run({name, "--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_THAT(help.output, AllOf(HasSubstr("--data-dir"), HasSubstr("--json")));
    const Outcome bare = run({name});
    EXPECT_EQ(bare.code, 2);
    EXPECT_THAT(bare.errors, HasSubstr("required"));
  }
  EXPECT_EQ(run({"frobnicate"}).code, 2);
  EXPECT_EQ(run(local("gc", {"--keep", "-1"})).code, 2);
  EXPECT_EQ(run(remote("repair")).code, 2);
  EXPECT_THAT(run(remote("features", {" "})).errors, HasSubstr("NAME: a name must not be empty"));
  EXPECT_EQ(run(remote("watch", {"--poll-interval", "0"})).code, 2);
}

TEST_F(CommandLineTest, ADirectoryTellsOfItselfWithoutAServer) {
  EXPECT_EQ(run(local("status", {"--json"})).json().at("state"), "empty");
  for (const Arguments& arguments :
       {local("snapshot"), verify_arguments(), local("cleanup-eras"), remote("repair", {"functions.json"})}) {
    SCOPED_TRACE(arguments.front());
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(outcome.errors, AllOf(HasSubstr(data.path()), HasSubstr("`tidalcrest-sync sync`")));
  }
  const Outcome nowhere = run({"status", "--json", "--data-dir", data.path("nowhere")});
  EXPECT_EQ(nowhere.code, 1);
  EXPECT_EQ(nowhere.json().at("error").at("message"), "data_dir does not exist: " + data.path("nowhere"));

  publish_and_sync();
  publish_and_sync(small_distribution().file("reference/calendar.bin", "newer", "reference"));
  origin.forget_requests();

  const Document shown = run(local("status", {"--json"})).json();
  const Document& cohort = shown.at("cohort");
  EXPECT_EQ(shown.at("state"), "active");
  EXPECT_EQ(cohort.at("era_number"), 1);
  EXPECT_EQ(cohort.at("version"), 2);
  EXPECT_EQ(cohort.at("root_dir"), published_root());
  EXPECT_EQ(cohort.at("members"), cohort.at("manifest_files"));
  EXPECT_EQ(shown.at("generations").at("complete"), 2);
  EXPECT_EQ(shown.at("rotation").at("eligible_feature_count"), 3);
  EXPECT_TRUE(shown.at("rotation").at("next_rotation_at").is_string());
  EXPECT_EQ(shown.at("busy"), false);
  EXPECT_THAT(shown.at("problems"), IsEmpty());
  EXPECT_THAT(run(local("status")).output, HasSubstr("era 1, version 2, market 1"));
  EXPECT_EQ(run(local("snapshot")).output, published_root() + "\n");

  EXPECT_EQ(run(verify_arguments()).code, 0);
  damage("reference/calendar.bin");
  std::filesystem::remove(published_root() + "/shuffle_seed.enc");
  const Outcome damaged = run(verify_arguments({"--json"}));
  EXPECT_EQ(damaged.code, 1);
  EXPECT_EQ(damaged.json().at("corrupted_files"), Document::array({"reference/calendar.bin"}));
  EXPECT_EQ(damaged.json().at("missing_files"), Document::array({"shuffle_seed.enc"}));

  const Outcome planned = run(local("gc", {"--keep", "1", "--dry-run"}));
  EXPECT_THAT(planned.output, HasSubstr("would remove"));
  EXPECT_EQ(status().at("generations").at("complete"), 2);
  const Document collected = run(local("gc", {"--keep", "1", "--json"})).json();
  EXPECT_EQ(collected.at("removed").size(), 1u);
  EXPECT_EQ(collected.at("removed").front().at("why"), "old generation");
  EXPECT_EQ(status().at("generations").at("complete"), 1);

  data.write("era_0/old.bin", "12345");
  data.write("era_1/now.bin", "1");
  EXPECT_EQ(run(local("cleanup-eras", {"--json"})).json().at("bytes_freed"), 5);
  EXPECT_FALSE(data.has("era_0"));
  EXPECT_TRUE(data.has("era_1"));

  std::filesystem::remove(published_root() + "/.cohort-complete.json");
  const Document broken = run(local("status", {"--json"})).json();
  EXPECT_EQ(broken.at("state"), "damaged");
  EXPECT_THAT(broken.at("problems").dump(), HasSubstr("is not complete"));
  EXPECT_EQ(run(local("snapshot")).code, 1);
  EXPECT_THAT(origin.requests(), IsEmpty());
}

TEST_F(CommandLineTest, WhatTheDiskCannotHoldIsNotBegun) {
  origin.publish(
      small_distribution().file("atlas.bin", "atlas", "reference", {{"size_bytes", std::int64_t{1} << 60}}));
  const Outcome outcome = run(remote("sync", {"--json"}));
  EXPECT_EQ(outcome.code, 5);
  EXPECT_EQ(outcome.json().at("exit_code"), 5);
  EXPECT_EQ(outcome.json().at("error").at("type"), "DiskSpaceError");
  EXPECT_THAT(origin.requests("atlas.bin"), IsEmpty());
  EXPECT_THAT(run(remote("sync")).errors, HasSubstr("Insufficient disk space"));
  EXPECT_EQ(status().at("state"), "empty");
}

TEST_F(CommandLineTest, ExitCodesTellARefusalFromAFailure) {
  publish_and_sync();
  origin.publish(small_distribution().era(7));
  EXPECT_EQ(run(remote("sync")).code, 4);
  secrets.remove("token");
  EXPECT_EQ(run(remote("sync")).code, 1);
}

TEST_F(CommandLineTest, RepairBringsBackWhatIsDamaged) {
  publish_and_sync();
  damage("reference/calendar.bin");
  origin.forget_requests();
  const Outcome unknown = run(remote("repair", {"reference/calendar.bin", "no/such.bin"}));
  EXPECT_EQ(unknown.code, 1);
  EXPECT_THAT(unknown.errors, HasSubstr("PATH no/such.bin is not in the manifest"));
  EXPECT_THAT(origin.requests(), IsEmpty());

  const Outcome repaired = run(remote("repair", {"reference/calendar.bin", "--json"}));
  EXPECT_EQ(repaired.code, 0);
  EXPECT_EQ(repaired.json().at("bytes_downloaded"), 8);
  EXPECT_EQ(run(verify_arguments()).code, 0);

  // What a manager reads itself when it comes up: it has no proven cohort then.
  damage("functions.json");
  EXPECT_EQ(run(remote("repair", {"functions.json"})).code, 0);
  EXPECT_EQ(run(verify_arguments()).code, 0);

  damage("reference/calendar.bin");
  origin.fault("reference/*", {.status = 404, .count = 0});
  EXPECT_EQ(run(remote("repair", {"reference/calendar.bin"})).code, 1);
}

TEST_F(CommandLineTest, FeaturesBringsWhatRotationLeftOut) {
  data.write("rotation-settings.json", R"({"feature_budget_gb": 0})");
  publish_and_sync();
  ASSERT_FALSE(std::filesystem::exists(published_root() + "/features"));

  const Outcome signal = run(remote("features", {"alpha__one__x__b", "--universe", "u1", "--json"}));
  EXPECT_EQ(signal.code, 0);
  const std::string directory = published_root() + "/features/u1/signal_is/";
  EXPECT_THAT(signal.json().at("paths"), UnorderedElementsAre(directory + "alpha__one__x__a.arrow",
                                                              directory + "alpha__one__x__b.arrow"));
  const Outcome strategy = run(remote("features", {"--strategy", "alpha__one__x__a"}));
  EXPECT_EQ(strategy.output, published_root() + "/features/u1/strategy_is/alpha__one__x__a.arrow\n");
  EXPECT_TRUE(std::filesystem::exists(strategy.output.substr(0, strategy.output.size() - 1)));

  const Outcome unknown = run(remote("features", {"alpha__one__x__b", "--strategy"}));
  EXPECT_EQ(unknown.code, 1);
  EXPECT_THAT(unknown.errors, HasSubstr("NAME alpha__one__x__b: the manifest has no strategy feature"));
  origin.fault("/data/manifest/version", {.status = 503, .body = R"({"retryable": false})"});
  EXPECT_EQ(run(remote("features", {"alpha__one__x__b"})).code, 3);
  EXPECT_EQ(run(remote("features", {"alpha__one__x__b", "--market-id", "9"})).code, 4);
}

// While another process holds the lock: what only looks goes on, what must wait says so and can be stopped.
TEST_F(CommandLineTest, LookingNeverWaitsAndWaitingCanBeStopped) {
  publish_and_sync();
  DistributionLock held = acquire_distribution_lock(data.path(), /*exclusive=*/true);
  EXPECT_EQ(run(local("status", {"--json"})).json().at("busy"), true);
  EXPECT_EQ(run(local("snapshot")).code, 0);
  for (const Arguments& arguments : {remote("sync"), verify_arguments(), remote("repair", {"functions.json"}),
                                     remote("features", {"x"}), local("gc"), remote("watch")}) {
    SCOPED_TRACE(arguments.front());
    Command waiting(arguments);
    EXPECT_TRUE(eventually([&] { return waiting.has_said("another process is at work in " + data.path()); }));
    EXPECT_EQ(waiting.end_with(SIGINT), 130);
    EXPECT_THAT(waiting.errors(), HasSubstr("Stopped. The published cohort is as it was."));
  }
  Command collecting(local("gc"));
  EXPECT_TRUE(eventually([&] { return collecting.has_said("another process is at work"); }));
  held.release();
  EXPECT_EQ(collecting.wait(), 0);
  EXPECT_EQ(status().at("busy"), false);
}

TEST_F(CommandLineTest, StatusShowsHowFarAnotherProcessHasCome) {
  auto content = small_distribution();
  for (int i = 0; i < 10; ++i) content.file("bulk/" + std::to_string(i), std::string(1000, 'x'), "reference");
  origin.publish(content);
  origin.fault("bulk/*", {.kind = Fault::Kind::STALL, .after = 400, .seconds = 60, .count = 1, .skip = 9});
  Command syncing(remote("sync"));
  const auto progress = [&] { return status().at("progress"); };
  EXPECT_TRUE(eventually([&] {
    const Document shown = progress();
    return shown.is_object() && shown.at("files") == shown.at("files_arrived").get<int>() + 1;
  })) << progress();
  EXPECT_EQ(progress().at("running"), true);
  EXPECT_EQ(progress().at("phase"), "syncing");
  EXPECT_THAT(run(local("status")).output, HasSubstr("a sync of era 1, version 1"));
  EXPECT_EQ(syncing.end_with(SIGKILL), -SIGKILL);
  EXPECT_EQ(progress().at("running"), false);
  EXPECT_THAT(run(local("status")).output, HasSubstr("was cut off"));
  EXPECT_EQ(status().at("generations").at("unfinished"), 1);

  origin.fault("/data/*", {.status = 503, .count = 0});
  Command waiting(remote("sync"));
  EXPECT_TRUE(eventually([&] {
    const Document shown = progress();
    return shown.is_object() && shown.at("phase") == "backoff" && shown.at("running") == true;
  }));
  EXPECT_THAT(run(local("status")).output, HasSubstr("(http_503)"));
  EXPECT_EQ(waiting.end_with(SIGTERM), 130);
}

TEST_F(CommandLineTest, WatchFollowsVersionsAndErasAndStopsCleanly) {
  data.write(".consumer_count", "2");  // left by a dead process
  Command watching(remote("watch", {"--json", "--poll-interval", "0.05"}));
  const auto events = [&] {
    std::vector<Document> lines;
    std::istringstream output(watching.output());
    for (std::string line; std::getline(output, line) && !output.eof();)
      lines.push_back(Document::parse(line));
    return lines;
  };
  const auto has = [&](const Document& wanted) {
    return eventually([&] {
      for (const Document& event : events()) {
        Document merged = event;
        merged.update(wanted);
        if (merged == event) return true;
      }
      return false;
    });
  };
  EXPECT_TRUE(has({{"event", "nothing_published"}}));
  origin.publish(small_distribution());
  EXPECT_TRUE(has({{"event", "published"}, {"era_number", 1}, {"version", 1}}));
  origin.publish(small_distribution().file("reference/calendar.bin", "newer", "reference"));
  EXPECT_TRUE(has({{"event", "published"}, {"version", 2}, {"files_fetched", 1}, {"bytes_fetched", 5}}));
  origin.publish(small_distribution().era(2));
  EXPECT_TRUE(has({{"event", "era_kill"}, {"era_number", 1}}));
  EXPECT_TRUE(has({{"event", "published"}, {"era_number", 2}}));
  EXPECT_TRUE(has({{"event", "era_restart"}, {"era_number", 2}}));
  origin.fault("/data/manifest/version", {.status = 503, .body = R"({"retryable": false})", .count = 0});
  EXPECT_TRUE(eventually([&] { return watching.has_said("Poll once failed"); }));
  EXPECT_EQ(status().at("consumers"), 3);

  EXPECT_EQ(watching.end_with(SIGTERM), 0);
  EXPECT_EQ(events().back().at("event"), "stopped");
  EXPECT_EQ(data.read(".consumer_count"), "2");
  EXPECT_EQ(status().at("busy"), false);

  origin.clear_faults();
  origin.publish(small_distribution().file("long.bin", std::string(5000, 'x'), "reference"));
  origin.fault("long.bin", {.kind = Fault::Kind::STALL, .after = 100, .seconds = 60, .count = 0});
  Command stalled(remote("watch"));
  EXPECT_TRUE(eventually([&] { return !origin.requests("long.bin").empty(); }));
  EXPECT_EQ(stalled.end_with(SIGINT), 0);
  EXPECT_THAT(stalled.output(), HasSubstr("stopped; the published cohort stays as it is"));
  EXPECT_EQ(run(verify_arguments()).code, 0);
}

TEST_F(CommandLineTest, ASyncKilledAfterNineHundredOfAThousandTransfersFetchesTheRest) {
  constexpr int FILES = 1000, ARRIVED = 900;
  auto content = small_distribution();
  for (int i = 0; i < FILES; ++i) content.file("bulk/" + std::to_string(i), std::to_string(i), "reference");
  origin.publish(content);
  // Eight at a time: those that come after the arrived ones never end.
  origin.fault("bulk/*", {.kind = Fault::Kind::STALL, .seconds = 120, .count = 0, .skip = ARRIVED});
  Command victim(remote("sync", {"--concurrency", "8"}));
  EXPECT_TRUE(eventually([&] { return origin.requests("bulk/*").size() == ARRIVED + 8; }));
  EXPECT_EQ(victim.end_with(SIGKILL), -SIGKILL);
  origin.clear_faults();
  origin.forget_requests();
  EXPECT_EQ(run(remote("sync")).code, 0);
  EXPECT_THAT(origin.requests("bulk/*"), SizeIs(FILES - ARRIVED));
  EXPECT_TRUE(make_manager()->verify().valid);
}

}  // namespace
}  // namespace tidalcrest::sync
