#include "support/command_fixture.hpp"

namespace tidalcrest::sync {
namespace {

using origin::Fault;
using testing::Command;

class SharingTest : public testing::CommandFixture {
 public:
  // Every file says which version it is of; some stay as they are.
  static origin::ManifestBuilder version(int number) {
    auto content = small_distribution().set("note", number);
    for (int i = 0; i < 12; ++i) {
      const int age = i % 4 == 0 ? 0 : number;
      content.file("reference/" + std::to_string(i),
                   "file of " + std::to_string(age) + std::string(3000, '.'), "reference");
    }
    return content;
  }
  void disturb_the_network(int number) {
    const Fault faults[] = {
        {.kind = Fault::Kind::CUT, .after = 1000},
        {.kind = Fault::Kind::RESET, .after = 10},
        {.kind = Fault::Kind::STATUS, .status = 503},
        {.kind = Fault::Kind::WRONG_BYTES, .after = 500},
    };
    if (number % 4 == 0) origin.fault("reference/*", faults[number / 4 % std::size(faults)]);
    if (number % 7 == 0) origin.fault("/data/manifest", {.kind = Fault::Kind::RESET});
  }
};

// What a reader without any lock finds in the snapshot's root: every file of its manifest, byte for byte.
::testing::AssertionResult is_whole(const VerifiedActiveCohortSnapshot& snapshot) {
  const Document manifest = Document::parse(snapshot.manifest_bytes());
  for (const auto& [path, entry] : manifest.at("files").get_ref<const Document::object_t&>()) {
    std::ifstream in(snapshot.root_dir() + "/" + path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), {}};
    if (sha256_hex(bytes) != entry.at("sha256")) {
      return ::testing::AssertionFailure() << path << " of version " << manifest.at("version");
    }
  }
  return ::testing::AssertionSuccess();
}

TEST_F(SharingTest, TwoProcessesAndTheirReadersGoThroughTwentyVersions) {
  constexpr int VERSIONS = 20;
  origin.publish(version(1));
  const Arguments arguments = remote("watch", {"--json", "--poll-interval", "0.05"});
  Command first(arguments), second(arguments);
  const DataDirectory directory(data.path());
  const auto published = [&] {
    const Document cohort = directory.status().at("cohort");
    return cohort.is_object() ? cohort.at("version").get<int>() : 0;
  };
  ASSERT_TRUE(eventually([&] { return published() == 1; }));

  std::atomic<bool> done = false;
  int snapshots = 0;
  std::thread reader([&] {
    const auto secret = [this] { return std::optional(origin.wallet_secret()); };
    while (!done) {
      EXPECT_TRUE(is_whole(directory.active_cohort_snapshot()));
      const VerifyResult pinned = directory.verify(secret);
      EXPECT_THAT(pinned.corrupted_files, IsEmpty());
      EXPECT_THAT(pinned.missing_files, IsEmpty());
      ++snapshots;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));  // writers want their turn
    }
  });
  for (int number = 2; number <= VERSIONS; ++number) {
    disturb_the_network(number);
    origin.publish(version(number));
    // Every third version is overtaken by the next one.
    if (number % 3 == 0) continue;
    EXPECT_TRUE(eventually([&] { return published() >= number; })) << number;
  }
  const std::string last = "\"event\":\"published\"";
  const auto is_at_the_last = [&](const Command& process) {
    const std::string output = process.output();
    const auto at = output.rfind(last);
    return at != std::string::npos && output.find("\"version\":20", at) != std::string::npos;
  };
  EXPECT_TRUE(eventually([&] { return is_at_the_last(first) && is_at_the_last(second); }))
      << first.output() << second.output();
  done = true;
  reader.join();
  EXPECT_EQ(published(), VERSIONS);
  EXPECT_GT(snapshots, 5);
  EXPECT_EQ(first.end_with(SIGTERM), 0);
  EXPECT_EQ(second.end_with(SIGINT), 0);
  EXPECT_EQ(directory.status().at("generations").at("unfinished"), 0);
}

TEST_F(SharingTest, ASyncKilledAfterNineHundredOfAThousandTransfersFetchesTheRest) {
  constexpr int FILES = 1000, ARRIVED = 900;
  const auto thousand = [](const std::string& note) {
    auto content = small_distribution().set("note", note);
    for (int i = 0; i < FILES; ++i) {
      content.file("bulk/" + std::to_string(i), "content of file " + std::to_string(i), "reference");
    }
    return content;
  };
  origin.publish(thousand("first"));
  {
    // Eight at a time: those that come after the arrived ones never end.
    origin.fault("bulk/*", {.kind = Fault::Kind::STALL, .seconds = 120, .count = 0, .skip = ARRIVED});
    Command victim(remote("sync", {"--concurrency", "8"}));
    EXPECT_TRUE(eventually([&] { return origin.requests("bulk/*").size() == ARRIVED + 8; }));
    EXPECT_EQ(victim.end_with(SIGKILL), -SIGKILL);
    origin.clear_faults();
  }
  const testing::TempDir other;
  const auto everything = std::filesystem::copy_options::recursive;
  std::filesystem::copy(data.path(), other.path(), everything);
  origin.forget_requests();
  EXPECT_EQ(run(remote("sync")).code, 0);
  EXPECT_THAT(origin.requests("bulk/*"), SizeIs(FILES - ARRIVED));

  // The same when a newer manifest has arrived in between.
  std::filesystem::remove_all(data.path());
  std::filesystem::copy(other.path(), data.path(), everything);
  origin.publish(thousand("second").file("fresh.bin", "new", "reference"));
  origin.forget_requests();
  EXPECT_EQ(run(remote("sync")).code, 0);
  EXPECT_THAT(origin.requests("bulk/*"), SizeIs(FILES - ARRIVED));
  EXPECT_THAT(origin.requests("fresh.bin"), SizeIs(1));
  EXPECT_TRUE(make_manager()->verify().valid);
}

}  // namespace
}  // namespace tidalcrest::sync
