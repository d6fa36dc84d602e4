#include "siblings/distribution/contained_files.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "host/failures.hpp"
#include "host/text.hpp"
#include "siblings/distribution/contained_open.hpp"
#include "siblings/distribution/disk_calls.hpp"
#include "siblings/distribution/file_blocks.hpp"
#include "siblings/distribution/file_stat.hpp"
#include "siblings/distribution/temporary_file.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

std::int64_t block_size(std::int64_t chunk_bytes, const std::string& label) {
  if (chunk_bytes <= 0)
    throw ValueError(fmt::format("{}: chunk_bytes must be positive, got {}", label, chunk_bytes));
  return std::clamp(chunk_bytes, MIN_BLOCK_BYTES, MAX_BLOCK_BYTES);
}

void require_path_text(const std::string& path, const std::string& label) {
  if (path.find('\0') != std::string::npos) {
    throw ValueError(fmt::format("{}: embedded null byte in {}", label, text::repr(path)));
  }
}

// The way to the file is the caller's own; only its last component is not followed.
OpenedFile open_regular_path(const std::string& path, const std::string& label) {
  require_path_text(path, label);
  OpenedFile file;
  const std::string what = label + ": " + path;
  do {
    file.descriptor.reset(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  } while (!file.descriptor && errno == EINTR);
  if (!file.descriptor) throw_open_failure(errno, what);
  if (::fstat(file.descriptor.get(), &file.status) != 0) throw_os_error(errno, what);
  require_regular(file.status, what);
  return file;
}

}  // namespace

std::string read_contained_regular_file(const std::string& root, const std::string& path,
                                        const std::string& label) {
  return PinnedRoot(root).read_regular_file(path, label);
}

std::optional<std::string> read_contained_regular_file_if_present(const std::string& root,
                                                                  const std::string& path,
                                                                  const std::string& label) {
  try {
    return read_contained_regular_file(root, path, label);
  } catch (const FileNotFoundError&) {  // a missing root holds no such file either
    return std::nullopt;
  }
}

std::string write_contained_regular_file(const std::string& root, const std::string& path,
                                         std::string_view data, bool allow_replace) {
  const PinnedRoot pinned(root);
  pinned.write_atomic(path, data, allow_replace);
  return pinned.display_path(path);
}

void copy_contained_regular_file(const std::string& source_root, const std::string& source_path,
                                 const std::string& target_root, const std::string& target_path) {
  PinnedRoot(source_root).copy_regular_file(source_path, PinnedRoot(target_root), target_path);
}

void move_contained_regular_file(const std::string& source_root, const std::string& source_path,
                                 const std::string& target_root, const std::string& target_path) {
  const PinnedRoot source(source_root);
  const PinnedRoot target(target_root);
  source.stat_regular_file(source_path, "file to move");
  check_member_path(target_path);
  const std::string what = source.display_path(source_path);
  const std::string target_what = target.display_path(target_path);
  const MemberPlace from = locate_member(source.descriptor(), source_path, MissingDirectories::refuse, what);
  const MemberPlace to =
      locate_member(target.descriptor(), target_path, MissingDirectories::create, target_what);
  if (disk_calls().rename(from.directory, from.name.c_str(), to.directory, to.name.c_str(), 0) == 0) return;
  if (errno != EXDEV) throw_os_error(errno, fmt::format("{} to {}", what, target_what));
  source.copy_regular_file(source_path, target, target_path);
  source.remove_regular_file(source_path, /*missing_ok=*/true);
}

void remove_contained_regular_file(const std::string& root, const std::string& path, bool missing_ok) {
  PinnedRoot(root).remove_regular_file(path, missing_ok);
}

FileStat stat_contained_regular_file(const std::string& root, const std::string& path,
                                     const std::string& label) {
  return PinnedRoot(root).stat_regular_file(path, label);
}

std::string hash_contained_regular_file(const std::string& root, const std::string& name,
                                        const std::string& label, std::int64_t chunk_bytes) {
  return PinnedRoot(root).identify_regular_file(name, label, block_size(chunk_bytes, label)).sha256;
}

FileIdentity identify_contained_regular_file(const std::string& root, const std::string& path,
                                             const std::string& label) {
  return PinnedRoot(root).identify_regular_file(path, label);
}

std::string ensure_contained_directory(const std::string& base, const std::string& path) {
  check_member_path(path);
  const PinnedRoot pinned(base);
  std::string absolute = pinned.display_path(path);
  open_or_make_directory(pinned.descriptor(), path, absolute);
  return absolute;
}

std::string read_regular_file_path(const std::string& path, const std::string& label) {
  const OpenedFile file = open_regular_path(path, label);
  return read_to_end(file.descriptor.get(), file.status.st_size, label + ": " + path);
}

void write_regular_file_path(const std::string& path, std::string_view data, bool allow_replace) {
  require_path_text(path, "file to write");
  const auto slash = path.rfind('/');
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (name.empty() || name == "." || name == "..") {
    throw ValueError("file to write: the path names no file: " + text::repr(path));
  }
  const std::string parent = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const Descriptor directory(::open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory) throw_os_error(errno, path);
  write_file_atomically(directory.get(), name, data, allow_replace, path);
}

std::string hash_regular_file_path(const std::string& path, const std::string& label,
                                   std::int64_t chunk_bytes) {
  const std::int64_t block = block_size(chunk_bytes, label);
  const OpenedFile file = open_regular_path(path, label);
  return identify_opened_file(file.descriptor.get(), file.status, block, label + ": " + path).sha256;
}

}  // namespace tidalcrest::sync::client_manifest
