#pragma once

#include <filesystem>
#include <string>
#include <string_view>

/// Files of an origin tree: read whole, or replaced whole.
namespace tidalcrest::origin::disk {

std::string read_text(const std::filesystem::path& path);
/// Writes a new file, making its directories. Throws `OSError`.
void write_text(const std::filesystem::path& path, std::string_view bytes);
/// The same through a rename, so that a reader sees the old or the new text.
void replace_text(const std::filesystem::path& path, std::string_view bytes);

/// An exclusive lock between threads and processes, held for a scope.
class FileLock {
 public:
  explicit FileLock(const std::filesystem::path& path);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int _fd;
};

}  // namespace tidalcrest::origin::disk
