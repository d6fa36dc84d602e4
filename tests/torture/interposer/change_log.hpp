#pragma once

#include <cstdint>
#include <mutex>
#include <string>

/// One line per change of the disk, fields parted by tabs, in the order in which the changes happened:
///   create PATH INODE | write INODE OFFSET HEX | truncate INODE SIZE | rename FROM TO | link FROM TO
///   unlink PATH | mkdir PATH | rmdir PATH | fsync PATH INODE | syncfs
namespace tidalcrest::torture {

/// Whether changes are written down at all.
bool logs_changes();
/// Held around a call and its line, so that lines stand in the order of the calls.
std::unique_lock<std::mutex> change_order();
/// An empty line is no change.
void log_change(const std::string& line);
/// What a write left in a file, read back from it.
void log_written(int descriptor, std::int64_t offset, std::int64_t size);

}  // namespace tidalcrest::torture
