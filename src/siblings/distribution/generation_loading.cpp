#include "siblings/distribution/generation_loading.hpp"

#include <fmt/format.h>

#include <map>

#include "host/mutex.hpp"
#include "siblings/distribution/contained_open.hpp"
#include "siblings/distribution/parsed_manifests.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::local_cohort {
namespace {

using client_manifest::PinnedRoot;

constexpr const char* COMPLETION_LABEL = "local cohort completion record";

/// What a living selection was parsed from. Parsing a large manifest costs a hundred times what comparing its
/// bytes does, and readers load the same cohort again and again; equal bytes give the same selection.
class ParsedSelections {
 public:
  std::shared_ptr<const Selection> find(const std::string& base_dir, const std::string& manifest_bytes) {
    const MutexLock lock(_mutex);
    const auto known = _by_base_dir.find(base_dir);
    if (known == _by_base_dir.end()) return nullptr;
    auto selection = known->second.lock();
    return selection && selection->manifest_bytes == manifest_bytes ? selection : nullptr;
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
  static ParsedSelections selections;
  return selections;
}

[[noreturn]] void refuse(const std::string& root_dir, const std::string& reason) {
  throw LocalCohortError(fmt::format("local cohort generation {} is not complete: {}", root_dir, reason));
}

std::shared_ptr<const Document> parse_manifest(const std::string& manifest_bytes, const std::string& sha256,
                                               const std::string& root_dir) {
  try {
    return client_manifest::shared_manifest_document(manifest_bytes, sha256, "local cohort manifest.json");
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
  std::string manifest_bytes;
  client_manifest::FileStat completion_stat;
  std::string completion_bytes;
};

GenerationFiles read_generation_files(const PinnedRoot& base, const std::string& relative_root) {
  PinnedRoot root(base, relative_root);
  std::string manifest_bytes = root.read_regular_file(COHORT_MANIFEST_FILE, "local cohort manifest");
  // Before the reading: a record that is replaced in between must not pass for the one that was read.
  const auto completion_stat = root.stat_regular_file(COHORT_COMPLETION_FILE, COMPLETION_LABEL);
  std::string completion_bytes = root.read_regular_file(COHORT_COMPLETION_FILE, COMPLETION_LABEL);
  return {std::move(root), std::move(manifest_bytes), completion_stat, std::move(completion_bytes)};
}

CompletedMembers parse_completion(std::string completion_bytes, const Selection& selection,
                                  const std::string& sha256) {
  try {
    return parse_completion_record(std::move(completion_bytes), sha256, selection.manifest_bytes.size());
  } catch (const ValueError& failure) {
    refuse(selection.root_dir, failure.what());
  }
}

}  // namespace

LoadedGeneration load_generation(const PinnedRoot& base, const std::string& manifest_bytes) {
  auto known = parsed_selections().find(base.path(), manifest_bytes);
  const std::string relative_root =
      known ? known->root_dir.substr(base.path().size() + 1) : generation_relative_root(manifest_bytes);
  auto selection = std::make_shared<Selection>();
  selection->base_dir = base.path();
  selection->root_dir = base.display_path(relative_root);
  const std::string sha256 = relative_root.substr(relative_root.rfind('/') + 1);
  selection->manifest = known ? known->manifest : parse_manifest(manifest_bytes, sha256, selection->root_dir);

  GenerationFiles files =
      look_at_generation(selection->root_dir, [&] { return read_generation_files(base, relative_root); });
  if (files.manifest_bytes != manifest_bytes) {
    refuse(selection->root_dir, "its manifest file does not hold the bytes that name it");
  }
  if (known && *known->members.record == files.completion_bytes)
    return {std::move(known), std::move(files.root)};
  selection->manifest_bytes = std::move(files.manifest_bytes);
  selection->completion_stat = files.completion_stat;
  selection->members = parse_completion(std::move(files.completion_bytes), *selection, sha256);
  parsed_selections().remember(selection);
  return {std::move(selection), std::move(files.root)};
}

}  // namespace tidalcrest::sync::local_cohort
