#include "siblings/distribution/pinned_root.hpp"

#include <fcntl.h>

#include "files_fixture.hpp"
#include "siblings/distribution/directory_cursor.hpp"
#include "siblings/distribution/file_stat.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

using testing::fs::create_directory;
using testing::fs::create_symlink;

class PinnedRootTest : public testing::BothOpeningMethods {
 protected:
  PinnedRootTest() {
    outside.write("secret", "outside");
    dir.write("a/b.bin", "inside");
  }
  testing::TempDir outside;
  testing::TempDir dir;
  PinnedRoot root{dir.path()};
};

struct Attack {
  const char* label;
  std::string path;
  const char* refused_as = "OSError: ";
};

TEST_P(PinnedRootTest, NothingReachesOutOfTheRootOrASpecialFile) {
  create_symlink(outside.path("secret"), dir.path("link"));
  create_symlink(outside.path(), dir.path("linked_directory"));
  create_symlink("a", dir.path("inner_link"));
  create_symlink("a/b.bin", dir.path("a/self"));
  ASSERT_EQ(::mkfifo(dir.path("fifo").c_str(), 0600), 0);
  testing::make_socket(dir.path("socket"));
  const std::string deep = "../" + outside.path().substr(outside.path().rfind('/') + 1) + "/secret";
  for (const Attack& attack : {Attack{"symbolic link", "link"},
                               {"link on the way", "linked_directory/secret"},
                               {"link on the way that stays inside", "inner_link/b.bin"},
                               {"link beside its target", "a/self"},
                               {"FIFO", "fifo"},
                               {"socket", "socket"},
                               {"directory", "a"},
                               {"file on the way", "a/b.bin/c"},
                               {"climbing path", deep, "ValueError: "},
                               {"climbing staging name", "../x.tmp", "ValueError: "},
                               {"absolute path", outside.path("secret"), "ValueError: "},
                               {"zero byte", std::string("a\0b", 3), "ValueError: "},
                               {"empty path", "", "ValueError: "}}) {
    SCOPED_TRACE(attack.label);
    const auto refuses = [&](auto&& operation) {
      const std::string failure = failure_of(operation);
      EXPECT_THAT(failure, StartsWith(attack.refused_as));
      if (failure.starts_with("OSError")) {
        EXPECT_THAT(failure, HasSubstr(dir.path(attack.path)));
      }
    };
    refuses([&] { root.read_regular_file(attack.path, "member"); });
    refuses([&] { root.stat_regular_file(attack.path, "member"); });
    refuses([&] { DirectoryCursor(root).stat_regular_file(attack.path, "member"); });
    refuses([&] { root.identify_regular_file(attack.path, "member"); });
    refuses([&] { root.open_regular_file_for_update(attack.path); });
    refuses([&] { root.remove_regular_file(attack.path, /*missing_ok=*/false); });
    refuses([&] { root.replace_regular_file(attack.path, "moved"); });
    refuses([&] { root.copy_regular_file(attack.path, root, "copied"); });
  }
  EXPECT_EQ(outside.read("secret"), "outside");
  EXPECT_EQ(dir.read("a/b.bin"), "inside");
}

TEST_P(PinnedRootTest, WritesGoThroughNoLink) {
  create_symlink(outside.path("secret"), dir.path("link"));
  create_symlink(outside.path("new"), dir.path("dangling"));
  create_symlink(outside.path(), dir.path("linked_directory"));
  EXPECT_THROW(root.write_atomic("linked_directory/x", "evil", true), OSError);
  EXPECT_THROW(root.open_regular_file_for_update("linked_directory/d/x"), OSError);
  EXPECT_THROW(root.copy_regular_file("a/b.bin", root, "linked_directory/x"), OSError);
  EXPECT_THROW(root.replace_regular_file("a/b.bin", "linked_directory/x"), OSError);
  root.write_atomic("link", "own", true);
  root.copy_regular_file("a/b.bin", root, "dangling");
  EXPECT_THAT(testing::files_below(outside), UnorderedElementsAre("secret"));
  EXPECT_EQ(outside.read("secret"), "outside");
  EXPECT_FALSE(testing::fs::is_symlink(dir.path("link")));
  EXPECT_EQ(dir.read("link") + dir.read("dangling"), "owninside");
}

