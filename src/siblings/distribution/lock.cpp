#include "siblings/distribution/lock.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>

#include <cerrno>
#include <set>
#include <utility>

#include "host/failures.hpp"
#include "host/mutex.hpp"
#include "host/never_destroyed.hpp"
#include "siblings/distribution/cohort_layout.hpp"
#include "siblings/distribution/contained_open.hpp"
#include "siblings/distribution/disk_calls.hpp"
#include "siblings/distribution/file_lock.hpp"
#include "siblings/distribution/file_stat.hpp"
#include "siblings/distribution/pinned_root.hpp"

namespace tidalcrest::sync {
namespace {

using client_manifest::FileStat;
using client_manifest::PinnedRoot;

Descriptor open_lock_file(const PinnedRoot& root) {
  return Descriptor(root.open_regular_file_for_update(local_cohort::DISTRIBUTION_LOCK_FILE).detach());
}

FileStat stat_of(const Descriptor& file, const std::string& what) {
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) throw_os_error(errno, what);
  return client_manifest::file_stat_of(status);
}

// A lock on a file that was removed or replaced meanwhile excludes nobody who comes later.
bool is_still_the_lock_file(const PinnedRoot& root, const Descriptor& file, const std::string& what) {
  try {
    const FileStat named = root.stat_regular_file(local_cohort::DISTRIBUTION_LOCK_FILE, what);
    const FileStat held = stat_of(file, what);
    return named.device == held.device && named.inode == held.inode;
  } catch (const FileNotFoundError&) {
    return false;
  }
}

// Some file systems grant every lock. With one lock held, shared or exclusive, nobody can get it exclusively:
// tried on a second description, once per lock file and process.
void require_exclusion(const PinnedRoot& root, const Descriptor& held, const std::string& what) {
  using DeviceAndInode = std::pair<std::int64_t, std::int64_t>;
  static Mutex mutex;
  static auto& proven GUARDED_BY(mutex) = never_destroyed<std::set<DeviceAndInode>>();
  const FileStat lock_file = stat_of(held, what);
  const MutexLock guard(mutex);
  const DeviceAndInode key(lock_file.device, lock_file.inode);
  if (proven.contains(key)) return;
  const Descriptor second = open_lock_file(root);
  if (disk_calls().lock(second.get(), LOCK_EX | LOCK_NB) == 0) {
    throw OSError(
        fmt::format("{}: the file system of {} grants one lock twice; the directory cannot be shared safely",
                    what, root.path()));
  }
  if (errno != EWOULDBLOCK) throw_os_error(errno, what);
  proven.insert(key);
}

}  // namespace

DistributionLock& DistributionLock::operator=(DistributionLock&& other) noexcept {
  if (this != &other) {
    close();
    _descriptor = std::move(other._descriptor);
  }
  return *this;
}

DistributionLock::~DistributionLock() { close(); }

// Unlocked before it is closed: a child process between fork and exec may still hold the description.
void DistributionLock::release() {
  if (!_descriptor) return;
  const Descriptor closing = std::move(_descriptor);
  if (disk_calls().lock(closing.get(), LOCK_UN) != 0)
    throw_os_error(errno, "release of the distribution lock");
}

void DistributionLock::close() {
  if (!_descriptor) return;
  const Descriptor closing = std::move(_descriptor);
  disk_calls().lock(closing.get(), LOCK_UN);
}

DistributionLock acquire_distribution_lock(const std::string& data_dir, bool exclusive) {
  const PinnedRoot root(data_dir);
  const std::string what =
      fmt::format("the {} distribution lock of {}", exclusive ? "exclusive" : "shared", root.path());
  while (true) {
    Descriptor file = open_lock_file(root);
    lock_opened_file(file.get(), exclusive, what);
    if (!is_still_the_lock_file(root, file, what)) continue;
    require_exclusion(root, file, what);
    return DistributionLock(file.release());
  }
}

bool distribution_lock_is_busy(const std::string& data_dir) {
  const PinnedRoot root(data_dir);
  const std::string path = local_cohort::DISTRIBUTION_LOCK_FILE;
  Descriptor file(client_manifest::open_beneath(root.descriptor(), path, O_RDONLY | O_NONBLOCK));
  if (!file) {
    if (client_manifest::means_wrong_or_missing_file(errno)) return false;
    throw_os_error(errno, root.display_path(path));
  }
  if (disk_calls().lock(file.get(), LOCK_SH | LOCK_NB) == 0) {
    DistributionLock(file.release()).close();
    return false;
  }
  if (errno != EWOULDBLOCK) throw_os_error(errno, root.display_path(path));
  return true;
}

}  // namespace tidalcrest::sync
