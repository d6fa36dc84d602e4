#include "integrity/hash_cache.hpp"

#include <fmt/format.h>

#include "host/parallel.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

using namespace testing;
using client_manifest::FileIdentity;
using client_manifest::FileStat;
using client_manifest::PinnedRoot;

const std::string SHA_A(64, 'a');
const std::string SHA_B(64, 'b');
constexpr FileStat STAT{.size_bytes = 1, .mtime_ns = 2, .ctime_ns = 3, .device = 4, .inode = 5};

class HashCacheTest : public ::testing::Test {
 protected:
  TempDir data;
  LogCapture log;
};

TEST_F(HashCacheTest, WritesSortedTextAndReadsItBack) {
  HashCache cache(data.path());
  cache._persist_hash_cache();
  EXPECT_FALSE(data.has(SYNC_HASH_CACHE_FILENAME));  // nothing to write
  cache._remember_local_sha("z/b", FileIdentity{STAT, SHA_B});
  cache._remember_local_sha("a", FileIdentity{STAT, SHA_A});
  cache._remember_local_sha("no digest", FileIdentity{STAT, "short"});
  cache._persist_hash_cache();
  const std::string stat = R"("ctime_ns": 3, "device": 4, "inode": 5, "mtime_ns": 2, )";
  EXPECT_EQ(data.read(SYNC_HASH_CACHE_FILENAME),
            "{\"files\": {\"a\": {" + stat + "\"sha256\": \"" + SHA_A + "\", \"size_bytes\": 1}, " +
                "\"z/b\": {" + stat + "\"sha256\": \"" + SHA_B + "\", \"size_bytes\": 1}}, \"version\": 2}");

  HashCache again(data.path());
  EXPECT_EQ(again._cached_local_sha("z/b", STAT, SHA_B), SHA_B);
  EXPECT_EQ(again._cached_local_sha("z/b", STAT, SHA_A), std::nullopt);
  EXPECT_EQ(again._cached_local_sha("z/b", STAT, SHA_B, 9), std::nullopt);
  EXPECT_EQ(again._cached_local_sha("b", STAT, SHA_B), std::nullopt);
  for (const auto member : {&FileStat::size_bytes, &FileStat::mtime_ns, &FileStat::ctime_ns,
                            &FileStat::device, &FileStat::inode}) {
    FileStat other = STAT;
    ++(other.*member);
    EXPECT_EQ(again._cached_local_sha("a", other, SHA_A), std::nullopt);
  }

  again._remember_local_sha("a", FileIdentity{STAT, SHA_B});  // counts before what was loaded
  EXPECT_EQ(again._cached_local_sha("a", STAT, SHA_A), std::nullopt);
  again._persist_hash_cache();
  const HashCache merged(data.path());
  EXPECT_EQ(merged._cached_local_sha("a", STAT, SHA_B), SHA_B);
  EXPECT_EQ(merged._cached_local_sha("z/b", STAT, SHA_B), SHA_B);
}

TEST_F(HashCacheTest, LoadsALargeFileBesideItsConstruction) {
  const auto path = [](int number) { return fmt::format("member {:>8}", number); };
  constexpr int MEMBERS = WORTH_A_THREAD_BYTES / 128;
  HashCache cache(data.path());
  for (int i = 0; i < MEMBERS; ++i) cache._remember_local_sha(path(i), FileIdentity{STAT, SHA_A});
  cache._persist_hash_cache();
  const HashCache again(data.path());
  for (int i = 0; i < MEMBERS; ++i) ASSERT_EQ(again._cached_local_sha(path(i), STAT, SHA_A), SHA_A);
}

