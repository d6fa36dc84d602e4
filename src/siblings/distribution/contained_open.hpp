#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

#include "host/descriptor.hpp"

/// The one place where a relative path becomes a descriptor. Nothing here follows a symbolic link or climbs
/// out of the directory that it starts from.
namespace tidalcrest::sync::client_manifest {

/// Who keeps a path inside its root: one `openat2`, or one `openat` per segment where the kernel lacks it (or
/// a sandbox hides it). Both refuse the same paths.
enum class OpeningMethod { kernel, stepwise };
OpeningMethod opening_method() noexcept;
/// For tests. Process-wide.
void set_opening_method(OpeningMethod method) noexcept;

/// Opens `path` below `directory`, close-on-exec and without following a link at its end. Gives -1 and
/// `errno`.
int open_beneath(int directory, const std::string& path, int flags, mode_t mode = 0);

/// Fails (`ValueError`) unless `path` obeys the manifest path rule; the staging name of a valid path, one
/// `.tmp` longer, passes too.
void check_member_path(const std::string& path);

/// A directory and the name of one entry in it.
struct MemberPlace {
  Descriptor opened;   ///< empty when the entry lies in the starting directory itself
  int directory = -1;  ///< valid as long as `opened` and the starting directory are
  std::string name;
};
enum class MissingDirectories { refuse, create };
/// Finds the directory that holds the last segment of a checked path. `what` names the file in failures.
MemberPlace locate_member(int directory, const std::string& path, MissingDirectories missing,
                          const std::string& what);

/// Makes the directory `path` and those on the way to it, as far as they are missing.
Descriptor open_or_make_directory(int directory, const std::string& path, const std::string& what);

/// Opens one regular file, never waiting for the other end of a FIFO. `flags` of `open`; throws `OSError`.
struct OpenedFile {
  Descriptor descriptor;
  struct stat status {};
};
OpenedFile open_regular(int directory, const std::string& path, int flags, const std::string& what);

/// The failure of an opening: `errno` in the host's kinds, with a text for links and special files.
[[noreturn]] void throw_open_failure(int error_number, const std::string& what);
/// Fails (`OSError`) when `status` is not of a regular file.
void require_regular(const struct stat& status, const std::string& what);
/// True for the `errno` values of a path at which something else stands, or nothing.
bool means_wrong_or_missing_file(int error_number) noexcept;

}  // namespace tidalcrest::sync::client_manifest
