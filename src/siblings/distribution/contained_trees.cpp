// Removal of whole trees and sweeps over them. Every step goes from one directory descriptor to the next
// without following a link, so a tree that is changed under the walk can make it miss entries but never leave
// the root.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/failures.hpp"
#include "siblings/distribution/cohort_layout.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/contained_open.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

enum class EntryKind { regular, directory, other };
struct Entry {
  std::string name;
  EntryKind kind;
};

struct CloseDirectory {
  void operator()(DIR* stream) const noexcept { ::closedir(stream); }
};

EntryKind kind_of(int directory, const dirent& entry) noexcept {
  switch (entry.d_type) {
    case DT_REG:
      return EntryKind::regular;
    case DT_DIR:
      return EntryKind::directory;
    case DT_UNKNOWN:
      break;
    default:
      return EntryKind::other;
  }
  struct stat status {};
  if (::fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) return EntryKind::other;
  if (S_ISREG(status.st_mode)) return EntryKind::regular;
  return S_ISDIR(status.st_mode) ? EntryKind::directory : EntryKind::other;
}

bool any_entry(std::string_view, EntryKind) { return true; }

// The whole listing at once: what is removed afterwards cannot disturb it. Only what `wanted` says is kept of
// it: most sweeps look for a few names among many.
template <class Wanted>
std::vector<Entry> list_directory(int directory, const std::string& what, const Wanted& wanted) {
  Descriptor listing(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!listing) throw_os_error(errno, what);
  const std::unique_ptr<DIR, CloseDirectory> stream(::fdopendir(listing.get()));
  if (!stream) throw_os_error(errno, what);
  listing.release();  // the stream owns it now
  std::vector<Entry> entries;
  while (true) {
    errno = 0;
    const dirent* entry = ::readdir(stream.get());
    if (entry == nullptr) {
      if (errno != 0) throw_os_error(errno, what);
      return entries;
    }
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    const EntryKind kind = kind_of(directory, *entry);
    if (wanted(name, kind)) entries.push_back({std::string(name), kind});
  }
}