TEST_F(HashCacheTest, WritesOnlyWhatHasChangedAndTriesAgainAfterAFailure) {
  HashCache cache(data.path());
  cache._remember_local_sha("a", FileIdentity{STAT, SHA_A});
  data.write(std::string(SYNC_HASH_CACHE_FILENAME) + "/in the way", "");
  cache._persist_hash_cache();
  EXPECT_THAT(log.lines(), ElementsAre(HasSubstr("Failed to persist sync hash cache: ")));
  data.remove(SYNC_HASH_CACHE_FILENAME);
  cache._persist_hash_cache();
  EXPECT_TRUE(data.has(SYNC_HASH_CACHE_FILENAME));

  data.remove(SYNC_HASH_CACHE_FILENAME);
  cache._remember_local_sha("a", FileIdentity{STAT, SHA_A});  // nothing new
  cache._persist_hash_cache();
  EXPECT_FALSE(data.has(SYNC_HASH_CACHE_FILENAME));
  cache._remember_local_sha("a", FileIdentity{STAT, SHA_B});
  cache._persist_hash_cache();
  EXPECT_TRUE(data.has(SYNC_HASH_CACHE_FILENAME));
}

// A text in the form that the cache writes is read directly. Whatever differs from it, if only by a blank,
// must be read to the same end.
TEST_F(HashCacheTest, ReadsEveryFormOfTheFileAndADamagedOneAsAColdMiss) {
  const auto entry = [](const std::string& path, const std::string& sha256, const std::string& inode) {
    return "\"" + path + R"(": {"ctime_ns": 3, "device": 4, "inode": )" + inode +
           R"(, "mtime_ns": 2, "sha256": ")" + sha256 + R"(", "size_bytes": 1})";
  };
  const auto text = [](const std::string& entries) {
    return R"({"files": {)" + entries + R"(}, "version": 2})";
  };
  const std::string own = entry("a", SHA_A, "5");
  struct Case {
    const char* label;
    std::string text;
    std::optional<std::string> found;
    std::size_t warnings;
  };
  const Case cases[] = {
      {"own form", text(own + ", " + entry("b", SHA_B, "6")), SHA_A, 0},
      {"version first, others dropped",
       R"({"version": 2.0, "more": [{}], "files": {"x": 1, "y": [{"a": 1}], )" + own + "}}", SHA_A, 0},
      {"the last of two wins", text(own + ", " + entry("a", SHA_B, "5")), SHA_B, 0},
      {"the last of two is none", text(own + R"(, "a": null)"), std::nullopt, 0},
      {"the last files are none", R"({"files": {)" + own + R"(}, "version": 2, "files": []})", std::nullopt,
       0},
      {"more members", text(R"("a": {"extra": {"deep": [1]}, )" + own.substr(6)), SHA_A, 0},
      {"escaped path", text(entry("\\u0061", SHA_A, "5")), SHA_A, 0},
      {"number as text", text(entry("a", SHA_A, "\"5\"")), SHA_A, 0},
      {"fraction", text(entry("a", SHA_A, "5.0")), SHA_A, 0},
      {"a member is no number", text(entry("a", SHA_A, "[5]")), std::nullopt, 0},
      {"a member is missing", text(R"("a": {"sha256": ")" + SHA_A + "\"}"), std::nullopt, 0},
      {"number too large", text(entry("a", SHA_A, "99999999999999999999")), std::nullopt, 0},
      {"leading zero", text(entry("a", SHA_A, "05")), std::nullopt, 1},
      {"digest that is none", text(entry("a", "short", "5")), std::nullopt, 0},
      {"another version", R"({"files": {)" + own + R"(}, "version": 3})", std::nullopt, 0},
      {"no version", R"({"files": {)" + own + "}}", std::nullopt, 0},
      {"a list", "[" + text(own) + "]", std::nullopt, 0},
      {"text after the end", text(own) + "}", std::nullopt, 1},
      {"cut in an entry", text(own).substr(0, 40), std::nullopt, 1},
      {"cut in a number", text(own).substr(0, 27), std::nullopt, 1},
      {"not text", "\xff", std::nullopt, 1},
      {"no entry", text(""), std::nullopt, 0},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.label);
    const LogCapture log;
    data.write(SYNC_HASH_CACHE_FILENAME, item.text);
    const HashCache cache(data.path());
    for (const auto& sha256 : {SHA_A, SHA_B})
      EXPECT_EQ(cache._cached_local_sha("a", STAT, sha256).has_value(), item.found == sha256);
    EXPECT_EQ(log.lines().size(), item.warnings);
    for (const auto& line : log.lines())
      EXPECT_THAT(line, HasSubstr("Ignoring unreadable sync hash cache: "));
  }
}

