#include "manifest/persistence.hpp"

#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

class SyncMetadata : public ::testing::Test {
 protected:
  SyncMetadata() {
    seams.wall_seconds = [] { return 12.5; };
  }

  bool matches(const Document& hint, std::int64_t version = 3, std::int64_t era_number = 7) const {
    return _manifest_hash_hint_matches_local_state(root.path(), version, era_number, hint);
  }
  std::string local_sha256() const { return sha256_hex(root.read("manifest.json")); }

  const testing::TempDir root;
  const Document manifest = {{"version", 3}, {"era_number", 7}, {"z", 1}, {"a", 2}};
  Seams seams = Seams::real();
};

TEST_F(SyncMetadata, IsWrittenBesideTheManifestOnlyWithAServerHash) {
  _write_manifest_json(root.path(), manifest, seams);
  EXPECT_EQ(root.read("manifest.json"), R"({"version": 3, "era_number": 7, "z": 1, "a": 2})");
  EXPECT_FALSE(root.has(MANIFEST_SYNC_METADATA_FILENAME));

  _write_manifest_json(root.path(), manifest, seams, std::nullopt, "body");
  EXPECT_EQ(root.read(MANIFEST_SYNC_METADATA_FILENAME),
            R"({"era_number": 7, "local_manifest_sha256": ")" + local_sha256() +
                R"(", "server_manifest_body_sha256": "body", "server_manifest_sha256": "", )"
                R"("updated_at": 12.5, "version": 3})");

  root.remove("manifest.json");
  root.remove(MANIFEST_SYNC_METADATA_FILENAME);
  _write_manifest_sync_metadata(root.path(), manifest, seams, "hash");
  EXPECT_FALSE(root.has(MANIFEST_SYNC_METADATA_FILENAME));
}

TEST_F(SyncMetadata, ReadsAsEmptyWhenItIsNoObject) {
  EXPECT_EQ(_load_manifest_sync_metadata(root.path("missing")), Document::object());
  for (const char* bytes : {"", "[1]", "{", "\xff"}) {
    root.write(MANIFEST_SYNC_METADATA_FILENAME, bytes);
    EXPECT_EQ(_load_manifest_sync_metadata(root.path()), Document::object()) << bytes;
  }
}

TEST_F(SyncMetadata, LetsARecordedServerHashStandForTheLocalFile) {
  EXPECT_TRUE(matches(""));
  EXPECT_TRUE(matches(nullptr));
  EXPECT_FALSE(matches("server"));  // no manifest at all

  _write_manifest_json(root.path(), manifest, seams, "server", "body");
  EXPECT_TRUE(matches("server"));
  EXPECT_TRUE(matches("body"));
  EXPECT_TRUE(matches(local_sha256()));
  EXPECT_FALSE(matches("other"));
  EXPECT_FALSE(matches("server", 4));
  EXPECT_FALSE(matches("server", 3, 8));
  EXPECT_TRUE(matches(local_sha256(), 4));

  root.write("manifest.json", "another file than the recorded one");
  EXPECT_FALSE(matches("server"));

  root.remove(MANIFEST_SYNC_METADATA_FILENAME);
  EXPECT_TRUE(matches(local_sha256()));
  EXPECT_FALSE(matches("server"));
}

TEST(ManifestFile, FailsAsAManifestError) {
  const testing::TempDir root;
  root.write("manifest.json", R"({"era_number": 1})");
  EXPECT_EQ(_read_distribution_manifest_file(root.path("manifest.json"), "it").at("era_number"), 1);
  EXPECT_THAT(failure_of([&] { _read_distribution_manifest_file(root.path("none.json"), "local manifest"); }),
              StartsWith("ManifestError: Unable to read local manifest: "));
  EXPECT_EQ(failure_of([] { _parse_full_distribution_manifest_bytes("[]", "served manifest"); }),
            "ManifestError: served manifest must contain a JSON object");
}

}  // namespace
}  // namespace tidalcrest::sync
