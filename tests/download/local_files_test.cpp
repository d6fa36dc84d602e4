#include "download/local_files.hpp"

#include <unistd.h>

#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

class LocalFiles : public ::testing::Test {
 protected:
  LocalFiles() {
    seams.wall_seconds = [] { return 2.0; };
  }

  const testing::TempDir root;
  const testing::LogCapture log;
  Seams seams = Seams::real();
};

TEST_F(LocalFiles, AreDigestedAndWrittenWhole) {
  const char* const digest = "2c26b46b68ffc68ff99b453c1d30413413422d706483bfa0f98a5e886266e7ae";
  _atomic_write(root.path("a"), "old");
  _atomic_write(root.path("a"), "foo");
  EXPECT_EQ(root.read("a"), "foo");
  EXPECT_EQ(_sha256_file(root.path("a")), digest);
  EXPECT_THAT(failure_of([&] { _sha256_file(root.path("none")); }), StartsWith("FileNotFoundError: "));
  EXPECT_THAT(failure_of([&] { _atomic_write(root.path("a/b"), ""); }),
              StartsWith("SyncError: Unable to write regular file " + root.path("a/b") + ": "));
}

TEST_F(LocalFiles, ProgressTellsWhatIsToCome) {
  const Manifest manifest(parse_json(R"({"era_number": 7, "version": null})"));
  const Document known = parse_json(R"({"kind": "feature", "size_bytes": 5})");
  const Document unknown = parse_json(R"({"platform": "p", "size_bytes": -1})");
  _write_sync_progress_json(root.path(), manifest, {{"z", &known}, {"a", &unknown}, {"b", nullptr}}, seams);
  EXPECT_EQ(
      root.read(SYNC_PROGRESS_FILENAME),
      R"({"era_number": 7, "files": {"a": {"kind": "", "platform": "p"}, "b": {"kind": "", "platform": ""}, )"
      R"("z": {"kind": "feature", "platform": "", "size_bytes": 5}}, "phase": "syncing", "total_bytes": 5, )"
      R"("total_bytes_known": false, "unknown_size_files": ["a", "b"], "updated_at": 2.0, "version": 0})");

  _write_sync_progress_json(root.path(), manifest, {}, seams);
  EXPECT_THAT(root.read(SYNC_PROGRESS_FILENAME), HasSubstr(R"("total_bytes": 0, "total_bytes_known": true)"));
  EXPECT_THROW(_write_sync_progress_json(root.path("none/x"), manifest, {}, seams), SyncError);
}

TEST_F(LocalFiles, ProgressIsRemovedAtBestEffort) {
  root.write(SYNC_PROGRESS_FILENAME, "{}");
  _remove_sync_progress_json(root.path());
  EXPECT_FALSE(root.has(SYNC_PROGRESS_FILENAME));
  _remove_sync_progress_json(root.path());
  EXPECT_THAT(log.lines(), IsEmpty());
  root.write(SYNC_PROGRESS_FILENAME + std::string("/x"), "in the way");
  _remove_sync_progress_json(root.path());
  EXPECT_THAT(log.lines(), ElementsAre(HasSubstr("best-effort sync progress cleanup failed for " +
                                                 root.path(SYNC_PROGRESS_FILENAME) + ": ")));
}

TEST_F(LocalFiles, OneStagingFileIsRemovedAtBestEffort) {
  root.write("d/a.tmp", "");
  _remove_manifest_tmp_file(root.path(), "d/a");
  EXPECT_FALSE(root.has("d/a.tmp"));
  _remove_manifest_tmp_file(root.path(), "d/a");
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_THAT(failure_of([&] { _remove_manifest_tmp_file(root.path(), "../a"); }),
              StartsWith("ManifestError: "));
  ASSERT_EQ(symlink("/", root.path("link").c_str()), 0);
  _remove_manifest_tmp_file(root.path(), "link/a");
  EXPECT_THAT(log.lines(), ElementsAre(HasSubstr("Failed to remove stale sync tmp file link/a: ")));
}

}  // namespace
}  // namespace tidalcrest::sync