TEST_F(HashCacheTest, MatchesAFileAgainstItsDeclaration) {
  data.write("m/a", "content");
  const std::string sha = sha256_hex("content");
  struct Case {
    const char* label;
    std::string path;
    Document file_info;
    bool matches;
  };
  const Case cases[] = {
      {"right", "m/a", {{"sha256", sha}, {"size_bytes", 7}}, true},
      {"size as text", "m/a", {{"sha256", sha}, {"size_bytes", " 7 "}}, true},
      {"no size", "m/a", {{"sha256", sha}}, true},
      {"null size", "m/a", {{"sha256", sha}, {"size_bytes", nullptr}}, true},
      {"wrong size", "m/a", {{"sha256", sha}, {"size_bytes", 8}}, false},
      {"negative size", "m/a", {{"sha256", sha}, {"size_bytes", -1}}, false},
      {"size is no number", "m/a", {{"sha256", sha}, {"size_bytes", "x"}}, false},
      {"wrong digest", "m/a", {{"sha256", SHA_A}, {"size_bytes", 7}}, false},
      {"empty digest", "m/a", {{"sha256", ""}, {"size_bytes", 7}}, false},
      {"no digest", "m/a", {{"size_bytes", 7}}, false},
      {"missing file", "m/b", {{"sha256", sha}}, false},
      {"directory", "m", {{"sha256", sha}}, false},
  };
  const PinnedRoot root(data.path());
  HashCache cache(data.path());
  for (const bool cache_allowed : {false, true, true}) {
    client_manifest::DirectoryCursor cursor(root);
    for (const auto& item : cases) {
      SCOPED_TRACE(item.label);
      EXPECT_EQ(cache._local_file_matches_manifest(root, item.path, item.file_info, cache_allowed),
                item.matches);
      EXPECT_EQ(cache._local_file_matches_manifest(root, cursor, item.path, item.file_info, cache_allowed),
                item.matches);
    }
  }
  EXPECT_THAT(failure_of([&] { cache._local_file_matches_manifest(root, "../a", cases[0].file_info); }),
              StartsWith("ManifestError: "));
}

// A cache that lies shows whether it was asked.
TEST_F(HashCacheTest, AnswersFromTheCacheWithoutReadingTheFile) {
  data.write("a", "content");
  const PinnedRoot root(data.path());
  const Document lie{{"sha256", SHA_A}, {"size_bytes", 7}};
  const Document truth{{"sha256", sha256_hex("content")}, {"size_bytes", 7}};
  HashCache cache(data.path());
  cache._remember_local_sha(data.path(), "a", SHA_A);
  EXPECT_TRUE(cache._local_file_matches_manifest(root, "a", lie));
  EXPECT_FALSE(cache._local_file_matches_manifest(root, "a", lie, /*cache_allowed=*/false));
  EXPECT_TRUE(cache._local_file_matches_manifest(root, "a", lie));    // left alone by the line above
  EXPECT_TRUE(cache._local_file_matches_manifest(root, "a", truth));  // a miss is hashed and remembered
  EXPECT_FALSE(cache._local_file_matches_manifest(root, "a", lie));

  cache._remember_local_sha(data.path(), "a", SHA_A);
  data.remove("a");
  data.write("a", "content");  // the same bytes in another file
  EXPECT_FALSE(cache._local_file_matches_manifest(root, "a", lie));

  cache._remember_local_sha(data.path(), "missing", SHA_A);  // remembers nothing, fails nothing
  EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace
}  // namespace tidalcrest::sync
