#include "siblings/distribution/contained_open.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string_view>

#include "host/failures.hpp"
#include "siblings/distribution/manifest_document.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

constexpr mode_t NEW_FILE_MODE = 0666;  // the user's umask decides
constexpr mode_t NEW_DIRECTORY_MODE = 0777;
constexpr std::string_view STAGING_SUFFIX = ".tmp";

int open_by_kernel(int directory, const char* path, int flags, mode_t mode) noexcept {
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags);
  how.mode = mode;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  long descriptor = -1;
  do {
    descriptor = ::syscall(SYS_openat2, directory, path, &how, sizeof how);
  } while (descriptor < 0 && errno == EINTR);
  return static_cast<int>(descriptor);
}

int open_segment(int directory, const std::string& name, int flags, mode_t mode) noexcept {
  int descriptor = -1;
  do {
    descriptor = ::openat(directory, name.c_str(), flags, mode);
  } while (descriptor < 0 && errno == EINTR);
  return descriptor;
}

// Takes the segments one by one; `step(directory, name, is_last)` gives the next directory or the result.
template <class Step>
int walk_segments(int directory, std::string_view path, const Step& step) {
  Descriptor opened;
  while (true) {
    const auto slash = path.find('/');
    const std::string name(path.substr(0, slash));
    if (name == "..") {
      errno = EXDEV;
      return -1;
    }
    const bool is_last = slash == std::string_view::npos;
    const int next = step(opened ? opened.get() : directory, name, is_last);
    if (next < 0 || is_last) return next;
    const int failure = errno;
    opened.reset(next);
    errno = failure;
    path.remove_prefix(slash + 1);
  }
}

constexpr int ON_THE_WAY = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

int open_by_steps(int directory, const std::string& path, int flags, mode_t mode) {
  return walk_segments(directory, path, [&](int at, const std::string& name, bool is_last) {
    return open_segment(at, name, is_last ? flags : ON_THE_WAY, mode);
  });
}

// Old kernels lack the call, and some sandboxes refuse it: asked once, on a path that always opens.
OpeningMethod find_opening_method() noexcept {
  const Descriptor probe(open_by_kernel(AT_FDCWD, ".", O_PATH | O_DIRECTORY | O_CLOEXEC, 0));
  return probe ? OpeningMethod::kernel : OpeningMethod::stepwise;
}

std::atomic<OpeningMethod>& method_in_use() noexcept {
  static std::atomic<OpeningMethod> method{find_opening_method()};
  return method;
}

const char* kind_text(mode_t mode) noexcept {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISLNK(mode)) return "a symbolic link";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISSOCK(mode)) return "a socket";
  return "a device";
}

int error_number_of_kind(mode_t mode) noexcept {
  if (S_ISDIR(mode)) return EISDIR;
  return S_ISLNK(mode) ? ELOOP : ENXIO;
}

}  // namespace

OpeningMethod opening_method() noexcept { return method_in_use().load(std::memory_order_relaxed); }
void set_opening_method(OpeningMethod method) noexcept { method_in_use().store(method); }

int open_beneath(int directory, const std::string& path, int flags, mode_t mode) {
  flags |= O_NOFOLLOW | O_CLOEXEC;
  if ((flags & O_CREAT) != 0 && mode == 0) mode = NEW_FILE_MODE;
  return opening_method() == OpeningMethod::kernel ? open_by_kernel(directory, path.c_str(), flags, mode)
                                                   : open_by_steps(directory, path, flags, mode);
}

void check_member_path(const std::string& path) {
  // A segment may be so long that only its own staging name still fits beside it: measured without the
  // suffix.
  const std::string_view view(path);
  if (view.size() > STAGING_SUFFIX.size() && view.ends_with(STAGING_SUFFIX) &&
      view[view.size() - STAGING_SUFFIX.size() - 1] != '/') {
    validate_manifest_relative_path(path.substr(0, path.size() - STAGING_SUFFIX.size()));
  } else {
    validate_manifest_relative_path(path);
  }
}

MemberPlace locate_member(int directory, const std::string& path, MissingDirectories missing,
                          const std::string& what) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return {Descriptor(), directory, path};
  const std::string parent = path.substr(0, slash);
  Descriptor opened(open_beneath(directory, parent, O_PATH | O_DIRECTORY));
  if (!opened && errno == ENOENT && missing == MissingDirectories::create) {
    opened = open_or_make_directory(directory, parent, what);
  }
  if (!opened) throw_open_failure(errno, what);
  const int parent_directory = opened.get();
  return {std::move(opened), parent_directory, path.substr(slash + 1)};
}

Descriptor open_or_make_directory(int directory, const std::string& path, const std::string& what) {
  Descriptor made(walk_segments(directory, path, [](int at, const std::string& name, bool) {
    int next = open_segment(at, name, ON_THE_WAY, 0);
    if (next >= 0 || errno != ENOENT) return next;
    if (::mkdirat(at, name.c_str(), NEW_DIRECTORY_MODE) != 0 && errno != EEXIST) return -1;
    return open_segment(at, name, ON_THE_WAY, 0);
  }));
  if (!made) throw_open_failure(errno, what);
  return made;
}

OpenedFile open_regular(int directory, const std::string& path, int flags, const std::string& what) {
  OpenedFile file;
  file.descriptor.reset(open_beneath(directory, path, flags | O_NONBLOCK | O_NOCTTY));
  if (!file.descriptor) throw_open_failure(errno, what);
  if (::fstat(file.descriptor.get(), &file.status) != 0) throw_os_error(errno, what);
  require_regular(file.status, what);
  return file;
}

void throw_open_failure(int error_number, const std::string& what) {
  switch (error_number) {
    case ELOOP:
      throw_os_error(ELOOP, what + ": a symbolic link is in the way");
    case ENXIO:
      throw_os_error(ENXIO, what + ": is a FIFO, a socket or a device, not a regular file");
    case EXDEV:
      throw_os_error(EXDEV, what + ": leaves its root");
    default:
      throw_os_error(error_number, what);
  }
}

void require_regular(const struct stat& status, const std::string& what) {
  if (S_ISREG(status.st_mode)) return;
  throw OSError(fmt::format("{}: is {}, not a regular file", what, kind_text(status.st_mode)),
                error_number_of_kind(status.st_mode));
}

bool means_wrong_or_missing_file(int error_number) noexcept {
  return error_number == ENOENT || error_number == ENOTDIR || error_number == EISDIR ||
         error_number == ELOOP || error_number == ENXIO;
}

}  // namespace tidalcrest::sync::client_manifest
