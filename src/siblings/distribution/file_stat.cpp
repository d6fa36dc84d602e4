#include "siblings/distribution/file_stat.hpp"

#include <cerrno>
#include <limits>

#include "host/failures.hpp"
#include "siblings/distribution/file_blocks.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

// Times that 64 bits do not hold (from the year 2262 on) are the last that they do.
std::int64_t nanoseconds(const timespec& time) noexcept {
  constexpr std::int64_t last = std::numeric_limits<std::int64_t>::max();
  std::int64_t total = 0;
  const bool too_far =
      __builtin_mul_overflow(static_cast<std::int64_t>(time.tv_sec), std::int64_t{1'000'000'000}, &total) ||
      __builtin_add_overflow(total, static_cast<std::int64_t>(time.tv_nsec), &total);
  if (!too_far) return total;
  return time.tv_sec < 0 ? -last : last;
}

}  // namespace

FileStat file_stat_of(const struct stat& status) noexcept {
  return {.size_bytes = status.st_size,
          .mtime_ns = nanoseconds(status.st_mtim),
          .ctime_ns = nanoseconds(status.st_ctim),
          .device = static_cast<std::int64_t>(status.st_dev),
          .inode = static_cast<std::int64_t>(status.st_ino)};
}

FileIdentity identify_opened_file(int descriptor, const struct stat& status, std::int64_t block_bytes,
                                  const std::string& what, const std::function<void()>& after_block) {
  FileIdentity identity;
  static_cast<FileStat&>(identity) = file_stat_of(status);
  identity.sha256 = hash_exactly(descriptor, identity.size_bytes, block_bytes, what, after_block);
  struct stat after {};
  if (::fstat(descriptor, &after) != 0) throw_os_error(errno, what);
  if (file_stat_of(after) != static_cast<const FileStat&>(identity)) {
    throw OSError(what + ": changed while it was read");
  }
  return identity;
}

}  // namespace tidalcrest::sync::client_manifest
