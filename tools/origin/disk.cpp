#include "origin/disk.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "host/failures.hpp"

namespace tidalcrest::origin::disk {

using sync::throw_os_error;

std::string read_text(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw_os_error(errno != 0 ? errno : EIO, path.string());
  std::ostringstream text;
  text << in.rdbuf();
  return std::move(text).str();
}

void write_text(const std::filesystem::path& path, std::string_view bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) throw_os_error(errno != 0 ? errno : EIO, path.string());
}

void replace_text(const std::filesystem::path& path, std::string_view bytes) {
  auto aside = path;
  aside += ".new";
  write_text(aside, bytes);
  std::filesystem::rename(aside, path);
}

FileLock::FileLock(const std::filesystem::path& path)
    : _fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666)) {
  if (_fd < 0) throw_os_error(errno, path.string());
  while (::flock(_fd, LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    const int error = errno;
    ::close(_fd);
    throw_os_error(error, "lock " + path.string());
  }
}

FileLock::~FileLock() { ::close(_fd); }

}  // namespace tidalcrest::origin::disk
