#include "artifacts/signals_index.hpp"

#include "artifacts/fixture.hpp"

namespace tidalcrest::sync {
namespace {

using namespace testing;

constexpr const char* PATH = "signals_index.json";

Document index_document() {
  return {{"schema_version", 1},
          {"era_number", 7},
          {"market_id", 1},
          {"found_signals", Document::object()},
          {"found_strategies", {{"s1", Document::object()}}},
          {"useful_signals",
           {{"a", {{"files", {"useful/a1.arrow", "useful/a2.arrow"}}}},
            {"b", {{"files", {"useful/b.arrow"}}}},
            {"c", Document::object()}}}};
}

Document manifest_declaring(const std::string& body) {
  return {{"era_number", 7},
          {"market_id", 1},
          {"signals_index", {{"schema_version", 1}, {"path", PATH}}},
          {"files", {{PATH, entry_for(body, "signals_index")}}}};
}

TEST(SignalsIndexSections, AreInstalledTogetherOrNotAtAll) {
  const Manifest manifest(Document{{"era_number", 7}});
  SyncResult result;
  EXPECT_THROW(_apply_signal_result_counts(result, manifest), TypeError);
  Document index = index_document();
  index.erase("useful_signals");
  EXPECT_EQ(failure_of([&] { _apply_manifest_signals_index(manifest, index); }),
            "KeyError: 'useful_signals'");
  index["useful_signals"] = 1;
  EXPECT_THROW(_apply_manifest_signals_index(manifest, index), TypeError);
  EXPECT_EQ(manifest.membership(), nullptr);

  _apply_manifest_signals_index(manifest, index_document());
  _apply_signal_result_counts(result, manifest);
  EXPECT_EQ(result.n_found_strategies, 1);
  EXPECT_EQ(result.n_useful_signals, 3);
  EXPECT_EQ(result.useful_signals_downloaded, 0);
  _apply_signal_result_counts(result, manifest, {{"useful/a2.arrow"}, {"useful/a1.arrow"}, {"other"}});
  EXPECT_EQ(result.useful_signals_downloaded, 1);
}

TEST(SignalsIndexBytes, FailInTheWordsOfDownloadsWhenTheyWereDamaged) {
  const std::string body = dump_json(index_document());
  const Manifest manifest(manifest_declaring(body));
  std::string other = body;
  other.back() = ' ';
  EXPECT_EQ(failure_of([&] { _verify_signals_index_bytes(other, manifest); }),
            "IntegrityError: Checksum failure for signals_index.json: signals_index sidecar sha256 mismatch: "
            "expected " +
                sha256_hex(body) + ", got " + sha256_hex(other));
  EXPECT_EQ(failure_of([&] { _verify_signals_index_bytes(body + " ", manifest); }),
            fmt::format("IntegrityError: Size failure for signals_index.json: signals_index sidecar size "
                        "mismatch: expected {} bytes, got {}",
                        body.size(), body.size() + 1));
  EXPECT_THAT(failure_of([&] { _validate_signals_index_bytes(body + " ", manifest); }),
              StartsWith("ManifestError: signals_index sidecar size"));
  EXPECT_EQ(manifest.membership(), nullptr);

  Document wrong_era = index_document();
  wrong_era["era_number"] = 8;
  const std::string wrong_body = dump_json(wrong_era);
  EXPECT_THAT(
      failure_of([&] { _verify_signals_index_bytes(wrong_body, Manifest(manifest_declaring(wrong_body))); }),
      StartsWith("ManifestError: "));
  EXPECT_EQ(_verify_signals_index_bytes(body, manifest), index_document());
  EXPECT_EQ(manifest.membership()->useful_signals, index_document()["useful_signals"]);
}

TEST(SignalsIndexOfARoot, IsLoadedOrNamedAsMissing) {
  const TempDir root;
  const std::string body = dump_json(index_document());
  const Manifest manifest(manifest_declaring(body));
  EXPECT_EQ(failure_of([&] { _load_manifest_signals_index(root.path(), manifest); }),
            "SyncError: signals_index.json or membership file missing from local sync: signals_index.json");
  root.write(PATH, body + " ");
  EXPECT_THAT(failure_of([&] { _load_manifest_signals_index(root.path(), manifest); }),
              StartsWith("SyncError: Unable to load authenticated accepted set: signals_index sidecar size"));
  root.write(PATH, body);
  EXPECT_TRUE(_load_manifest_signals_index(root.path(), manifest));
  EXPECT_EQ(manifest.membership()->found_strategies.size(), 1u);
}

class SignalsIndexDownloadTest : public ::testing::Test {
 protected:
  Manifest manifest_for(const std::string& body) const {
    Document data = manifest_declaring(body);
    data["base_url"] = net.server.url();
    return Manifest(std::move(data));
  }

  Network net;
  SignalsIndex signals_index{net.data.path(), net.downloader, net.hash_cache, net.guard};
  const std::string body = dump_json(index_document());
};

TEST_F(SignalsIndexDownloadTest, FetchesWhatIsNotThereAndReplacesWhatIsDamaged) {
  net.server.serve("/signals_index.json", body);
  SyncResult result;
  for (const bool damaged : {false, true}) {
    const Manifest manifest = manifest_for(body);
    if (damaged) net.data.write(PATH, std::string(body.size(), 'x'));
    EXPECT_TRUE(signals_index._download_signals_index(manifest, {}, &result));
    EXPECT_EQ(net.data.read(PATH), body);
    EXPECT_NE(manifest.membership(), nullptr);
  }
  EXPECT_EQ(result.bytes_downloaded, static_cast<std::int64_t>(2 * body.size()));
  EXPECT_FALSE(signals_index._download_signals_index(manifest_for(body), {}, &result));
  EXPECT_EQ(net.server.requests("/signals_index.json").size(), 2u);
}

TEST_F(SignalsIndexDownloadTest, DoesNotAskAgainForDeclaredBytesThatAreRefused) {
  net.data.write(PATH, "{}");
  EXPECT_THAT(failure_of([&] { signals_index._download_signals_index(manifest_for("{}")); }),
              StartsWith("ManifestError: signals_index schema_version"));
  EXPECT_EQ(net.server.requests("/signals_index.json").size(), 0u);
}

TEST_F(SignalsIndexDownloadTest, RecordsAnUpdateForTheGuardAndTheCache) {
  const auto guard = std::make_shared<RecordingGuard>();
  net.guard.set(guard);
  net.data.write("sub/index.json", body);
  const std::string sha = sha256_hex(body);
  Document update = {{"relative_path", "sub/index.json"}, {"sha256", sha}};
  EXPECT_EQ(failure_of([&] { signals_index._record_signals_index_update(update); }),
            "KeyError: 'local_path'");
  update["local_path"] = net.data.path() + "/sub/index.json";
  signals_index._record_signals_index_update(update);
  EXPECT_THAT(guard->updates, ElementsAre("sub/index.json signals_index " + sha));
  const client_manifest::PinnedRoot root(net.data.path());
  EXPECT_EQ(net.hash_cache._cached_local_sha("sub/index.json",
                                             root.stat_regular_file("sub/index.json", "test"), sha),
            sha);
}

}  // namespace
}  // namespace tidalcrest::sync
