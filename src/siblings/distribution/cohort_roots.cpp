#include "siblings/distribution/cohort_roots.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <optional>

#include "host/descriptor.hpp"
#include "host/digest.hpp"
#include "host/failures.hpp"
#include "host/local_path.hpp"
#include "siblings/distribution/cohort_layout.hpp"
#include "siblings/distribution/file_stat.hpp"
#include "siblings/distribution/pinned_root.hpp"

namespace tidalcrest::sync::local_cohort {
namespace {

namespace fs = std::filesystem;

std::int64_t modified_ns(const struct stat& status) { return client_manifest::file_stat_of(status).mtime_ns; }

std::optional<struct stat> regular_file_status(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return status;
}

std::optional<CohortRootKind> kind_by_name(const std::string& name) {
  if (name.starts_with(REPAIR_ROOT_PREFIX)) return CohortRootKind::repair;
  if (name.starts_with(LEFTOVER_ROOT_PREFIX)) return CohortRootKind::leftover;
  if (name.starts_with(REMOVED_ROOT_PREFIX)) return CohortRootKind::removed;
  if (is_sha256_text(name)) return CohortRootKind::incomplete;
  return std::nullopt;
}

std::optional<CohortRoot> root_at(const std::string& cohorts, const std::string& name) {
  const auto kind = kind_by_name(name);
  const std::string path = join_path(cohorts, name);
  struct stat status {};
  if (!kind || ::lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return std::nullopt;
  CohortRoot root{.name = name,
                  .relative_path = std::string(COHORTS_DIRECTORY) + "/" + name,
                  .path = path,
                  .kind = *kind,
                  .changed_ns = modified_ns(status)};
  if (root.kind != CohortRootKind::incomplete) return root;
  const auto completion = regular_file_status(join_path(path, COHORT_COMPLETION_FILE));
  if (completion && regular_file_status(join_path(path, COHORT_MANIFEST_FILE))) {
    root.kind = CohortRootKind::complete;
    root.changed_ns = modified_ns(*completion);
  }
  return root;
}

}  // namespace

std::vector<CohortRoot> list_cohort_roots(const std::string& data_dir) {
  const std::string cohorts = join_path(absolute_path(data_dir), COHORTS_DIRECTORY);
  std::vector<CohortRoot> roots;
  std::error_code failure;
  fs::directory_iterator entry(cohorts, failure);
  if (failure == std::errc::no_such_file_or_directory) return roots;
  for (const fs::directory_iterator end; !failure && entry != end; entry.increment(failure)) {
    if (auto root = root_at(cohorts, entry->path().filename().string())) roots.push_back(std::move(*root));
  }
  if (failure) throw_os_error(failure.value(), cohorts);
  std::sort(roots.begin(), roots.end(), [](const CohortRoot& a, const CohortRoot& b) {
    return a.changed_ns != b.changed_ns ? a.changed_ns > b.changed_ns : a.name < b.name;
  });
  return roots;
}

TreeMeasure measure_tree(const std::string& path) {
  TreeMeasure measure;
  std::error_code ignored;  // an entry that vanishes meanwhile counts as nothing
  for (fs::recursive_directory_iterator entry(path, ignored), end; entry != end; entry.increment(ignored)) {
    struct stat status {};
    if (::lstat(entry->path().c_str(), &status) != 0) continue;
    if (S_ISREG(status.st_mode)) measure.bytes += status.st_size;
    measure.newest_ns = std::max(measure.newest_ns, modified_ns(status));
  }
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0)
    measure.newest_ns = std::max(measure.newest_ns, modified_ns(status));
  return measure;
}

bool is_pinned(const CohortRoot& root) {
  const Descriptor directory(::open(root.path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory) throw_os_error(errno, root.path);
  if (::flock(directory.get(), LOCK_EX | LOCK_NB) == 0) return false;
  if (errno == EWOULDBLOCK) return true;
  throw_os_error(errno, root.path);
}

void rename_cohort_root(const std::string& data_dir, const std::string& from_name,
                        const std::string& to_name) {
  const std::string path = join_path(absolute_path(data_dir), COHORTS_DIRECTORY);
  const client_manifest::PinnedRoot cohorts(path);
  if (::renameat(cohorts.descriptor(), from_name.c_str(), cohorts.descriptor(), to_name.c_str()) != 0) {
    throw_os_error(errno, join_path(path, from_name));
  }
}

}  // namespace tidalcrest::sync::local_cohort
