#include "siblings/distribution/contained_files.hpp"

#include <fcntl.h>

#include "files_fixture.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

using testing::fs::create_directory;
using testing::fs::create_directory_symlink;
using testing::fs::create_symlink;

class ContainedFilesTest : public testing::BothOpeningMethods {
 protected:
  ContainedFilesTest() { outside.write("kept/x.tmp", "outside"); }
  ~ContainedFilesTest() override { EXPECT_EQ(outside.read("kept/x.tmp"), "outside"); }
  testing::TempDir outside;
  testing::TempDir dir;
};

TEST_P(ContainedFilesTest, MoveAndEnsureAndHash) {
  testing::TempDir other;
  EXPECT_EQ(write_contained_regular_file(dir.path(), "a/x", "bytes", false), dir.path("a/x"));
  move_contained_regular_file(dir.path(), "a/x", other.path(), "b/y");
  EXPECT_FALSE(dir.has("a/x"));
  EXPECT_EQ(hash_contained_regular_file(other.path(), "b/y", "member", 1), sha256_hex("bytes"));
  EXPECT_THROW(hash_contained_regular_file(other.path(), "b/y", "member", 0), ValueError);
  EXPECT_THROW(move_contained_regular_file(dir.path(), "a/x", other.path(), "b/y"), FileNotFoundError);
  EXPECT_EQ(other.read("b/y"), "bytes");

  EXPECT_EQ(ensure_contained_directory(dir.path(), "p/q"), dir.path("p/q"));
  EXPECT_EQ(ensure_contained_directory(dir.path(), "p/q"), dir.path("p/q"));
  create_directory_symlink(outside.path(), dir.path("link"));
  dir.write("file", "");
  EXPECT_THROW(ensure_contained_directory(dir.path(), "link"), OSError);
  EXPECT_THROW(ensure_contained_directory(dir.path(), "link/made"), OSError);
  EXPECT_THROW(ensure_contained_directory(dir.path(), "file"), OSError);
  EXPECT_THROW(ensure_contained_directory(dir.path("missing"), "p"), FileNotFoundError);
}

TEST_P(ContainedFilesTest, MovesBetweenFileSystemsByCopy) {
  const testing::RestoredDiskCalls restored;
  dir.write("x", "bytes");
  dir.write("d/x", "old");
  bool refused = false;
  disk_calls().rename = [&](auto... arguments) {
    if (!std::exchange(refused, true)) return errno = EXDEV, -1;
    return DiskCalls::real().rename(arguments...);
  };
  move_contained_regular_file(dir.path(), "x", dir.path(), "d/x");
  EXPECT_THAT(testing::files_below(dir), UnorderedElementsAre("d/x"));
  EXPECT_EQ(dir.read("d/x"), "bytes");
}

TEST_P(ContainedFilesTest, RemovesATreeButNothingBehindALink) {
  dir.write("tree/deep/er/file", "");
  dir.write("beside", "stays");
  create_directory_symlink(outside.path("kept"), dir.path("tree/link"));
  ASSERT_EQ(::mkfifo(dir.path("tree/deep/fifo").c_str(), 0600), 0);
  remove_contained_directory_tree(dir.path(), "tree", false);
  EXPECT_THAT(testing::files_below(dir), UnorderedElementsAre("beside"));
  EXPECT_FALSE(dir.has("tree"));

  EXPECT_NO_THROW(remove_contained_directory_tree(dir.path(), "tree", true));
  EXPECT_NO_THROW(remove_contained_directory_tree(dir.path("missing"), "tree", true));
  EXPECT_THROW(remove_contained_directory_tree(dir.path(), "tree", false), FileNotFoundError);
  EXPECT_THROW(remove_contained_directory_tree(dir.path(), "../" + outside.path().substr(5), true),
               ValueError);
  create_directory_symlink(outside.path(), dir.path("root_link"));
  EXPECT_THROW(remove_contained_directory_tree(dir.path(), "root_link/kept", true), OSError);
  remove_contained_directory_tree(dir.path(), "root_link", false);  // the link itself
  EXPECT_FALSE(testing::fs::is_symlink(dir.path("root_link")));
}

