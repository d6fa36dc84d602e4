#include "era/old_era_cleanup.hpp"

#include <filesystem>
#include <optional>
#include <system_error>
#include <vector>

#include "host/failures.hpp"
#include "host/integer.hpp"
#include "host/log.hpp"
#include "manifest/paths.hpp"

namespace tidalcrest::sync {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void throw_os_error_of(const fs::filesystem_error& failure) {
  throw_os_error(failure.code().value(), failure.path1().string());
}

// Of regular files; what a link points to is not freed and not counted.
std::int64_t regular_bytes(const fs::directory_entry& entry) {
  return fs::is_regular_file(entry.symlink_status()) ? static_cast<std::int64_t>(entry.file_size()) : 0;
}

std::int64_t regular_bytes_below(const fs::path& directory) {
  if (fs::is_symlink(directory)) return 0;
  std::int64_t bytes = 0;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) bytes += regular_bytes(entry);
  return bytes;
}

std::int64_t remove_tree(const fs::path& directory) {
  const std::int64_t bytes = regular_bytes_below(directory);
  fs::remove_all(directory);
  return bytes;
}

std::int64_t remove_trees(const std::vector<fs::path>& directories) {
  std::int64_t bytes = 0;
  for (const auto& directory : directories) bytes += remove_tree(directory);
  return bytes;
}

// The direct child directories whose name is wanted: complete before anything is deleted.
template <class Wanted>
std::vector<fs::path> child_directories(const std::string& data_dir, Wanted wanted) {
  std::vector<fs::path> directories;
  for (const auto& entry : fs::directory_iterator(data_dir)) {
    std::error_code ignored;  // a link that leads nowhere is no directory
    if (!entry.is_directory(ignored)) continue;
    if (wanted(entry.path().filename().string())) directories.push_back(entry.path());
  }
  return directories;
}

std::int64_t remove_root_data(const std::string& data_dir) {
  std::int64_t bytes = 0;
  for (const char* name : {"manifest.json", "shuffle_seed.enc"}) {
    const fs::directory_entry entry(fs::path(data_dir) / name);
    if (!fs::exists(entry.symlink_status())) continue;
    const std::int64_t size = regular_bytes(entry);
    fs::remove(entry.path());
    bytes += size;
  }
  return bytes +
         remove_trees(child_directories(data_dir, [](const std::string& name) { return name[0] != '.'; }));
}

}  // namespace

std::int64_t OldEraCleanup::cleanup_old_eras(bool keep_current) const {
  const auto manifest = _active.get()->manifest;
  const auto current_era_number =
      keep_current && manifest ? try_int(manifest->era_number()) : std::optional<std::int64_t>();
  const auto is_old_era = [&](const std::string& name) {
    const auto era = _parse_era_directory_id(name);
    return era && !(keep_current && era == current_era_number);
  };
  try {
    std::int64_t bytes_freed = remove_trees(child_directories(_data_dir, is_old_era));
    if (!keep_current) bytes_freed += remove_root_data(_data_dir);
    return bytes_freed;
  } catch (const fs::filesystem_error& failure) {
    throw_os_error_of(failure);
  }
}

void OldEraCleanup::_cleanup_old_eras_background(bool keep_current) const {
  try {
    const std::int64_t freed = cleanup_old_eras(keep_current);
    if (freed != 0) log::info("Old era cleanup completed: freed %s bytes", std::to_string(freed));
  } catch (const std::exception& failure) {
    log::emit(LogLevel::warning, fmt::sprintf("Background old-era cleanup failed: %s", failure.what()),
              nullptr, log::exception_text(failure));
  }
}

void OldEraCleanupThread::_schedule_cleanup_old_eras(std::shared_ptr<const OldEraCleanup> cleanup,
                                                     bool keep_current) {
  const MutexLock guard(_cleanup_lock);
  if (_cleanup_thread && _cleanup_thread->is_alive()) return;
  _cleanup_thread = std::make_unique<BackgroundThread>(
      "tidalcrest-sync-cleanup",
      [cleanup = std::move(cleanup), keep_current] { cleanup->_cleanup_old_eras_background(keep_current); });
}

}  // namespace tidalcrest::sync
