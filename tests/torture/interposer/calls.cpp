// The interposed calls: everything through which the product changes the disk or carries data. Each asks the
// plan first, and writes down what it changed. Preloaded into a test process; the product knows nothing of
// it.

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <string>

#include "change_log.hpp"
#include "paths.hpp"
#include "plan.hpp"

namespace tidalcrest::torture {
namespace {

using SystemCall = long (*)(long, ...);

// The C library's own: a plain `syscall` would come back here.
template <class... Arguments>
long real(long number, Arguments... arguments) {
  static const auto call = reinterpret_cast<SystemCall>(::dlsym(RTLD_NEXT, "syscall"));
  return call(number, arguments...);
}

// Runs a call that counts under the plan: `perform(half)` does it, `changed(result)` writes it down.
template <class Perform, class Changed>
long guarded(Call kind, const Perform& perform, const Changed& changed) {
  const Verdict verdict = judge(kind);
  if (verdict.error != 0) {
    errno = verdict.error;
    return -1;
  }
  const auto order = change_order();
  const long result = perform(verdict.half);
  const int failure = errno;
  if (result >= 0 && logs_changes()) changed(result);
  if (verdict.kill_after) end_process();
  errno = failure;
  return result;
}

// A call that makes one change or none, which `line` tells; only where it counts.
template <class Perform>
int guarded_change(bool counts, Call kind, const std::string& line, const Perform& perform) {
  if (!counts) return static_cast<int>(perform());
  return static_cast<int>(guarded(
      kind, [&](bool) { return perform(); }, [&](long) { log_change(line); }));
}

std::size_t part_of(std::size_t size, bool half) { return half && size > 1 ? size / 2 : size; }

bool exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

bool opens_for_change(int flags) {
  return (flags & O_PATH) == 0 && (flags & (O_ACCMODE | O_CREAT | O_TRUNC)) != 0;
}

template <class Perform>
long guarded_open(int directory, const char* path, int flags, const Perform& perform) {
  const std::string where = absolute_path(directory, path);
  if (!counts(where)) return perform();
  // Reading can fail for want of descriptors, too; it changes nothing that could be lost.
  const bool is_new = (flags & O_CREAT) != 0 && logs_changes() && !exists(where);
  return guarded(
      Call::open, [&](bool) { return perform(); },
      [&](long opened) {
        if (!opens_for_change(flags)) return;
        const std::string inode = std::to_string(inode_of(static_cast<int>(opened)));
        if (is_new) log_change("create\t" + where + "\t" + inode);
        if ((flags & O_TRUNC) != 0) log_change("truncate\t" + inode + "\t0");
      });
}

bool is_member(int descriptor) { return is_regular(descriptor) && counts(path_of(descriptor)); }

long seek_position(int descriptor) { return real(SYS_lseek, descriptor, 0L, SEEK_CUR); }

// A write at the file's own position.
template <class Perform>
long guarded_write(int descriptor, const Perform& perform) {
  if (!is_member(descriptor)) return perform(false);
  return guarded(Call::write, perform, [&](long written) {
    log_written(descriptor, seek_position(descriptor) - written, written);
  });
}

}  // namespace
}  // namespace tidalcrest::torture

using namespace tidalcrest::torture;

extern "C" {

// --- Opening ---

int openat(int directory, const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const auto mode = static_cast<mode_t>((flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, int) : 0);
  va_end(rest);
  return static_cast<int>(
      guarded_open(directory, path, flags, [&] { return real(SYS_openat, directory, path, flags, mode); }));
}

int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const auto mode = static_cast<mode_t>((flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, int) : 0);
  va_end(rest);
  return openat(AT_FDCWD, path, flags, mode);
}

int open64(const char* path, int flags, ...) __attribute__((alias("open")));
int openat64(int directory, const char* path, int flags, ...) __attribute__((alias("openat")));

long syscall(long number, ...) {
  va_list rest;
  va_start(rest, number);
  long a[6];
  for (long& argument : a) argument = va_arg(rest, long);
  va_end(rest);
  const auto perform = [&] { return real(number, a[0], a[1], a[2], a[3], a[4], a[5]); };
  if (number != SYS_openat2) return perform();
  const auto* how = reinterpret_cast<const open_how*>(a[2]);
  return guarded_open(static_cast<int>(a[0]), reinterpret_cast<const char*>(a[1]),
                      static_cast<int>(how->flags), perform);
}

// --- Contents ---

ssize_t write(int descriptor, const void* bytes, size_t size) {
  return guarded_write(descriptor,
                       [&](bool half) { return real(SYS_write, descriptor, bytes, part_of(size, half)); });
}

ssize_t writev(int descriptor, const iovec* parts, int count) {
  return guarded_write(descriptor,
                       [&](bool half) { return real(SYS_writev, descriptor, parts, half ? 1 : count); });
}

ssize_t pwrite(int descriptor, const void* bytes, size_t size, off_t offset) {
  if (!is_member(descriptor)) return real(SYS_pwrite64, descriptor, bytes, size, offset);
  return guarded(
      Call::write,
      [&](bool half) { return real(SYS_pwrite64, descriptor, bytes, part_of(size, half), offset); },
      [&](long written) { log_written(descriptor, offset, written); });
}
ssize_t pwrite64(int descriptor, const void* bytes, size_t size, off64_t offset)
    __attribute__((alias("pwrite")));

