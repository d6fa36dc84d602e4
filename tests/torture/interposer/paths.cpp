#include "paths.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>

#include "plan.hpp"

namespace tidalcrest::torture {

std::string path_of(int descriptor) {
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  std::array<char, 4096> target{};
  const ssize_t size = ::readlink(link.c_str(), target.data(), target.size());
  if (size <= 0 || target[0] != '/') return "";
  return {target.data(), static_cast<std::size_t>(size)};
}

std::string absolute_path(int directory, const char* path) {
  if (path == nullptr) return "";
  if (path[0] == '/') return path;
  std::string start;
  if (directory == AT_FDCWD) {
    std::array<char, 4096> here{};
    if (::getcwd(here.data(), here.size()) != nullptr) start = here.data();
  } else {
    start = path_of(directory);
  }
  if (start.empty()) return "";
  const std::string rest(path);
  return rest.empty() || rest == "." ? start : start + "/" + rest;
}

bool counts(const std::string& path) {
  const std::string& root = torture_root();
  if (root.empty() || !path.starts_with(root)) return false;
  return path.size() == root.size() || path[root.size()] == '/';
}

bool is_regular(int descriptor) {
  struct stat status {};
  return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

unsigned long inode_of(int descriptor) {
  struct stat status {};
  return ::fstat(descriptor, &status) == 0 ? status.st_ino : 0;
}

}  // namespace tidalcrest::torture
