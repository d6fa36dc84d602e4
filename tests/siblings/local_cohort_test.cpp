#include "siblings/distribution/local_cohort.hpp"

#include <sys/file.h>

#include "files_fixture.hpp"
#include "host/parallel.hpp"
#include "siblings/distribution/contained_files.hpp"

namespace tidalcrest::sync::local_cohort {
namespace {

using client_manifest::PinnedRoot;

class LocalCohortTest : public ::testing::Test {
 protected:
  static std::string manifest(int version) {
    return fmt::format(R"({{"version": {}, "files": {{"m/a.bin": {{"sha256": "{}"}}}}}})", version,
                       sha256_hex("bytes"));
  }
  static CompletionRecord completion(const std::string& manifest_bytes) {
    const ArtifactIdentities identities{{"m/a.bin", {sha256_hex("bytes"), 5}},
                                        {"snapshot", {sha256_hex("s"), 1}}};
    return build_completion_payload(manifest_bytes, {"m/a.bin", "snapshot"}, identities,
                                    {{"snapshot", parse_json(R"({"size_bytes": 1})")}});
  }
  std::string stage(const std::string& manifest_bytes) const {
    const std::string root = create_generation_root(dir.path(), manifest_bytes);
    PinnedRoot(root).write_atomic("m/a.bin", "bytes", false);
    PinnedRoot(root).write_atomic("snapshot", "s", false);
    complete_generation(root, manifest_bytes, completion(manifest_bytes));
    return root;
  }
  std::string in_generation(const std::string& manifest_bytes, const char* name) const {
    return generation_relative_root(manifest_bytes) + "/" + name;
  }