ssize_t copy_file_range(int from, off64_t* from_offset, int to, off64_t* to_offset, size_t size,
                        unsigned flags) {
  const auto perform = [&](bool half) {
    struct stat source {};
    if (half && ::fstat(from, &source) == 0) size = part_of(static_cast<std::size_t>(source.st_size), true);
    return real(SYS_copy_file_range, from, from_offset, to, to_offset, size, flags);
  };
  if (!is_member(to)) return perform(false);
  return guarded(Call::copy, perform, [&](long copied) {
    const long end = to_offset != nullptr ? *to_offset : seek_position(to);
    log_written(to, end - copied, copied);
  });
}

int ioctl(int descriptor, unsigned long request, ...) {
  va_list rest;
  va_start(rest, request);
  const long argument = va_arg(rest, long);
  va_end(rest);
  const auto perform = [&] { return real(SYS_ioctl, descriptor, request, argument); };
  if (request != FICLONE || !is_member(descriptor)) return static_cast<int>(perform());
  return static_cast<int>(guarded(
      Call::clone, [&](bool) { return perform(); },
      [&](long) {
        struct stat status {};
        ::fstat(descriptor, &status);
        log_written(descriptor, 0, status.st_size);
      }));
}

int ftruncate(int descriptor, off_t size) {
  return guarded_change(is_member(descriptor), Call::truncate,
                        "truncate\t" + std::to_string(inode_of(descriptor)) + "\t" + std::to_string(size),
                        [&] { return real(SYS_ftruncate, descriptor, size); });
}
int ftruncate64(int descriptor, off64_t size) __attribute__((alias("ftruncate")));

// --- Names ---

int renameat2(int from_directory, const char* from, int to_directory, const char* to, unsigned flags) {
  const std::string source = absolute_path(from_directory, from);
  const std::string target = absolute_path(to_directory, to);
  return guarded_change(counts(source) || counts(target), Call::rename, "rename\t" + source + "\t" + target,
                        [&] { return real(SYS_renameat2, from_directory, from, to_directory, to, flags); });
}
int renameat(int from_directory, const char* from, int to_directory, const char* to) {
  return renameat2(from_directory, from, to_directory, to, 0);
}
int rename(const char* from, const char* to) { return renameat2(AT_FDCWD, from, AT_FDCWD, to, 0); }

int linkat(int from_directory, const char* from, int to_directory, const char* to, int flags) {
  const std::string source = absolute_path(from_directory, from);
  const std::string target = absolute_path(to_directory, to);
  return guarded_change(counts(target), Call::link, "link\t" + source + "\t" + target,
                        [&] { return real(SYS_linkat, from_directory, from, to_directory, to, flags); });
}

int unlinkat(int directory, const char* path, int flags) {
  const std::string where = absolute_path(directory, path);
  return guarded_change(counts(where), Call::unlink,
                        ((flags & AT_REMOVEDIR) != 0 ? "rmdir\t" : "unlink\t") + where,
                        [&] { return real(SYS_unlinkat, directory, path, flags); });
}
int unlink(const char* path) { return unlinkat(AT_FDCWD, path, 0); }
int rmdir(const char* path) { return unlinkat(AT_FDCWD, path, AT_REMOVEDIR); }

int mkdirat(int directory, const char* path, mode_t mode) {
  const std::string where = absolute_path(directory, path);
  return guarded_change(counts(where), Call::mkdir, "mkdir\t" + where,
                        [&] { return real(SYS_mkdirat, directory, path, mode); });
}
int mkdir(const char* path, mode_t mode) { return mkdirat(AT_FDCWD, path, mode); }

// --- Durability and locks ---

static int flush(long number, int descriptor, const std::string& line) {
  return guarded_change(counts(path_of(descriptor)), Call::sync, line,
                        [&] { return real(number, descriptor); });
}
static int flush_file(long number, int descriptor) {
  return flush(number, descriptor,
               "fsync\t" + path_of(descriptor) + "\t" + std::to_string(inode_of(descriptor)));
}
int fsync(int descriptor) { return flush_file(SYS_fsync, descriptor); }
int fdatasync(int descriptor) { return flush_file(SYS_fdatasync, descriptor); }
int syncfs(int descriptor) noexcept { return flush(SYS_syncfs, descriptor, "syncfs"); }

int flock(int descriptor, int operation) noexcept {
  if (grants_all_locks()) return 0;
  // Letting go cannot fail on an open file. A lock changes nothing that could be lost.
  const bool is_taken = counts(path_of(descriptor)) && (operation & LOCK_UN) == 0;
  return guarded_change(is_taken, Call::flock, "", [&] { return real(SYS_flock, descriptor, operation); });
}

// --- The network ---

ssize_t send(int socket, const void* bytes, size_t size, int flags) {
  return guarded(
      Call::send,
      [&](bool half) { return real(SYS_sendto, socket, bytes, part_of(size, half), flags, nullptr, 0); },
      [](long) {});
}

ssize_t recv(int socket, void* bytes, size_t size, int flags) {
  const long count = guarded(
      Call::recv,
      [&](bool half) {
        return real(SYS_recvfrom, socket, bytes, part_of(size, half), flags, nullptr, nullptr);
      },
      [](long) {});
  count_received(count);
  return count;
}

}  // extern "C"
