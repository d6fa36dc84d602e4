#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/descriptor.hpp"

namespace tidalcrest::sync::client_manifest {

/// What one opened regular file is, measured on one descriptor.
struct FileStat {
  std::int64_t size_bytes = 0;
  std::int64_t mtime_ns = 0;
  std::int64_t ctime_ns = 0;
  std::int64_t device = 0;
  std::int64_t inode = 0;
  friend bool operator==(const FileStat&, const FileStat&) = default;
};

/// Digest and stat of one file, both from one descriptor.
struct FileIdentity : FileStat {
  std::string sha256;  ///< lower-case hexadecimal
};

/// A regular file opened for reading and writing inside a pinned root. Closed by the destructor.
/// Move-only; for one thread at a time. Every operation throws `OSError`.
class UpdatableFile {
 public:
  explicit UpdatableFile(int descriptor, std::string display_path) noexcept
      : _descriptor(descriptor), _display_path(std::move(display_path)) {}

  /// Reads up to `size` bytes at the current offset; 0 at the end.
  std::size_t read(char* buffer, std::size_t size);
  void write(std::string_view bytes);
  void seek(std::int64_t offset);
  /// Cuts the file at `size` and leaves the offset there.
  void truncate(std::int64_t size);
  void flush();  ///< kept for the callers' order of steps; nothing is buffered here
  void close();  ///< idempotent
  int descriptor() const noexcept { return _descriptor.get(); }
  /// Hands the descriptor over to the caller; the file counts as closed.
  int detach() noexcept { return _descriptor.release(); }

 private:
  Descriptor _descriptor;
  std::string _display_path;
};

/// Scoped handle on one root directory. Every access below it goes through the pinned descriptor and refuses
/// what would leave the root: a path that climbs, a symbolic link anywhere on the way, a file that is not a
/// regular file. Relative paths obey the manifest path rule (the client's own `.tmp` and hidden names pass).
/// Hard links are ordinary files.
///
/// The way to the root itself is the user's own and may lead through links; a root below the cohorts
/// directory is made by this system, and from that directory on no link is followed.
///
/// Failures: `FileNotFoundError`, `OSError`, `TypeError`, `ValueError`, each naming the label and the path.
/// Const operations may be called from several threads at once.
class PinnedRoot {
 public:
  /// `FileNotFoundError` for a missing root, `OSError` for one that is no directory. `create` makes the
  /// directory and those above it as far as they are missing.
  explicit PinnedRoot(const std::string& root, bool create = false);
  /// Pins a directory below another root, without following a link.
  PinnedRoot(const PinnedRoot& base, const std::string& relative_path);
  PinnedRoot(PinnedRoot&& other) noexcept = default;
  PinnedRoot& operator=(PinnedRoot&&) = delete;

  std::string read_regular_file(const std::string& path, const std::string& label) const;
  std::optional<std::string> read_regular_file_if_present(const std::string& path,
                                                          const std::string& label) const;
  /// Whether the file holds exactly these bytes; false for one that is missing.
  bool holds_exactly(const std::string& path, std::string_view expected, const std::string& label) const;
  /// Writes aside, flushes the file, renames. Creates missing directories on the way. Without `allow_replace`
  /// an existing target is an `OSError`; with it, whatever stands there (short of a directory) is replaced,
  /// and a link is replaced itself, never what it points to.
  void write_atomic(const std::string& path, std::string_view data, bool allow_replace) const;
  FileStat stat_regular_file(const std::string& path, const std::string& label) const;
  /// Reads the file once, in blocks of at most `block_bytes`; a second fstat after reading must equal the
  /// first (`OSError` otherwise). `after_block` may end it by throwing.
  FileIdentity identify_regular_file(const std::string& path, const std::string& label,
                                     std::int64_t block_bytes = 1048576,
                                     const std::function<void()>& after_block = {}) const;
  /// Missing directories on the way are made when `create` is set.
  UpdatableFile open_regular_file_for_update(const std::string& path, bool create = true) const;
  void remove_regular_file(const std::string& path, bool missing_ok) const;
  /// One rename inside the root; missing directories on the way to `to_path` are made.
  void replace_regular_file(const std::string& from_path, const std::string& to_path) const;
  /// Copies one regular file to `target`, replacing whatever file stands there; clones where the file system
  /// can. A new name is filled in place: the staging roots that take copies have no reader yet. An existing
  /// one is replaced by rename.
  void copy_regular_file(const std::string& path, const PinnedRoot& target,
                         const std::string& target_path) const;
  /// The same for a root that may have readers: a new name, too, appears by rename and whole.
  void copy_regular_file_atomically(const std::string& path, const PinnedRoot& target,
                                    const std::string& target_path) const;
  /// Fails (`OSError`) when the root's path no longer names the pinned directory.
  void assert_root_unchanged() const;

  /// Absolute, without a trailing slash; links are not resolved.
  const std::string& path() const noexcept { return _path; }
  int descriptor() const noexcept { return _descriptor.get(); }
  /// Absolute path of a member, for messages.
  std::string display_path(const std::string& path) const { return _path + "/" + path; }

 private:
  std::string _named(const std::string& label, const std::string& path) const;

  std::string _path;
  Descriptor _descriptor;
};

}  // namespace tidalcrest::sync::client_manifest