TEST_P(ContainedFilesTest, SweepsStagingFilesEverywhereExceptThePreserved) {
  for (const char* path : {"a/b.arrow.tmp", "c.arrow.tmp", "c.arrow", "a/tmp", ".write-0123.tmp", "d/e/f.tmp",
                           ".tidalcrest-cohorts/g/m.arrow.tmp", ".tidalcrest-cohorts/g/m.arrow"}) {
    dir.write(path, "x");
  }
  create_directory(dir.path("directory.tmp"));
  create_symlink("c.arrow", dir.path("link.tmp"));
  create_directory_symlink(outside.path("kept"), dir.path("linked"));
  cleanup_contained_regular_files(dir.path(), ".tmp", {"a/b.arrow.tmp", "../climbing.tmp"});
  EXPECT_THAT(testing::files_below(dir), UnorderedElementsAre("a/b.arrow.tmp", "c.arrow", "a/tmp", "link.tmp",
                                                              "linked", ".tidalcrest-cohorts/g/m.arrow"));

  cleanup_contained_regular_files(dir.path(), ".arrow", {});
  EXPECT_FALSE(dir.has("c.arrow"));
  EXPECT_TRUE(dir.has(".tidalcrest-cohorts/g/m.arrow"));
  EXPECT_THROW(cleanup_contained_regular_files(dir.path(), "", {}), ValueError);
  EXPECT_THROW(cleanup_contained_regular_files(dir.path("missing"), ".tmp", {}), FileNotFoundError);
}

TEST_P(ContainedFilesTest, SweepsOnlyInsideThePrefixes) {
  for (const char* path : {"features/keep", "features/u/go", "features_too/stays", "found/go", "stays"}) {
    dir.write(path, "x");
  }
  create_directory_symlink(outside.path("kept"), dir.path("features/linked"));
  const auto is_kept = [](const std::string& path) { return path == "features/keep"; };
  cleanup_contained_regular_files_in_prefixes(dir.path(), {"features/", "found", "absent/"}, is_kept);
  EXPECT_THAT(testing::files_below(dir),
              UnorderedElementsAre("features/keep", "features/linked", "features_too/stays", "stays"));

  create_directory_symlink(outside.path("kept"), dir.path("useful"));
  EXPECT_THROW(cleanup_contained_regular_files_in_prefixes(dir.path(), {"useful/"}, is_kept), OSError);
  for (const char* bad : {"", "/", "../x", ".tidalcrest-cohorts/", ".tidalcrest-cohorts/g"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(cleanup_contained_regular_files_in_prefixes(dir.path(), {bad}, is_kept), ValueError);
  }
}

TEST_P(ContainedFilesTest, FilesByPathMayLieAnywhereButAreNoLinks) {
  const std::string odd = dir.path("a name, with blanks é");
  write_regular_file_path(odd, "bytes", true);
  EXPECT_EQ(read_regular_file_path(odd, "state"), "bytes");
  EXPECT_EQ(hash_regular_file_path(odd, "SHA256 input file", 8388608), sha256_hex("bytes"));
  EXPECT_THROW(write_regular_file_path(odd, "other", false), OSError);
  create_symlink(odd, dir.path("link"));
  create_directory_symlink(dir.path(), outside.path("way"));
  ASSERT_EQ(::mkfifo(dir.path("fifo").c_str(), 0600), 0);
  for (const auto& bad : {dir.path("link"), dir.path("fifo"), dir.path()}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(read_regular_file_path(bad, "state"), OSError);
    EXPECT_THROW(hash_regular_file_path(bad, "state", 1), OSError);
  }
  EXPECT_EQ(read_regular_file_path(outside.path("way/") + "a name, with blanks é", "state"), "bytes");
  EXPECT_THROW(read_regular_file_path(dir.path("none"), "state"), FileNotFoundError);
  EXPECT_THROW(write_regular_file_path(dir.path("none/x"), "", true), FileNotFoundError);
  EXPECT_THROW(write_regular_file_path(dir.path() + "/", "", true), ValueError);
  outside.remove("way");
}

INSTANTIATE_FOR_BOTH_OPENING_METHODS(ContainedFilesTest);

}  // namespace
}  // namespace tidalcrest::sync::client_manifest
