#pragma once

#include <functional>

namespace tidalcrest::sync {

/// The calls of the operating system that decide durability and exclusion, gathered so that a test can watch
/// their order or let one fail. Each returns as the call that it stands for, with `errno`.
struct DiskCalls {
  std::function<int(int descriptor)> flush_file;
  std::function<int(int descriptor)> flush_file_system;
  /// `flags` as for `renameat2`.
  std::function<int(int from_directory, const char* from, int to_directory, const char* to, unsigned flags)>
      rename;
  std::function<int(int descriptor, int operation)> lock;

  /// The machine itself.
  static DiskCalls real();
};

/// The calls in use. Replaced only by tests, while no other thread works on files.
DiskCalls& disk_calls();

}  // namespace tidalcrest::sync
