#include "cohort/leftovers.hpp"

#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "cohort/earlier_roots.hpp"
#include "host/log.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/local_cohort.hpp"
#include "siblings/distribution/pinned_root.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

using local_cohort::CohortRoot;

// Relative path and size.
using Member = std::pair<std::string, std::uintmax_t>;

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

// Takes in one root after the other, newest first, and leaves one copy of each member of a manifest: in the
// newest root that was for it. Members of different manifests are different, even of one path and size.
class Gathering {
 public:
  explicit Gathering(const std::string& data_dir) : _data_dir(data_dir) {}

  void take_in(const CohortRoot& root) {
    const std::string manifest = staged_manifest_sha256(root).value_or("");
    const auto home = manifest.empty() ? _home_of_manifest.end() : _home_of_manifest.find(manifest);
    auto& seen = _seen_of_manifest[manifest];
    bool keeps_some = false;
    for (const auto& member : brought_members(root.path)) {
      const bool is_a_copy = !seen.insert(member).second;
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
  // By the digest of a manifest; empty where it is not known.
  std::map<std::string, std::set<Member>> _seen_of_manifest;
  std::map<std::string, std::string> _home_of_manifest;  // the path of a root
};

}  // namespace

void thin_out_earlier_attempts(const std::string& data_dir, const StagingRoots& roots) {
  Gathering gathering(data_dir);
  for (const auto& [root, unfinished] : earlier_roots(data_dir, roots)) {
    if (unfinished) gathering.take_in(root);
  }
}

}  // namespace tidalcrest::sync
