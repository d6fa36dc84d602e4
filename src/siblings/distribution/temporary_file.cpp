#include "siblings/distribution/temporary_file.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "host/failures.hpp"
#include "siblings/distribution/contained_open.hpp"
#include "siblings/distribution/disk_calls.hpp"
#include "siblings/distribution/file_blocks.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

// How often a write starts anew after a sweep of another thread took its temporary file away.
constexpr int WRITE_ATTEMPTS = 4;

std::string random_name(const std::string& what) {
  std::uint64_t token = 0;
  if (::getrandom(&token, sizeof token, 0) != static_cast<ssize_t>(sizeof token)) throw_os_error(errno, what);
  return fmt::format(".write-{:016x}.tmp", token);
}

// Where the file system cannot rename without replacing, a second link refuses an existing name just as well.
int rename_to_free_name(int directory, const std::string& from, const std::string& to) {
  if (disk_calls().rename(directory, from.c_str(), directory, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return -1;
  if (::linkat(directory, from.c_str(), directory, to.c_str(), 0) != 0) return -1;
  ::unlinkat(directory, from.c_str(), 0);
  return 0;
}

}  // namespace

TemporaryFile::TemporaryFile(int directory, std::string what)
    : _directory(directory), _what(std::move(what)) {
  do {
    _name = random_name(_what);
    _descriptor.reset(open_beneath(_directory, _name, O_WRONLY | O_CREAT | O_EXCL));
  } while (!_descriptor && errno == EEXIST);
  if (!_descriptor) throw_open_failure(errno, _what);
}

TemporaryFile::~TemporaryFile() {
  if (!_name.empty()) ::unlinkat(_directory, _name.c_str(), 0);
}

void TemporaryFile::place(const std::string& name, bool allow_replace) {
  const int outcome = allow_replace
                          ? disk_calls().rename(_directory, _name.c_str(), _directory, name.c_str(), 0)
                          : rename_to_free_name(_directory, _name, name);
  if (outcome != 0) throw_os_error(errno, _what);
  _name.clear();
}

void write_file_atomically(int directory, const std::string& name, std::string_view data, bool allow_replace,
                           const std::string& what) {
  for (int attempt = 1;; ++attempt) {
    TemporaryFile file(directory, what);
    write_all(file.descriptor(), data, what);
    if (disk_calls().flush_file(file.descriptor()) != 0) throw_os_error(errno, what);
    try {
      file.place(name, allow_replace);
      return;
    } catch (const FileNotFoundError&) {
      if (attempt == WRITE_ATTEMPTS) throw;
    }
  }
}

}  // namespace tidalcrest::sync::client_manifest