Descriptor open_entry_directory(int directory, const std::string& name) noexcept {
  return Descriptor(::openat(directory, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Removes one entry, whatever it is. An entry that is gone already is fine.
void remove_entry(int directory, const Entry& entry, const std::string& what) {
  if (entry.kind == EntryKind::directory) {
    const Descriptor opened = open_entry_directory(directory, entry.name);
    if (opened) {
      for (const Entry& inner : list_directory(opened.get(), what, any_entry)) {
        remove_entry(opened.get(), inner, what + "/" + inner.name);
      }
    } else if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP) {
      throw_os_error(errno, what);
    }
  }
  const int flags = entry.kind == EntryKind::directory ? AT_REMOVEDIR : 0;
  if (::unlinkat(directory, entry.name.c_str(), flags) != 0 && errno != ENOENT) throw_os_error(errno, what);
}

/// One sweep: which files go, which directories are left alone, and the first failure on the way.
class Sweep {
 public:
  explicit Sweep(const PinnedRoot& root) : _root(root) {}
  std::function<bool(std::string_view name)> selects_name;
  std::function<bool(const std::string& path)> preserves;
  std::function<bool(const std::string& path)> skips_directory;

  /// `prefix` is empty for the root itself, else it ends in a slash.
  void walk(int directory, const std::string& prefix) {
    const auto wanted = [this](std::string_view name, EntryKind kind) {
      return kind == EntryKind::directory || (kind == EntryKind::regular && selects_name(name));
    };
    _attempt([&] {
      for (const Entry& entry : list_directory(directory, _root.display_path(prefix), wanted))
        _visit(directory, prefix, entry);
    });
  }
  void rethrow_first_failure() const {
    if (_first_failure) std::rethrow_exception(_first_failure);
  }

 private:
  void _visit(int directory, const std::string& prefix, const Entry& entry) {
    if (entry.kind == EntryKind::directory) {
      const std::string path = prefix + entry.name;
      if (skips_directory(path)) return;
      const Descriptor opened = open_entry_directory(directory, entry.name);
      if (opened) {
        walk(opened.get(), path + "/");
      } else if (!means_wrong_or_missing_file(errno)) {  // it may be gone, or a link by now
        _attempt([&] { throw_os_error(errno, _root.display_path(path)); });
      }
    } else {
      const std::string path = prefix + entry.name;
      if (!preserves(path)) _remove(directory, entry.name, path);
    }
  }
  void _remove(int directory, const std::string& name, const std::string& path) {
    _attempt([&] {
      if (::unlinkat(directory, name.c_str(), 0) != 0 && errno != ENOENT) {
        throw_os_error(errno, _root.display_path(path));
      }
    });
  }
  // A failure ends its step, not the sweep.
  template <class Step>
  void _attempt(const Step& step) {
    try {
      step();
    } catch (const OSError&) {
      if (!_first_failure) _first_failure = std::current_exception();
    }
  }

  const PinnedRoot& _root;
  std::exception_ptr _first_failure;
};

std::string without_trailing_slash(std::string prefix) {
  if (prefix.ends_with('/')) prefix.pop_back();
  return prefix;
}

bool is_in_cohorts_directory(const std::string& path) {
  const std::string cohorts = local_cohort::COHORTS_DIRECTORY;
  return path == cohorts || path.starts_with(cohorts + "/");
}

}  // namespace

void remove_contained_directory_tree(const std::string& base, const std::string& path, bool missing_ok) {
  check_member_path(path);
  try {
    const PinnedRoot pinned(base);
    const std::string what = pinned.display_path(path);
    const MemberPlace place = locate_member(pinned.descriptor(), path, MissingDirectories::refuse, what);
    struct stat status {};
    if (::fstatat(place.directory, place.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      throw_os_error(errno, what);
    }
    remove_entry(place.directory,
                 {place.name, S_ISDIR(status.st_mode) ? EntryKind::directory : EntryKind::other}, what);
  } catch (const FileNotFoundError&) {
    if (!missing_ok) throw;
  }
}

void cleanup_contained_regular_files(const std::string& root, const std::string& suffix,
                                     const std::set<std::string>& preserve_relative_paths) {
  if (suffix.empty()) throw ValueError("sweep of " + root + ": the suffix must not be empty");
  const PinnedRoot pinned(root);
  const bool sweeps_generations = suffix == ".tmp";
  Sweep sweep(pinned);
  sweep.selects_name = [&](std::string_view name) { return name.ends_with(suffix); };
  sweep.preserves = [&](const std::string& path) { return preserve_relative_paths.contains(path); };
  sweep.skips_directory = [&](const std::string& path) {
    return !sweeps_generations && is_in_cohorts_directory(path);
  };
  sweep.walk(pinned.descriptor(), "");
  sweep.rethrow_first_failure();
}

void cleanup_contained_regular_files_in_prefixes(const std::string& root,
                                                 const std::vector<std::string>& prefixes,
                                                 const std::function<bool(const std::string&)>& preserves) {
  const PinnedRoot pinned(root);
  Sweep sweep(pinned);
  sweep.selects_name = [](std::string_view) { return true; };
  sweep.preserves = preserves;
  sweep.skips_directory = [](const std::string&) { return false; };
  for (const std::string& prefix : prefixes) {
    const std::string directory = without_trailing_slash(prefix);
    check_member_path(directory);
    if (is_in_cohorts_directory(directory)) {
      throw ValueError("sweep of " + root + ": the generations of the cohorts are never swept: " + prefix);
    }
    const Descriptor opened(open_beneath(pinned.descriptor(), directory, O_PATH | O_DIRECTORY));
    if (opened) {
      sweep.walk(opened.get(), directory + "/");
    } else if (errno != ENOENT) {
      throw_open_failure(errno, pinned.display_path(directory));
    }
  }
  sweep.rethrow_first_failure();
}

}  // namespace tidalcrest::sync::client_manifest
