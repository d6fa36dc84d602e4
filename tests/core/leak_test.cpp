#include "siblings/distribution/disk_calls.hpp"
#include "siblings/distribution/lock.hpp"
#include "support/command.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

using origin::Fault;
using testing::entries_of;

struct Held {
  std::size_t threads = entries_of("/proc/self/task");
  std::size_t descriptors = entries_of("/proc/self/fd");
  bool is_more_than(const Held& other) const {
    return threads > other.threads || descriptors > other.descriptors;
  }
};

class LeakTest : public testing::SyncFixture {
 public:
  LeakTest() {
    // Of no concern here, and slow on a busy disk.
    disk_calls().flush_file_system = [](int) { return 0; };
    disk_calls().flush_file = [](int) { return 0; };
  }
  ~LeakTest() override { disk_calls() = DiskCalls::real(); }

  static origin::ManifestBuilder next_version() {
    static int number = 0;
    return small_distribution().file("reference/calendar.bin", "calendar " + std::to_string(++number),
                                     "reference");
  }

  bool full_disk = false;
  std::atomic<bool> stop_requested = false;
};

struct Case {
  const char* label;
  const char* failure;                     // how the failure's text begins
  std::function<void(LeakTest&)> arrange;  // after a newer version was published
  std::function<void(SyncManager&)> attempt = [](SyncManager& manager) { manager.sync(); };
};

const Case CASES[] = {
    {"no such file", "PermanentDownloadError",
     [](LeakTest& test) { test.origin.fault("reference/*", {.status = 404, .count = 0}); }},
    {"wrong bytes again and again", "IntegrityError",
     [](LeakTest& test) {
       test.origin.fault("reference/*", {.kind = Fault::Kind::WRONG_BYTES, .after = 1, .count = 0});
     }},
    {"unknown token", "AuthError",
     [](LeakTest& test) { test.origin.fault("/data/*", {.status = 401, .count = 0}); }},
    {"server away for good", "SyncUnavailableError",
     [](LeakTest& test) {
       test.origin.fault("/data/*", {.status = 503, .body = R"({"retryable": false})", .count = 0});
     }},
    {"no manifest", "ManifestError",
     [](LeakTest& test) {
       test.origin.fault("/data/manifest", {.kind = Fault::Kind::BODY, .body = "{", .count = 0});
     }},
    {"another era", "EraError",
     [](LeakTest& test) {
       const char* manifest = R"({"era_number": 9, "version": 1, "market_id": 1, "files": {}})";
       test.origin.fault("/data/manifest", {.kind = Fault::Kind::BODY, .body = manifest, .count = 0});
     }},
    {"full disk", "DiskSpaceError", [](LeakTest& test) { test.full_disk = true; }},
    {"stop in a transfer", "SyncBackoffCancelled",
     [](LeakTest& test) {
       test.origin.on_request("reference/*", [&test] { test.stop_requested = true; });
       test.origin.fault("reference/*",
                         {.kind = Fault::Kind::STALL, .after = 2, .seconds = 60, .count = 0, .skip = 1});
     }},
    {"seed of another market", "SyncError",
     [](LeakTest& test) {
       test.origin.fault("/data/shuffle",
                         {.kind = Fault::Kind::BODY, .body = std::string(60, 'x'), .count = 0});
     }},
    {"repair of a file that is gone", "PermanentDownloadError",
     [](LeakTest& test) { test.origin.fault("reference/*", {.status = 404, .count = 0}); },
     [](SyncManager& manager) { manager.repair({"reference/calendar.bin"}); }},
    {"kill callback", "RuntimeError", [](LeakTest&) {},
     [](SyncManager& manager) {
       manager.trigger_era_transition(1, [] { throw RuntimeError("will not die"); });
     }},
    {"transition that nobody confirms", "EraError", [](LeakTest&) {},
     [](SyncManager& manager) { manager.trigger_era_transition(5); }},
    {"transition without a manifest", "SyncError",
     [](LeakTest& test) { test.origin.fault("/data/manifest", {.status = 404, .count = 0}); },
     [](SyncManager& manager) { manager.trigger_era_transition(1); }},
};

// Whatever fails, and however often: no thread, no descriptor and no lock stays behind, and the next sync
// works.
TEST_F(LeakTest, NoFailureLeavesAThreadADescriptorOrALockBehind) {
  seams.free_bytes = [this, real = seams.free_bytes](const std::string& path) {
    return full_disk ? std::int64_t{0} : real(path);
  };
  const auto fail_once = [&](const Case& c) {
    const testing::TempDir directory;
    SyncOptions wanted = options();
    wanted.data_dir = directory.path();
    origin.publish(next_version());
    SyncManager manager(wanted, seams);
    manager.sync();
    origin.publish(next_version());
    c.arrange(*this);
    {
      const ScopedBackoffContext context({.stop_requested = [this] { return stop_requested.load(); }});
      EXPECT_THAT(failure_of([&] { c.attempt(manager); }), StartsWith(c.failure));
    }
    EXPECT_FALSE(distribution_lock_is_busy(directory.path()));
    origin.clear_faults();
    full_disk = false;
    stop_requested = false;
    origin.publish(next_version());
    EXPECT_EQ(failure_of([&] { manager.sync(); }), "nothing");
    EXPECT_TRUE(manager.verify().valid);
  };
  fail_once(CASES[0]);  // what a process keeps for good is there now
  Held before;
  // The origin's own threads and sockets of that manager may still be on their way out.
  eventually([&] { return !std::exchange(before, Held{}).is_more_than(before); });
  for (const Case& c : CASES) {
    SCOPED_TRACE(c.label);
    fail_once(c);
    EXPECT_TRUE(eventually([&] { return !Held{}.is_more_than(before); }, std::chrono::seconds(20)))
        << Held{}.threads << " threads after " << before.threads << ", " << Held{}.descriptors
        << " descriptors after " << before.descriptors;
  }
}

}  // namespace
}  // namespace tidalcrest::sync
