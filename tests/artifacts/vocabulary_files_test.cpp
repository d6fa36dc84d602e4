#include "artifacts/vocabulary_files.hpp"

#include "artifacts/fixture.hpp"

namespace tidalcrest::sync {
namespace {

using namespace testing;

class VocabularyFilesTest : public ::testing::Test {
 protected:
  // Declares and serves a vocabulary.
  std::string publish(const std::string& universe, const Document& document) {
    const std::string bytes = dump_json(document);
    data["files"][vocabulary_path(universe)] = entry_for(bytes, "vocabulary");
    net.server.serve("/" + vocabulary_path(universe), bytes);
    return bytes;
  }
  Manifest manifest() const { return Manifest(data); }

  Network net;
  VocabularyFiles vocabulary_files{net.data.path(), net.server.url(), net.downloader,
                                   net.http,        net.active,       net.hash_cache};
  Document data = {{"era_number", 7}, {"base_url", net.server.url()}, {"files", Document::object()}};
  const std::string path = vocabulary_path("u1");
};

TEST_F(VocabularyFilesTest, FetchesWhatIsMissingAndKeepsWhatIsGood) {
  publish("u2", vocabulary_document("u2"));
  net.data.write(path, publish("u1", vocabulary_document("u1")));
  EXPECT_TRUE(vocabulary_files._download_vocabulary(manifest()));
  EXPECT_EQ(*net.active.get()->vocabulary,
            (Document{{"u1", vocabulary_document("u1")}, {"u2", vocabulary_document("u2")}}));
  EXPECT_FALSE(vocabulary_files._download_vocabulary(manifest()));
  EXPECT_EQ(net.server.requests().size(), 1u);
  EXPECT_THAT(net.log.lines(LogLevel::warning), IsEmpty());
}

TEST_F(VocabularyFilesTest, LeavesTheViewAloneWhileStaging) {
  publish("u1", vocabulary_document("u1"));
  const TempDir staging;
  EXPECT_TRUE(vocabulary_files._download_vocabulary(manifest(), staging.path()));
  EXPECT_TRUE(staging.has(path));
  EXPECT_FALSE(net.data.has(path));
  EXPECT_EQ(net.active.get()->vocabulary, nullptr);
}

TEST_F(VocabularyFilesTest, ReplacesABadLocalCopyAndSaysWhy) {
  const std::string good = publish("u1", vocabulary_document("u1"));
  net.data.write(path, "{}");
  EXPECT_TRUE(vocabulary_files._download_vocabulary(manifest()));
  EXPECT_EQ(net.data.read(path), good);
  EXPECT_THAT(net.log.lines(LogLevel::warning),
              ElementsAre("warning: Local vocabulary " + path +
                          " failed validation; re-downloading: Vocabulary checksum mismatch: " + path));
}

TEST_F(VocabularyFilesTest, TriesADownloadThatIsRefusedOnceAndRemovesIt) {
  net.data.write(path, publish("u1", vocabulary_document("other")));
  EXPECT_EQ(failure_of([&] { vocabulary_files._download_vocabulary(manifest()); }),
            "SyncError: vocabulary.json named_universe does not match manifest path 'u1'");
  EXPECT_FALSE(net.data.has(path));
  publish("u1", vocabulary_document("u1"));
  net.data.write(path, "{}");
  net.server.serve("/" + path, dump_json(vocabulary_document("u9")));  // not what was declared
  EXPECT_THAT(failure_of([&] { vocabulary_files._download_vocabulary(manifest()); }),
              StartsWith("IntegrityError: Checksum failure for " + path));
  EXPECT_FALSE(net.data.has(path));
  EXPECT_EQ(net.server.requests("/" + path).size(), 2u);
  EXPECT_EQ(net.active.get()->vocabulary, nullptr);
  EXPECT_THAT(net.backoff.waits(), IsEmpty());
}

TEST_F(VocabularyFilesTest, RepairValidatesBeforeItWrites) {
  const std::string good = publish("u1", vocabulary_document("u1"));
  Document entry = data["files"][path];
  SyncResult result;
  const auto repair = [&] {
    return vocabulary_files._download_validated_vocabulary_repair(path, entry, result);
  };
  EXPECT_FALSE(vocabulary_files._download_validated_vocabulary_repair("features/a.arrow", entry, result));
  EXPECT_THAT(failure_of(repair), StartsWith("ManifestError: Manifest base_url is required"));

  net.activate(std::make_shared<Manifest>(data), "");
  entry["size_bytes"] = good.size() + 1;
  EXPECT_EQ(failure_of(repair), "IntegrityError: Size failure for " + path + ": expected " +
                                    std::to_string(good.size() + 1) + ", got " + std::to_string(good.size()));
  entry["sha256"] = "00";
  EXPECT_EQ(failure_of(repair),
            "IntegrityError: Checksum failure for " + path + ": expected 00, got " + sha256_hex(good));
  entry["base_url"] = net.server.url() + "/elsewhere";
  EXPECT_THAT(failure_of(repair), StartsWith("PermanentDownloadError: "));
  EXPECT_FALSE(net.data.has(path));

  entry = {{"_manifest_base_url", net.server.url()}, {"base_url", "ignored"}};
  EXPECT_TRUE(repair());
  EXPECT_EQ(net.data.read(path), good);
  EXPECT_EQ(*net.active.get()->vocabulary, (Document{{"u1", vocabulary_document("u1")}}));
  EXPECT_EQ(result.bytes_downloaded, static_cast<std::int64_t>(good.size()));
  EXPECT_TRUE(result.vocabulary_downloaded);
}

}  // namespace
}  // namespace tidalcrest::sync
