#include "change_log.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace tidalcrest::torture {
namespace {

int log_descriptor() {
  static const int descriptor = [] {
    const char* path = std::getenv("TIDALCREST_TORTURE_LOG");
    if (path == nullptr) return -1;
    return static_cast<int>(
        ::syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  }();
  return descriptor;
}

}  // namespace

bool logs_changes() { return log_descriptor() >= 0; }

std::unique_lock<std::mutex> change_order() {
  static std::mutex mutex;
  return logs_changes() ? std::unique_lock(mutex) : std::unique_lock<std::mutex>();
}

void log_change(const std::string& line) {
  if (!logs_changes() || line.empty()) return;
  const std::string whole = line + "\n";
  for (std::size_t done = 0; done < whole.size();) {
    const long count = ::syscall(SYS_write, log_descriptor(), whole.data() + done, whole.size() - done);
    if (count <= 0) std::abort();
    done += static_cast<std::size_t>(count);
  }
}

void log_written(int descriptor, std::int64_t offset, std::int64_t size) {
  if (!logs_changes()) return;
  // Opened anew: the program's own descriptor may be for writing only.
  const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
  const long reader = ::syscall(SYS_openat, AT_FDCWD, path.c_str(), O_RDONLY | O_CLOEXEC);
  if (reader < 0) std::abort();
  std::vector<unsigned char> bytes(static_cast<std::size_t>(size));
  const long count = ::syscall(SYS_pread64, reader, bytes.data(), bytes.size(), offset);
  struct stat status {};
  ::fstat(descriptor, &status);
  ::close(static_cast<int>(reader));
  bytes.resize(static_cast<std::size_t>(std::max(count, 0L)));
  std::string line = "write\t" + std::to_string(status.st_ino) + "\t" + std::to_string(offset) + "\t";
  constexpr const char* DIGITS = "0123456789abcdef";
  for (const unsigned char byte : bytes) {
    line += DIGITS[byte >> 4];
    line += DIGITS[byte & 15];
  }
  log_change(line);
}

}  // namespace tidalcrest::torture
