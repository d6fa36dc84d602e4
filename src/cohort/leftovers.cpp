#include "cohort/leftovers.hpp"

#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "host/local_path.hpp"
#include "host/log.hpp"
#include "siblings/distribution/cohort_roots.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/local_cohort.hpp"
#include "siblings/distribution/pinned_root.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

using local_cohort::CohortRoot;
using local_cohort::CohortRootKind;

// Relative path and size.
using Member = std::pair<std::string, std::uintmax_t>;

std::vector<CohortRoot> unfinished_roots(const std::string& data_dir, const StagingRoots& roots) {
  const auto selector = local_cohort::read_selector_bytes(data_dir);
  const std::string selected = selector ? local_cohort::generation_relative_root(*selector) : std::string();
  std::vector<CohortRoot> unfinished;
  for (auto& root : local_cohort::list_cohort_roots(data_dir)) {
    const bool in_use = root.relative_path == selected || root.path == absolute_path(roots.active_root) ||
                        root.path == absolute_path(roots.candidate_root);
    if (root.kind != CohortRootKind::complete && !in_use) unfinished.push_back(std::move(root));
  }
  return unfinished;
}

// Every regular file but the root's own two.
std::vector<Member> brought_members(const std::string& root) {
  namespace fs = std::filesystem;
  std::vector<Member> members;
  std::error_code ignored;  // what cannot be listed is nothing that could be taken over
  for (fs::recursive_directory_iterator entry(root, ignored), end; entry != end; entry.increment(ignored)) {
    const std::string path = entry->path().lexically_relative(root).generic_string();
    if (path == local_cohort::COHORT_MANIFEST_FILE || path == local_cohort::COHORT_COMPLETION_FILE) continue;
    if (entry->symlink_status(ignored).type() != fs::file_type::regular) continue;
    members.emplace_back(path, entry->file_size(ignored));
  }
  return members;
}

// What a staging was for; it keeps its manifest beside its members from the start. Empty when that is not
// known.
std::string manifest_of(const CohortRoot& root) {
  try {
    return client_manifest::PinnedRoot(root.path)
        .read_regular_file_if_present(local_cohort::COHORT_MANIFEST_FILE, "manifest of an earlier staging")
        .value_or("");
  } catch (const OSError&) {
    return "";
  }
}

template <class Step>
bool succeeds(const std::string& path, const Step& step) {
  try {
    step();
    return true;
  } catch (const std::exception& failure) {
    log::debug("best-effort clearing of the leftover %s failed: %s", path, failure.what());
    return false;
  }
}

// Takes in one root after the other, newest first, and leaves one copy of each member: in the newest root
// that was for the same manifest.
class Gathering {
 public:
  explicit Gathering(const std::string& data_dir) : _data_dir(data_dir) {}

  void take_in(const CohortRoot& root) {
    const std::string manifest = manifest_of(root);
    const auto home = manifest.empty() ? _home_of_manifest.end() : _home_of_manifest.find(manifest);
    bool keeps_some = false;
    for (const auto& member : brought_members(root.path)) {
      const bool is_a_copy = !_seen.insert(member).second;
      const bool gone = is_a_copy                         ? removed(root, member.first)
                        : home != _home_of_manifest.end() ? moved(root, member.first, home->second)
                                                          : false;
      keeps_some = keeps_some || !gone;
    }
    if (keeps_some) {
      _home_of_manifest.emplace(manifest, root.path);
    } else {
      remove(root);
    }
  }

 private:
  static bool removed(const CohortRoot& root, const std::string& path) {
    return succeeds(root.path + "/" + path, [&] {
      client_manifest::PinnedRoot(root.path).remove_regular_file(path, /*missing_ok=*/true);
    });
  }
  static bool moved(const CohortRoot& root, const std::string& path, const std::string& home) {
    return succeeds(root.path + "/" + path,
                    [&] { client_manifest::move_contained_regular_file(root.path, path, home, path); });
  }
  void remove(const CohortRoot& root) const {
    succeeds(root.path, [&] {
      client_manifest::remove_contained_directory_tree(_data_dir, root.relative_path, /*missing_ok=*/true);
    });
  }

  const std::string& _data_dir;
  std::set<Member> _seen;
  std::map<std::string, std::string> _home_of_manifest;  // the path of a root
};

}  // namespace

void thin_out_earlier_attempts(const std::string& data_dir, const StagingRoots& roots) {
  Gathering gathering(data_dir);
  for (const auto& root : unfinished_roots(data_dir, roots)) gathering.take_in(root);
}

}  // namespace tidalcrest::sync
