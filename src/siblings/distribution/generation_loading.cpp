#include "siblings/distribution/generation_loading.hpp"

#include <fmt/format.h>

#include <map>
#include <optional>

#include "host/mutex.hpp"
#include "host/never_destroyed.hpp"
#include "host/parallel.hpp"
#include "siblings/distribution/contained_open.hpp"
#include "siblings/distribution/parsed_manifests.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::local_cohort {
namespace {

using client_manifest::PinnedRoot;

/// The living selections. Parsing a large manifest costs many times what comparing its bytes does, and
/// readers load the same cohort again and again; the same two files give the same selection.
class ParsedSelections {
 public:
  std::shared_ptr<const Selection> find(const std::string& base_dir) {
    const MutexLock lock(_mutex);
    const auto known = _by_base_dir.find(base_dir);
    return known == _by_base_dir.end() ? nullptr : known->second.lock();
  }
  void remember(const std::shared_ptr<const Selection>& selection) {
    const MutexLock lock(_mutex);
    std::erase_if(_by_base_dir, [](const auto& entry) { return entry.second.expired(); });
    _by_base_dir[selection->base_dir] = selection;
  }

 private:
  Mutex _mutex;  // a leaf
  std::map<std::string, std::weak_ptr<const Selection>> _by_base_dir GUARDED_BY(_mutex);
};

ParsedSelections& parsed_selections() {
  static ParsedSelections& selections = never_destroyed<ParsedSelections>();
  return selections;
}

using SharedText = std::shared_ptr<const std::string>;

[[noreturn]] void refuse(const std::string& root_dir, const std::string& reason) {
  throw LocalCohortError(fmt::format("local cohort generation {} is not complete: {}", root_dir, reason));
}

SharedManifest parse_manifest(const SharedText& manifest_bytes, const std::string& sha256,
                              const std::string& root_dir) {
  try {
    return client_manifest::shared_manifest(manifest_bytes, sha256, "local cohort manifest.json");
  } catch (const ManifestJsonError&) {
    throw;
  } catch (const ValueError& failure) {
    refuse(root_dir, failure.what());
  } catch (const TypeError& failure) {
    refuse(root_dir, failure.what());
  }
}

// Runs one look at the generation. What is missing there, or is no plain file, makes it incomplete; a disk
// that fails says nothing about the generation and stays an `OSError`.
template <class Look>
auto look_at_generation(const std::string& root_dir, const Look& look) {
  try {
    return look();
  } catch (const OSError& failure) {
    if (!client_manifest::means_wrong_or_missing_file(failure.error_number())) throw;
    refuse(root_dir, failure.what());
  }
}

struct GenerationFiles {
  PinnedRoot root;
  client_manifest::FileStat manifest_stat;
  bool has_its_manifest;
  client_manifest::FileStat completion_stat;
  std::string completion_bytes;
};

// The stats come before the reading: a file that is replaced in between must not pass for the one that was
// read.
GenerationFiles read_generation_files(const PinnedRoot& base, const std::string& relative_root,
                                      std::string_view manifest_bytes) {
  PinnedRoot root(base, relative_root);
  const auto manifest_stat = root.stat_regular_file(COHORT_MANIFEST_FILE, MANIFEST_LABEL);
  const bool has_its_manifest = root.holds_exactly(COHORT_MANIFEST_FILE, manifest_bytes, MANIFEST_LABEL);
  const auto completion_stat = root.stat_regular_file(COHORT_COMPLETION_FILE, COMPLETION_LABEL);
  std::string completion_bytes = root.read_regular_file(COHORT_COMPLETION_FILE, COMPLETION_LABEL);
  return {std::move(root), manifest_stat, has_its_manifest, completion_stat, std::move(completion_bytes)};
}

// What was read there holds while both files are still the ones that were read.
bool is_as_read(const PinnedRoot& root, const Selection& known) {
  return root.stat_regular_file(COHORT_MANIFEST_FILE, MANIFEST_LABEL) == known.manifest_stat &&
         root.stat_regular_file(COHORT_COMPLETION_FILE, COMPLETION_LABEL) == known.completion_stat;
}

CompletedMembers parse_completion(std::string completion_bytes, const std::string& root_dir,
                                  const std::string& sha256, std::size_t manifest_size_bytes) {
  try {
    return parse_completion_record(std::move(completion_bytes), sha256, manifest_size_bytes);
  } catch (const ValueError& failure) {
    refuse(root_dir, failure.what());
  }
}

// `known` is a selection of the same bytes, or null.
LoadedGeneration read_generation(const PinnedRoot& base, SharedText manifest_bytes,
                                 const std::string& relative_root,
                                 const std::shared_ptr<const Selection>& known) {
  const std::string root_dir = base.display_path(relative_root);
  const std::string sha256 = relative_root.substr(relative_root.rfind('/') + 1);
  SharedManifest manifest;
  std::optional<GenerationFiles> files;
  CompletedMembers members;
  const auto parse_the_manifest = [&] { manifest = parse_manifest(manifest_bytes, sha256, root_dir); };
  const auto read_the_record = [&] {
    files.emplace(look_at_generation(
        root_dir, [&] { return read_generation_files(base, relative_root, *manifest_bytes); }));
    if (!files->has_its_manifest) refuse(root_dir, "its manifest file does not hold the bytes that name it");
    const bool same_record = known && *known->members.record == files->completion_bytes;
    members = same_record ? known->members
                          : parse_completion(std::move(files->completion_bytes), root_dir, sha256,
                                             manifest_bytes->size());
  };
  // Of two failures the manifest's is told, as if the parts followed each other.
  const std::size_t workers = !known && manifest_bytes->size() >= WORTH_A_THREAD_BYTES ? 2 : 1;
  parallel_in_order(2, workers,
                    [&](std::size_t part) { part == 0 ? parse_the_manifest() : read_the_record(); });

  // One memory for the text, wherever it came from.
  if (manifest->text()) manifest_bytes = manifest->text();
  auto selection = std::make_shared<const Selection>(
      Selection{base.path(), root_dir, std::move(manifest_bytes), std::move(manifest), std::move(members),
                files->manifest_stat, files->completion_stat});
  parsed_selections().remember(selection);
  return {std::move(selection), std::move(files->root)};
}

}  // namespace

std::shared_ptr<const Selection> living_selection(const PinnedRoot& base) {
  return parsed_selections().find(base.path());
}

LoadedGeneration load_generation(const PinnedRoot& base, std::string manifest_bytes) {
  auto known = living_selection(base);
  if (known && *known->manifest_bytes == manifest_bytes) return reload_generation(base, std::move(known));
  const std::string relative_root = generation_relative_root(manifest_bytes);
  return read_generation(base, std::make_shared<const std::string>(std::move(manifest_bytes)), relative_root,
                         nullptr);
}

LoadedGeneration reload_generation(const PinnedRoot& base, std::shared_ptr<const Selection> known) {
  const std::string relative_root = known->root_dir.substr(base.path().size() + 1);
  auto root = look_at_generation(known->root_dir, [&] { return PinnedRoot(base, relative_root); });
  if (look_at_generation(known->root_dir, [&] { return is_as_read(root, *known); }))
    return {std::move(known), std::move(root)};
  return read_generation(base, known->manifest_bytes, relative_root, known);
}

}  // namespace tidalcrest::sync::local_cohort
