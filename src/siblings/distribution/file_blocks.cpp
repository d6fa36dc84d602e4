#include "siblings/distribution/file_blocks.hpp"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "host/digest.hpp"
#include "host/failures.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

constexpr std::size_t COMPARED_BLOCK_BYTES = 65536;  // stays in the processor's cache

constexpr std::size_t KERNEL_COPY_BYTES = std::size_t{1} << 30;

// False when this pair of files cannot be copied inside the kernel (any further), or it says that there is
// nothing more before `size` bytes came, as some file systems do; the offsets of both files stand where the
// copy got to.
bool copy_in_kernel(int from, int to, std::int64_t size, const std::string& what) {
  while (size > 0) {
    const ssize_t copied = ::copy_file_range(from, nullptr, to, nullptr, KERNEL_COPY_BYTES, 0);
    if (copied > 0) {
      size -= copied;
      continue;
    }
    if (copied == 0) return false;
    switch (errno) {
      case EINTR:
        continue;
      case ENOSPC:
      case EDQUOT:
      case EFBIG:
      case EIO:
        throw_os_error(errno, what);
      default:
        return false;
    }
  }
  return true;
}

}  // namespace

std::size_t read_some(int descriptor, char* buffer, std::size_t size, const std::string& what) {
  while (true) {
    const ssize_t count = ::read(descriptor, buffer, size);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) throw_os_error(errno, what);
  }
}

std::string read_to_end(int descriptor, std::int64_t size_hint, const std::string& what) {
  // One byte more than expected: the end shows itself without another allocation.
  std::string bytes(static_cast<std::size_t>(size_hint) + 1, '\0');
  std::size_t filled = 0;
  while (const std::size_t count =
             read_some(descriptor, bytes.data() + filled, bytes.size() - filled, what)) {
    filled += count;
    if (filled == bytes.size()) bytes.resize(filled + static_cast<std::size_t>(DEFAULT_BLOCK_BYTES));
  }
  bytes.resize(filled);
  return bytes;
}

bool holds_exactly(int descriptor, std::string_view expected, const std::string& what) {
  const std::size_t block =
      std::min(expected.size() + 1, COMPARED_BLOCK_BYTES);  // one more: the end shows itself
  const auto buffer = std::make_unique_for_overwrite<char[]>(block);
  while (const std::size_t count = read_some(descriptor, buffer.get(), block, what)) {
    if (!expected.starts_with(std::string_view(buffer.get(), count))) return false;
    expected.remove_prefix(count);
  }
  return expected.empty();
}

void write_all(int descriptor, std::string_view bytes, const std::string& what) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      throw_os_error(errno, what);
    }
  }
}

std::string hash_exactly(int descriptor, std::int64_t size, std::int64_t block_bytes, const std::string& what,
                         const std::function<void()>& after_block) {
  Sha256 hash;
  const auto block = static_cast<std::size_t>(std::min(size, block_bytes));
  const auto buffer = std::make_unique_for_overwrite<char[]>(block);
  for (auto left = static_cast<std::size_t>(size); left > 0;) {
    const std::size_t count = read_some(descriptor, buffer.get(), std::min(block, left), what);
    if (count == 0) throw OSError(what + ": became shorter while it was read");
    hash.update({buffer.get(), count});
    left -= count;
    if (after_block) after_block();
  }
  return hash.hexdigest();
}

void copy_contents(int from, int to, std::int64_t size, const std::string& what) {
  if (::ioctl(to, FICLONE, from) == 0) return;
  if (copy_in_kernel(from, to, size, what)) return;
  const auto buffer = std::make_unique_for_overwrite<char[]>(DEFAULT_BLOCK_BYTES);
  while (const std::size_t count = read_some(from, buffer.get(), DEFAULT_BLOCK_BYTES, what)) {
    write_all(to, {buffer.get(), count}, what);
  }
}

}  // namespace tidalcrest::sync::client_manifest
