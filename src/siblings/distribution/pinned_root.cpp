#include "siblings/distribution/pinned_root.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "host/failures.hpp"
#include "host/text.hpp"
#include "siblings/distribution/cohort_layout.hpp"
#include "siblings/distribution/contained_open.hpp"
#include "siblings/distribution/disk_calls.hpp"
#include "siblings/distribution/file_blocks.hpp"
#include "siblings/distribution/file_stat.hpp"
#include "siblings/distribution/temporary_file.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

std::string absolute_root_path(const std::string& root) {
  if (root.find('\0') != std::string::npos)
    throw ValueError("root directory: embedded null byte in " + text::repr(root));
  if (root.empty()) throw_os_error(ENOENT, "root directory ''");
  std::error_code failure;
  std::string path = std::filesystem::absolute(root, failure).string();
  if (failure) throw_os_error(failure.value(), "root directory " + root);
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// Gives -1 and `errno`.
int open_root_directory(const std::string& path, int access) {
  const std::string boundary = std::string("/") + local_cohort::COHORTS_DIRECTORY + "/";
  const auto at = (path + "/").rfind(boundary);
  if (at == std::string::npos) return ::open(path.c_str(), access | O_DIRECTORY | O_CLOEXEC);
  const std::string base = at == 0 ? "/" : path.substr(0, at);
  const Descriptor holder(::open(base.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  return holder ? open_beneath(holder.get(), path.substr(at + 1), access | O_DIRECTORY) : -1;
}

void make_root_directory(const std::string& path) {
  std::error_code failure;
  std::filesystem::create_directories(path, failure);
  if (failure) throw_os_error(failure.value(), "root directory " + path);
}

struct stat status_of(int descriptor, const std::string& what) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) throw_os_error(errno, what);
  return status;
}

// Fails unless the entry is there and is a regular file.
void require_regular_entry(const MemberPlace& place, const std::string& what) {
  struct stat status {};
  if (::fstatat(place.directory, place.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
    throw_os_error(errno, what);
  require_regular(status, what);
}

// A new, empty file at `path`; -1 with EEXIST when something is there already.
int create_new_file(int directory, const std::string& path, const std::string& what) {
  constexpr int FLAGS = O_WRONLY | O_CREAT | O_EXCL;
  const int created = open_beneath(directory, path, FLAGS);
  if (created >= 0 || errno != ENOENT) return created;
  const MemberPlace place = locate_member(directory, path, MissingDirectories::create, what);
  return open_beneath(place.directory, place.name, FLAGS);
}

void copy_by_rename(const OpenedFile& source, const std::string& what, int target_directory,
                    const std::string& target_path, const std::string& target_what) {
  const MemberPlace place =
      locate_member(target_directory, target_path, MissingDirectories::create, target_what);
  TemporaryFile copy(place.directory, target_what);
  copy_contents(source.descriptor.get(), copy.descriptor(), source.status.st_size,
                fmt::format("{} to {}", what, target_what));
  copy.place(place.name, /*allow_replace=*/true);
}

}  // namespace

// --- UpdatableFile ---

std::size_t UpdatableFile::read(char* buffer, std::size_t size) {
  return read_some(_descriptor.get(), buffer, size, _display_path);
}

void UpdatableFile::write(std::string_view bytes) { write_all(_descriptor.get(), bytes, _display_path); }

void UpdatableFile::seek(std::int64_t offset) {
  if (::lseek(_descriptor.get(), offset, SEEK_SET) < 0) throw_os_error(errno, _display_path);
}

void UpdatableFile::truncate(std::int64_t size) {
  int outcome = 0;
  do {
    outcome = ::ftruncate(_descriptor.get(), size);
  } while (outcome != 0 && errno == EINTR);
  if (outcome != 0) throw_os_error(errno, _display_path);
  seek(size);
}

void UpdatableFile::flush() {}

void UpdatableFile::close() {
  if (!_descriptor) return;
  // The descriptor is gone even after EINTR.
  if (::close(_descriptor.release()) != 0 && errno != EINTR) throw_os_error(errno, _display_path);
}

// --- PinnedRoot ---

PinnedRoot::PinnedRoot(const std::string& root, bool create) : _path(absolute_root_path(root)) {
  _descriptor.reset(open_root_directory(_path, O_RDONLY));
  if (!_descriptor && errno == ENOENT && create) {
    make_root_directory(_path);
    _descriptor.reset(open_root_directory(_path, O_RDONLY));
  }
  if (!_descriptor) throw_open_failure(errno, "root directory " + _path);
}

PinnedRoot::PinnedRoot(const PinnedRoot& base, const std::string& relative_path)
    : _path(base.display_path(relative_path)) {
  check_member_path(relative_path);
  _descriptor.reset(open_beneath(base.descriptor(), relative_path, O_RDONLY | O_DIRECTORY));
  if (!_descriptor) throw_open_failure(errno, "root directory " + _path);
}

std::string PinnedRoot::_named(const std::string& label, const std::string& path) const {
  return fmt::format("{}: {}/{}", label, _path, path);
}

std::string PinnedRoot::read_regular_file(const std::string& path, const std::string& label) const {
  check_member_path(path);
  const std::string what = _named(label, path);
  const OpenedFile file = open_regular(descriptor(), path, O_RDONLY, what);
  return read_to_end(file.descriptor.get(), file.status.st_size, what);
}

bool PinnedRoot::holds_exactly(const std::string& path, std::string_view expected,
                               const std::string& label) const {
  check_member_path(path);
  const std::string what = _named(label, path);
  try {
    const OpenedFile file = open_regular(descriptor(), path, O_RDONLY, what);
    const bool same_size = static_cast<std::size_t>(file.status.st_size) == expected.size();
    return same_size && client_manifest::holds_exactly(file.descriptor.get(), expected, what);
  } catch (const FileNotFoundError&) {
    return false;
  }
}

std::optional<std::string> PinnedRoot::read_regular_file_if_present(const std::string& path,
                                                                    const std::string& label) const {
  try {
    return read_regular_file(path, label);
  } catch (const FileNotFoundError&) {
    return std::nullopt;
  }
}

void PinnedRoot::write_atomic(const std::string& path, std::string_view data, bool allow_replace) const {
  check_member_path(path);
  const std::string what = display_path(path);
  const MemberPlace place = locate_member(descriptor(), path, MissingDirectories::create, what);
  write_file_atomically(place.directory, place.name, data, allow_replace, what);
}

FileStat PinnedRoot::stat_regular_file(const std::string& path, const std::string& label) const {
  check_member_path(path);
  // Names the file without opening it: no permission to read is needed, and a FIFO does not notice.
  const Descriptor file(open_beneath(descriptor(), path, O_PATH));
  if (!file) throw_open_failure(errno, _named(label, path));
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) throw_os_error(errno, _named(label, path));
  if (!S_ISREG(status.st_mode)) require_regular(status, _named(label, path));
  return file_stat_of(status);
}

FileIdentity PinnedRoot::identify_regular_file(const std::string& path, const std::string& label,
                                               std::int64_t block_bytes,
                                               const std::function<void()>& after_block) const {
  check_member_path(path);
  const std::string what = _named(label, path);
  const OpenedFile file = open_regular(descriptor(), path, O_RDONLY, what);
  return identify_opened_file(file.descriptor.get(), file.status, block_bytes, what, after_block);
}

UpdatableFile PinnedRoot::open_regular_file_for_update(const std::string& path, bool create) const {
  check_member_path(path);
  std::string what = display_path(path);
  const int flags = create ? O_RDWR | O_CREAT : O_RDWR;
  const auto open_in = [&](int directory, const std::string& name) {
    return UpdatableFile(open_regular(directory, name, flags, what).descriptor.release(), what);
  };
  try {
    return open_in(descriptor(), path);
  } catch (const FileNotFoundError&) {
    if (!create) throw;
  }
  const MemberPlace place = locate_member(descriptor(), path, MissingDirectories::create, what);
  return open_in(place.directory, place.name);
}

void PinnedRoot::remove_regular_file(const std::string& path, bool missing_ok) const {
  check_member_path(path);
  const std::string what = display_path(path);
  try {
    const MemberPlace place = locate_member(descriptor(), path, MissingDirectories::refuse, what);
    require_regular_entry(place, what);
    if (::unlinkat(place.directory, place.name.c_str(), 0) != 0) throw_os_error(errno, what);
  } catch (const FileNotFoundError&) {
    if (!missing_ok) throw;
  }
}

void PinnedRoot::replace_regular_file(const std::string& from_path, const std::string& to_path) const {
  check_member_path(from_path);
  check_member_path(to_path);
  const std::string what = display_path(from_path);
  const MemberPlace from = locate_member(descriptor(), from_path, MissingDirectories::refuse, what);
  require_regular_entry(from, what);
  const std::string to_what = display_path(to_path);
  const MemberPlace to = locate_member(descriptor(), to_path, MissingDirectories::create, to_what);
  if (disk_calls().rename(from.directory, from.name.c_str(), to.directory, to.name.c_str(), 0) != 0) {
    throw_os_error(errno, fmt::format("{} to {}", what, to_what));
  }
}

void PinnedRoot::copy_regular_file(const std::string& path, const PinnedRoot& target,
                                   const std::string& target_path) const {
  check_member_path(path);
  check_member_path(target_path);
  const std::string what = display_path(path);
  const OpenedFile source = open_regular(descriptor(), path, O_RDONLY, what);
  const std::string target_what = target.display_path(target_path);
  const Descriptor created(create_new_file(target.descriptor(), target_path, target_what));
  if (created) {
    try {
      copy_contents(source.descriptor.get(), created.get(), source.status.st_size,
                    fmt::format("{} to {}", what, target_what));
    } catch (...) {
      const MemberPlace partial =
          locate_member(target.descriptor(), target_path, MissingDirectories::refuse, target_what);
      ::unlinkat(partial.directory, partial.name.c_str(), 0);
      throw;
    }
    return;
  }
  if (errno != EEXIST) throw_open_failure(errno, target_what);
  copy_by_rename(source, what, target.descriptor(), target_path, target_what);
}

void PinnedRoot::copy_regular_file_atomically(const std::string& path, const PinnedRoot& target,
                                              const std::string& target_path) const {
  check_member_path(path);
  check_member_path(target_path);
  const std::string what = display_path(path);
  const OpenedFile source = open_regular(descriptor(), path, O_RDONLY, what);
  copy_by_rename(source, what, target.descriptor(), target_path, target.display_path(target_path));
}

void PinnedRoot::assert_root_unchanged() const {
  const std::string what = "root directory " + _path;
  const Descriptor named(open_root_directory(_path, O_PATH));
  if (!named)
    throw OSError(fmt::format("{}: gone while in use: {}", what, std::generic_category().message(errno)));
  const struct stat now = status_of(named.get(), what);
  const struct stat pinned = status_of(descriptor(), what);
  if (now.st_dev != pinned.st_dev || now.st_ino != pinned.st_ino) {
    throw OSError(what + ": replaced while in use");
  }
}

}  // namespace tidalcrest::sync::client_manifest