  testing::TempDir dir;
  const testing::RestoredDiskCalls restored;
};

TEST_F(LocalCohortTest, PublishesAndReadsBackTheExactBytes) {
  EXPECT_EQ(load_active_cohort(dir.path(), false), nullptr);
  EXPECT_THROW(load_active_cohort(dir.path(), true), LocalCohortError);
  EXPECT_EQ(read_selector_bytes(dir.path()), std::nullopt);
  EXPECT_THROW(pin_active_cohort(dir.path()), FileNotFoundError);

  const std::string bytes = manifest(1);
  const std::string root = stage(bytes);
  EXPECT_EQ(root, dir.path(".tidalcrest-cohorts/" + sha256_hex(bytes)));
  EXPECT_EQ(load_active_cohort(dir.path(), false), nullptr);  // complete, and still invisible
  EXPECT_THROW(create_generation_root(dir.path(), bytes), OSError);

  const auto published = publish_manifest(dir.path() + "/", bytes);
  EXPECT_EQ(published->base_dir, dir.path());
  EXPECT_EQ(published->root_dir, root);
  EXPECT_EQ(*published->manifest_bytes, bytes);
  EXPECT_THAT(published->members.active_relative_paths, ElementsAre("m/a.bin", "snapshot"));
  EXPECT_EQ(published->manifest->head().at("version"), 1);
  EXPECT_EQ(published->members.find("m/a.bin")->size_bytes, 5);
  EXPECT_EQ(dir.read("manifest.json"), bytes);
  EXPECT_EQ(load_active_cohort(dir.path(), true), published);  // the same bytes are not parsed again
}

TEST_F(LocalCohortTest, ARememberedSelectionNeverHidesADamagedGeneration) {
  const std::string bytes = manifest(1);
  stage(bytes);
  const auto published = publish_manifest(dir.path(), bytes);
  Document record = parse_json(completion(bytes).bytes);
  record["active_relative_paths"] = {"m/a.bin"};
  dir.write(in_generation(bytes, COHORT_COMPLETION_FILE), dump_json(record));
  EXPECT_THAT(load_active_cohort(dir.path(), true)->members.active_relative_paths, ElementsAre("m/a.bin"));
  dir.remove(in_generation(bytes, COHORT_MANIFEST_FILE));
  EXPECT_THROW(load_active_cohort(dir.path(), true), LocalCohortError);
}

TEST_F(LocalCohortTest, IsCompleteOnlyWhenBothFilesAgreeWithTheName) {
  struct Case {
    const char* label;
    const char* file;
    std::optional<std::string> content;  // absent: the file is removed
  };
  // The two files of a large generation are read side by side.
  for (const std::size_t blanks : {std::size_t{0}, WORTH_A_THREAD_BYTES}) {
    const std::string bytes = manifest(1) + std::string(blanks, ' ');
    for (const auto& c :
         std::vector<Case>{{"no manifest file", COHORT_MANIFEST_FILE, {}},
                           {"another manifest", COHORT_MANIFEST_FILE, manifest(2)},
                           {"cut manifest", COHORT_MANIFEST_FILE, bytes.substr(0, bytes.size() - 1)},
                           {"no completion", COHORT_COMPLETION_FILE, {}},
                           {"empty completion", COHORT_COMPLETION_FILE, ""},
                           {"of another manifest", COHORT_COMPLETION_FILE, completion(manifest(2)).bytes}}) {
      SCOPED_TRACE(c.label);
      dir.remove(COHORTS_DIRECTORY);
      stage(bytes);
      c.content ? dir.write(in_generation(bytes, c.file), *c.content)
                : dir.remove(in_generation(bytes, c.file));
      EXPECT_THROW(publish_manifest(dir.path(), bytes), LocalCohortError);
      EXPECT_FALSE(dir.has("manifest.json"));
      dir.write("manifest.json", bytes);
      EXPECT_THROW(load_active_cohort(dir.path(), false), LocalCohortError);
      EXPECT_THROW(pin_active_cohort(dir.path()), LocalCohortError);
      dir.remove("manifest.json");
    }
  }
}

// A record in the form that is written is read directly; the same faults must be found there as in any other
// form.
TEST_F(LocalCohortTest, ReadsARecordOfItsOwnFormAsItReadsAnyOther) {
  const std::string bytes = manifest(1);
  const auto parsed = [&](const std::string& record) {
    return parse_completion_record(record, sha256_hex(bytes), bytes.size());
  };
  const std::string own = completion(bytes).bytes;
  const CompletedMembers members = parsed(own);
  EXPECT_THAT(members.active_relative_paths, ElementsAre("m/a.bin", "snapshot"));
  EXPECT_EQ(members.find("m/a.bin")->sha256, sha256_hex("bytes"));
  EXPECT_EQ(members.find("m/a.bin")->size_bytes, 5);
  EXPECT_EQ(members.find("m/b.bin"), nullptr);
  const CompletedMembers other = parsed(dump_json(parse_json(own)));
  EXPECT_EQ(other.active_relative_paths, members.active_relative_paths);
  EXPECT_EQ(*other.text, own.substr(0, own.find(",\"derived")));  // the same identities

  const auto replaced = [&](const std::string& what, const std::string& by) {
    std::string record = own;
    return record.replace(record.find(what), what.size(), by);
  };
  const std::string digest = sha256_hex("bytes");
  for (const auto& broken :
       {replaced("\"snapshot\"]", "\"else\"]"), replaced("\"snapshot\"]", "1]"),
        replaced("\"snapshot\":{\"sha", "\"m/a.bin\":{\"sha"),
        replaced("{\"active", "{\"derived_artifacts\":{},\"active"),
        replaced(",\"derived", ",\"active_relative_paths\":[],\"derived"), replaced(":5}", ":-5}"),
        replaced(":5}", ":05}"), replaced(":5}", ":5.5}"), replaced("\"m/a.bin\":{", "\"../a\":{"),
        replaced(digest, digest.substr(1)), replaced("\"schema_version\":1", "\"schema_version\":2"),
        replaced("\"schema_version\":1", "\"schema_version\":true"),
        replaced("\"schema_version\":1", "\"schema_version\":1.0"),
        replaced("\"manifest_size_bytes\":", "\"manifest_size_bytes\":1"),
        replaced("\"manifest_size_bytes\"", "\"no_size\""),
        replaced("\"derived_artifacts\"", "\"no_artifacts\""), own + "}", own.substr(0, own.size() / 2),
        std::string("[]")}) {
    EXPECT_THROW(parsed(broken), ValueError) << broken;
  }
}

TEST_F(LocalCohortTest, ASelectorWithoutAGenerationAndACorruptOneDiffer) {
  dir.write("manifest.json", manifest(1));
  EXPECT_THROW(load_active_cohort(dir.path(), false), LocalCohortError);
  dir.write("manifest.json", "{\"version\": 1");
  EXPECT_THROW(load_active_cohort(dir.path(), false), ManifestJsonError);
  EXPECT_EQ(read_selector_bytes(dir.path()), "{\"version\": 1");
  dir.write("manifest.json", "{\"version\": 1" + std::string(WORTH_A_THREAD_BYTES, ' '));
  EXPECT_THROW(load_active_cohort(dir.path(), false), ManifestJsonError);
  dir.write("manifest.json", "[]");
  EXPECT_THROW(load_active_cohort(dir.path(), true), LocalCohortError);

  // A generation behind a link was not made here: it does not count, wherever the link leads.
  const std::string bytes = manifest(1);
  const std::string root = stage(bytes);
  dir.write("manifest.json", bytes);
  testing::fs::rename(root, dir.path("elsewhere"));
  testing::fs::create_directory_symlink(dir.path("elsewhere"), root);
  EXPECT_THROW(load_active_cohort(dir.path(), false), LocalCohortError);
  dir.remove("manifest.json");
  testing::fs::create_symlink(root + "/" + COHORT_MANIFEST_FILE, dir.path("manifest.json"));
  EXPECT_THROW(load_active_cohort(dir.path(), false), LocalCohortError);
  EXPECT_THROW(pin_active_cohort(dir.path()), LocalCohortError);
  EXPECT_EQ(read_selector_bytes(dir.path()), std::nullopt);
}

TEST_F(LocalCohortTest, FlushesEverythingBeforeTheSelectorMoves) {
  std::vector<std::string> steps;
  bool moved = false;
  disk_calls().flush_file_system = [&](int descriptor) {
    steps.push_back("flush file system");
    return DiskCalls::real().flush_file_system(descriptor);
  };
  disk_calls().flush_file = [&](int descriptor) {
    steps.push_back(moved ? "flush directory" : "flush selector");
    return DiskCalls::real().flush_file(descriptor);
  };
  disk_calls().rename = [&](int from_directory, const char* from, int to_directory, const char* to,
                            unsigned flags) {
    EXPECT_STREQ(to, "manifest.json");
    moved = true;
    steps.push_back("rename");
    return DiskCalls::real().rename(from_directory, from, to_directory, to, flags);
  };
  const auto calls = std::exchange(disk_calls(), DiskCalls::real());
  stage(manifest(1));
  disk_calls() = calls;
  publish_manifest(dir.path(), manifest(1));
  EXPECT_THAT(steps, ElementsAre("flush file system", "flush selector", "rename", "flush directory"));
}

TEST_F(LocalCohortTest, AFailureBeforeTheRenameKeepsTheOldSelection) {
  stage(manifest(1));
  publish_manifest(dir.path(), manifest(1));
  stage(manifest(2));
  const auto fails = [](auto&&...) { return errno = EIO, -1; };
  const std::vector<std::function<void()>> failures = {[&] { disk_calls().flush_file_system = fails; },
                                                       [&] { disk_calls().flush_file = fails; },
                                                       [&] { disk_calls().rename = fails; }};
  for (const auto& let_fail : failures) {
    let_fail();
    EXPECT_THROW(publish_manifest(dir.path(), manifest(2)), OSError);
    disk_calls() = DiskCalls::real();
    EXPECT_EQ(*load_active_cohort(dir.path(), true)->manifest_bytes, manifest(1));
  }
  for (const auto& file : testing::files_below(dir)) EXPECT_FALSE(file.ends_with(".tmp")) << file;
}

TEST_F(LocalCohortTest, AFailureAfterTheRenameIsLogged) {
  stage(manifest(1));
  bool moved = false;
  disk_calls().rename = [&](auto... arguments) {
    moved = true;
    return DiskCalls::real().rename(arguments...);
  };
  disk_calls().flush_file = [&](int) { return moved ? (errno = EIO, -1) : 0; };
  const testing::LogCapture log;
  EXPECT_EQ(*publish_manifest(dir.path(), manifest(1))->manifest_bytes, manifest(1));
  EXPECT_THAT(log.lines(LogLevel::warning),
              ElementsAre(HasSubstr("could not be flushed: Input/output error")));
}

TEST_F(LocalCohortTest, APinShowsOneGenerationAndLocksIt) {
  const std::string root = stage(manifest(1));
  publish_manifest(dir.path(), manifest(1));
  const PinnedRoot collector(root);
  {
    const Pin pin = pin_active_cohort(dir.path());
    EXPECT_NE(::flock(collector.descriptor(), LOCK_EX | LOCK_NB), 0);
    const Pin another = pin_active_cohort(dir.path());
    stage(manifest(2));
    publish_manifest(dir.path(), manifest(2));
    EXPECT_EQ(*pin.selection->manifest_bytes, manifest(1));
    EXPECT_EQ(pin.root.read_regular_file("m/a.bin", "member"), "bytes");
    EXPECT_EQ(*pin_active_cohort(dir.path()).selection->manifest_bytes, manifest(2));
  }
  EXPECT_EQ(::flock(collector.descriptor(), LOCK_EX | LOCK_NB), 0);
}

TEST_F(LocalCohortTest, APinFollowsASelectorThatMovesWhileItIsTaken) {
  stage(manifest(1));
  stage(manifest(2));
  publish_manifest(dir.path(), manifest(1));
  bool moved = false;
  disk_calls().lock = [&](int descriptor, int operation) {
    if (!std::exchange(moved, true)) publish_manifest(dir.path(), manifest(2));
    return DiskCalls::real().lock(descriptor, operation);
  };
  const Pin pin = pin_active_cohort(dir.path());
  EXPECT_EQ(*pin.selection->manifest_bytes, manifest(2));
  EXPECT_EQ(pin.root.path(), pin.selection->root_dir);
}

TEST_F(LocalCohortTest, VerifiesMembersAgainstTheirRecordedIdentity) {
  const std::string root = stage(manifest(1));
  publish_manifest(dir.path(), manifest(1));
  const Pin pin = pin_active_cohort(dir.path());
  EXPECT_NO_THROW(pin.verify_manifest_file_identity("m/a.bin", "artifact"));
  EXPECT_NO_THROW(pin.verify_manifest_file_identity("snapshot", "artifact"));  // not in the manifest
  EXPECT_THROW(pin.verify_manifest_file_identity("m/other", "artifact"), LocalCohortError);
  const std::string member = in_generation(manifest(1), "m/a.bin");
  dir.write(member, "other");
  EXPECT_THROW(pin.verify_manifest_file_identity("m/a.bin", "artifact"), ValueError);
  dir.write(member, "longer than it was");
  EXPECT_THROW(pin.verify_manifest_file_identity("m/a.bin", "artifact"), ValueError);
  dir.remove(member);
  EXPECT_THROW(pin.verify_manifest_file_identity("m/a.bin", "artifact"), FileNotFoundError);
}

TEST_F(LocalCohortTest, RefusesToBuildARecordThatCouldNotBeReadBack) {
  const std::string sha = sha256_hex("");
  EXPECT_THROW(build_completion_payload("{}", {"a"}, {}, {}), ValueError);
  EXPECT_THROW(build_completion_payload("{}", {}, {{"../a", {sha, 0}}}, {}), ValueError);
  EXPECT_THROW(build_completion_payload("{}", {}, {{"a", {"short", 0}}}, {}), ValueError);
  EXPECT_EQ(build_completion_payload("{}", {"a"}, {{"a", {sha, 0}}}, {}).bytes,
            "{\"active_relative_paths\":[\"a\"],\"artifact_identities\":{\"a\":{\"sha256\":\"" + sha +
                "\",\"size_bytes\":0}},\"derived_artifacts\":{},\"manifest_sha256\":\"" + sha256_hex("{}") +
                "\",\"manifest_size_bytes\":2,\"schema_version\":1}");
}

}  // namespace
}  // namespace tidalcrest::sync::local_cohort