TEST_P(PinnedRootTest, TellsWhatIsMissingFromWhatIsWrong) {
  EXPECT_THROW(root.stat_regular_file("none/at/all", "member"), FileNotFoundError);
  EXPECT_THROW(root.copy_regular_file("none", root, "copied"), FileNotFoundError);
  EXPECT_THROW(root.open_regular_file_for_update("none", /*create=*/false), FileNotFoundError);
  EXPECT_THROW(root.remove_regular_file("none", false), FileNotFoundError);
  EXPECT_NO_THROW(root.remove_regular_file("none/at/all", true));
  EXPECT_EQ(root.read_regular_file_if_present("none/at/all", "member"), std::nullopt);
  EXPECT_THROW(root.read_regular_file_if_present("a", "member"), OSError);
  EXPECT_EQ(failure_of([&] { root.read_regular_file("none", "vocabulary"); }),
            "FileNotFoundError: vocabulary: " + dir.path("none") + ": No such file or directory");
}

TEST_P(PinnedRootTest, RootsThatCannotBePinned) {
  EXPECT_THROW(PinnedRoot(dir.path("missing")), FileNotFoundError);
  EXPECT_THROW(PinnedRoot(""), FileNotFoundError);
  EXPECT_THROW(PinnedRoot(dir.path("a/b.bin")), OSError);
  EXPECT_THROW(PinnedRoot(dir.path("a/b.bin"), true), OSError);
  EXPECT_THROW(PinnedRoot(std::string("a\0b", 3)), ValueError);
  PinnedRoot(dir.path("made/on/demand"), true).assert_root_unchanged();

  // The user may keep the data directory behind a link; what this system makes itself is never behind one.
  dir.write(".tidalcrest-cohorts/generation/x", "");
  create_symlink(dir.path(), outside.path("data"));
  create_symlink(dir.path("a"), dir.path(".tidalcrest-cohorts/link"));
  EXPECT_EQ(PinnedRoot(outside.path("data/")).read_regular_file("a/b.bin", "member"), "inside");
  EXPECT_EQ(PinnedRoot(outside.path("data/.tidalcrest-cohorts/generation")).read_regular_file("x", "member"),
            "");
  EXPECT_THROW(PinnedRoot(dir.path(".tidalcrest-cohorts/link")), OSError);
  EXPECT_THROW(PinnedRoot(root, ".tidalcrest-cohorts/link"), OSError);
  EXPECT_EQ(PinnedRoot(root, "a").read_regular_file("b.bin", "member"), "inside");
  create_symlink(dir.path(".tidalcrest-cohorts"), outside.path(".tidalcrest-cohorts"));
  EXPECT_THROW(PinnedRoot(outside.path(".tidalcrest-cohorts/")), OSError);
  EXPECT_THROW(PinnedRoot(outside.path(".tidalcrest-cohorts/generation")), OSError);
}

TEST_P(PinnedRootTest, NoticesARootThatWasSwapped) {
  testing::TempDir parent;
  parent.write("root/x", "pinned");
  const PinnedRoot pinned(parent.path("root"));
  EXPECT_NO_THROW(pinned.assert_root_unchanged());
  testing::fs::rename(parent.path("root"), parent.path("aside"));
  EXPECT_THROW(pinned.assert_root_unchanged(), OSError);
  parent.write("root/x", "swapped");
  EXPECT_THROW(pinned.assert_root_unchanged(), OSError);
  EXPECT_EQ(pinned.read_regular_file("x", "member"), "pinned");
}

TEST_P(PinnedRootTest, IdentityIsOfOneFileAtOneMoment) {
  std::string big(3 * 1024 * 1024 + 17, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 31 + i / 4096);
  for (const std::string& bytes : {std::string(), std::string("x"), big}) {
    dir.write("file", bytes);
    const FileIdentity identity = root.identify_regular_file("file", "member");
    EXPECT_EQ(identity.sha256, sha256_hex(bytes));
    EXPECT_EQ(static_cast<const FileStat&>(identity), root.stat_regular_file("file", "member"));
    EXPECT_EQ(identity.size_bytes, static_cast<std::int64_t>(bytes.size()));
    EXPECT_EQ(root.read_regular_file("file", "member"), bytes);
  }

  // A status taken before a change stands for the first fstat of a reader that is overtaken.
  const auto overtaken = [&](const std::function<void()>& change) {
    dir.write("file", big);
    const OpenedFile file = open_regular(root.descriptor(), "file", O_RDONLY, "file");
    change();
    EXPECT_THROW(identify_opened_file(file.descriptor.get(), file.status, 1 << 20, "file"), OSError);
  };
  overtaken([&] { dir.write("file", big + "more"); });
  overtaken([&] { testing::fs::resize_file(dir.path("file"), 5); });
  overtaken([&] {
    std::fstream same_size(dir.path("file"), std::ios::in | std::ios::out | std::ios::binary);
    same_size << "other";
  });
}

