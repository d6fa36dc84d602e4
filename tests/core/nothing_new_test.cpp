// What a sync that finds nothing new costs, counted: requests, and files that are opened.
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

/// Names the regular files below a directory that are opened while this lives, whoever does it. Descriptors
/// that only name a file (`O_PATH`) and stats open nothing.
class OpenedFiles {
 public:
  explicit OpenedFiles(const std::string& root) : _queue(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    if (_queue < 0) throw std::system_error(errno, std::generic_category(), "inotify");
    _watch(root, "");
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
      if (entry.is_directory())
        _watch(entry.path(), std::filesystem::relative(entry.path(), root).string() + "/");
    }
  }
  OpenedFiles(const OpenedFiles&) = delete;
  OpenedFiles& operator=(const OpenedFiles&) = delete;
  ~OpenedFiles() { ::close(_queue); }

  std::set<std::string> take() {
    std::set<std::string> opened;
    alignas(inotify_event) std::array<char, 65536> buffer;
    for (ssize_t size = 0; (size = ::read(_queue, buffer.data(), buffer.size())) > 0;) {
      for (const char* at = buffer.data(); at < buffer.data() + size;) {
        inotify_event event{};
        std::memcpy(&event, at, sizeof event);
        if (event.len > 0 && (event.mask & IN_ISDIR) == 0)
          opened.insert(_prefixes.at(event.wd) + (at + sizeof event));
        at += sizeof event + event.len;
      }
    }
    return opened;
  }

 private:
  void _watch(const std::filesystem::path& directory, const std::string& prefix) {
    const int watch = ::inotify_add_watch(_queue, directory.c_str(), IN_OPEN);
    if (watch < 0) throw std::system_error(errno, std::generic_category(), directory.string());
    _prefixes[watch] = prefix;
  }

  const int _queue;
  std::map<int, std::string> _prefixes;
};

class NothingNewTest : public testing::SyncFixture {
 public:
  static constexpr const char* MODULE = "runtime/any/vault-any.so";

  void SetUp() override {
    origin.publish(small_distribution().file(MODULE, "module", "vault_module"));
    make_manager()->sync();
    origin.forget_requests();
  }

  // By the sync of a new process.
  std::set<std::string> opened() {
    const auto manager = make_manager();
    OpenedFiles files(manager->active_data_dir());
    manager->sync();
    return files.take();
  }

  // What is proven anew each time, whatever the hash cache knows.
  const std::set<std::string> always_read = {
      "functions.json",   "named_universes/u1/vocabulary.json", "signals_index.json",
      "shuffle_seed.enc", "shuffle_seed.enc.meta.json",         MODULE};
};

TEST_F(NothingNewTest, AsksOnceAndOpensOnlyWhatIsProvenEveryTime) {
  EXPECT_EQ(opened(), always_read);
  EXPECT_THAT(origin.resources_asked(), ElementsAre("/data/manifest/version"));
}

// The first process has staged the generation, so it has measured every member; the next ones need not.
TEST_F(NothingNewTest, ANewProcessTrustsWhatTheOneBeforeMeasured) {
  data.remove(".sync_hash_cache.json");
  EXPECT_TRUE(opened().contains("reference/calendar.bin"));  // nothing is known: it is hashed
  EXPECT_EQ(opened(), always_read);
}

TEST_F(NothingNewTest, ATouchedMemberIsHashedAgainAndNoOther) {
  const std::string calendar = make_manager()->active_data_dir() + "/reference/calendar.bin";
  std::filesystem::last_write_time(calendar,
                                   std::filesystem::last_write_time(calendar) + std::chrono::seconds(1));
  auto expected = always_read;
  expected.insert("reference/calendar.bin");
  EXPECT_EQ(opened(), expected);
  EXPECT_THAT(origin.resources_asked("reference/*"), IsEmpty());
}

// A stop comes while the seed is proven; the members that must be hashed are next.
TEST_F(NothingNewTest, AStopEndsTheHashingOfUnknownMembers) {
  data.remove(".sync_hash_cache.json");
  std::atomic<bool> stop = false;
  SyncOptions given = options();
  given.get_wallet_secret = [&stop, secret = origin.wallet_secret()] {
    stop = true;
    return std::optional(secret);
  };
  SyncManager manager(given, seams);
  const ScopedBackoffContext context({.stop_requested = [&stop] { return stop.load(); }});
  EXPECT_THROW(manager.sync(), SyncBackoffCancelled);
  stop = false;
  EXPECT_THROW(manager.needs_sync(), SyncBackoffCancelled);
}

}  // namespace
}  // namespace tidalcrest::sync
