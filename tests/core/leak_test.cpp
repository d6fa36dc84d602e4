#include "siblings/distribution/disk_calls.hpp"
#include "siblings/distribution/lock.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

std::size_t entries_of(const char* directory) {
  const std::filesystem::directory_iterator entries(directory);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

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
  const char* failure;  // how the failure's text begins
  const char* fault;    // arranged after a newer version was published, where it is given
  std::function<void(SyncManager&)> attempt = [](SyncManager& manager) { manager.sync(); };
};

// Whatever fails, and however often: no thread, no descriptor and no lock stays behind, and the next sync
// works.
TEST_F(LeakTest, NoFailureLeavesAThreadADescriptorOrALockBehind) {
  seams.free_bytes = [this, real = seams.free_bytes](const std::string& path) {
    return full_disk ? std::int64_t{0} : real(path);
  };
  const Case cases[] = {
      {"no such file", "PermanentDownloadError", "reference/* status=404 count=all"},
      {"wrong bytes again and again", "IntegrityError", "reference/* wrong-bytes=1 count=all"},
      {"unknown token", "AuthError", "/data/* status=401 count=all"},
      {"server away for good", "SyncUnavailableError",
       R"(/data/* status=503 count=all body={"retryable": false})"},
      {"no manifest", "ManifestError", "/data/manifest body count=all body={"},
      {"another era", "EraError",
       R"(/data/manifest body body={"era_number": 9, "version": 1, "market_id": 1, "files": {}})"},
      {"full disk", "DiskSpaceError", nullptr,
       [&](SyncManager& manager) {
         full_disk = true;
         manager.sync();
       }},
      {"stop in a transfer", "SyncBackoffCancelled", "reference/* stall=2 count=all skip=1",
       [&](SyncManager& manager) {
         origin.on_request("reference/*", [&] { stop_requested = true; });
         manager.sync();
       }},
      {"seed of no market", "SyncError",
       "/data/shuffle body body=012345678901234567890123456789012345678901234567890123456789"},
      {"repair of a file that is gone", "PermanentDownloadError", "reference/* status=404 count=all",
       [](SyncManager& manager) { manager.repair({"reference/calendar.bin"}); }},
      {"kill callback", "RuntimeError", nullptr,
       [](SyncManager& manager) {
         manager.trigger_era_transition(1, [] { throw RuntimeError("will not die"); });
       }},
      {"transition that nobody confirms", "EraError", nullptr,
       [](SyncManager& manager) { manager.trigger_era_transition(5); }},
      {"transition without a manifest", "SyncError", "/data/manifest status=404 count=all",
       [](SyncManager& manager) { manager.trigger_era_transition(1); }},
  };
  const auto fail_once = [&](const Case& c) {
    const testing::TempDir directory;
    SyncOptions wanted = options();
    wanted.data_dir = directory.path();
    origin.publish(next_version());
    SyncManager manager(wanted, seams);
    manager.sync();
    origin.publish(next_version());
    if (c.fault != nullptr) origin.fault(c.fault);
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
  fail_once(cases[0]);  // what a process keeps for good is there now
  Held before;
  // The origin's own threads and sockets of that manager may still be on their way out.
  eventually([&] { return !std::exchange(before, Held{}).is_more_than(before); });
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    fail_once(c);
    EXPECT_TRUE(eventually([&] { return !Held{}.is_more_than(before); }, std::chrono::seconds(20)))
        << Held{}.threads << " threads after " << before.threads << ", " << Held{}.descriptors
        << " descriptors after " << before.descriptors;
  }
}

}  // namespace
}  // namespace tidalcrest::sync