TEST_P(PinnedRootTest, WritesAtomically) {
  root.write_atomic("new/d/file", "first", false);
  EXPECT_THROW(root.write_atomic("new/d/file", "second", false), OSError);
  EXPECT_EQ(dir.read("new/d/file"), "first");
  root.write_atomic("new/d/file", "third", true);
  EXPECT_EQ(dir.read("new/d/file"), "third");
  EXPECT_THROW(root.write_atomic("new/d", "directory", true), OSError);

  const std::string longest(250, 'x');  // a segment has room for its staging name too
  root.write_atomic("a/" + longest + ".tmp", "part", true);
  root.replace_regular_file("a/" + longest + ".tmp", "a/b.bin");
  EXPECT_EQ(dir.read("a/b.bin"), "part");
  EXPECT_THROW(root.write_atomic(longest + "y", "", true), ValueError);

  const testing::RestoredDiskCalls restored;
  disk_calls().flush_file = [](int) { return errno = EIO, -1; };
  EXPECT_THROW(root.write_atomic("new/d/file", "fourth", true), OSError);
  EXPECT_EQ(dir.read("new/d/file"), "third");
  EXPECT_THAT(testing::files_below(dir), UnorderedElementsAre("a/b.bin", "new/d/file"));
}

TEST_P(PinnedRootTest, AWriteOutlivesASweepOfItsTemporaryFile) {
  const testing::RestoredDiskCalls restored;
  int sweeps = 0;
  disk_calls().rename = [&](int directory, const char* temporary, auto... target) {
    if (++sweeps == 1) ::unlinkat(directory, temporary, 0);
    return DiskCalls::real().rename(directory, temporary, target...);
  };
  root.write_atomic("state.json", "{}", true);
  EXPECT_EQ(dir.read("state.json"), "{}");
}

TEST_P(PinnedRootTest, CopiesIntoNewAndExistingPlaces) {
  testing::TempDir other;
  const PinnedRoot target(other.path());
  root.copy_regular_file("a/b.bin", target, "x/y/copy");
  EXPECT_EQ(other.read("x/y/copy"), "inside");

  other.write("x/old", "something longer than the copy");
  testing::fs::create_hard_link(other.path("x/old"), other.path("x/other_name"));
  ASSERT_EQ(::mkfifo(other.path("x/fifo").c_str(), 0600), 0);
  root.copy_regular_file("a/b.bin", target, "x/old");
  root.copy_regular_file("a/b.bin", target, "x/fifo");
  EXPECT_EQ(other.read("x/old") + other.read("x/fifo"), "insideinside");
  EXPECT_EQ(other.read("x/other_name"), "something longer than the copy");
  create_directory(other.path("directory"));
  EXPECT_THROW(root.copy_regular_file("a/b.bin", target, "directory"), OSError);
  EXPECT_THAT(testing::files_below(other),
              UnorderedElementsAre("x/y/copy", "x/old", "x/other_name", "x/fifo"));
  if (testing::fs::exists(
          "/dev/shm")) {  // another file system: nothing to share, nothing to copy in the kernel
    const std::string elsewhere = fmt::format("/dev/shm/tidalcrest-copy-{}", ::getpid());
    root.copy_regular_file("a/b.bin", PinnedRoot(elsewhere, true), "copy");
    EXPECT_EQ(PinnedRoot(elsewhere).read_regular_file("copy", "copy"), "inside");
    testing::fs::remove_all(elsewhere);
  }
}

TEST_P(PinnedRootTest, UpdatesAFileInPlace) {
  UpdatableFile file = root.open_regular_file_for_update("fresh/part.tmp");
  file.write("0123456789");
  file.seek(4);
  char buffer[16];
  EXPECT_EQ(std::string(buffer, file.read(buffer, sizeof buffer)), "456789");
  file.truncate(2);
  file.write("ab");
  file.flush();
  file.close();
  file.close();
  EXPECT_THROW(file.write("late"), OSError);
  EXPECT_EQ(dir.read("fresh/part.tmp"), "01ab");
  EXPECT_EQ(root.open_regular_file_for_update("fresh/part.tmp").read(buffer, sizeof buffer), 4u);
}

INSTANTIATE_FOR_BOTH_OPENING_METHODS(PinnedRootTest);

}  // namespace
}  // namespace tidalcrest::sync::client_manifest
