#include "siblings/distribution/directory_cursor.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <string_view>

#include "host/failures.hpp"
#include "siblings/distribution/contained_open.hpp"
#include "siblings/distribution/file_stat.hpp"

namespace tidalcrest::sync::client_manifest {

FileStat DirectoryCursor::stat_regular_file(const std::string& path, const std::string& label) {
  check_member_path(path);
  const auto named = [&] { return fmt::format("{}: {}", label, _root.display_path(path)); };
  const auto slash = path.rfind('/');
  int directory = _root.descriptor();
  if (slash != std::string::npos) {
    const std::string_view parent = std::string_view(path).substr(0, slash);
    directory = _opened && parent == _parent ? _opened.get() : _enter(std::string(parent), named());
  }
  const char* name = path.c_str() + (slash == std::string::npos ? 0 : slash + 1);
  struct stat status {};
  if (::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) throw_os_error(errno, named());
  if (!S_ISREG(status.st_mode)) require_regular(status, named());
  return file_stat_of(status);
}

int DirectoryCursor::_enter(const std::string& parent, const std::string& what) {
  _opened.reset(open_beneath(_root.descriptor(), parent, O_PATH | O_DIRECTORY));
  if (!_opened) throw_open_failure(errno, what);
  _parent = parent;
  return _opened.get();
}

}  // namespace tidalcrest::sync::client_manifest
