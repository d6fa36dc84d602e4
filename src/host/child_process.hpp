#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tidalcrest::sync {

struct ChildCommand {
  std::vector<std::string> arguments;  ///< the program first: a path, or a name found on the search path
  /// Standard output goes straight to this descriptor, at its current offset; captured when absent.
  std::optional<int> output_descriptor;
  /// Asked about ten times a second on the calling thread; true ends the child. Empty means never.
  std::function<bool()> stop_requested;
  /// Whether the child dies with this process. False for work that must not be left half done.
  bool ends_with_caller = true;
  std::int64_t most_file_bytes = 0;  ///< a file grows no further through the child; 0 bounds nothing
};

struct ChildResult {
  int exit_code = 0;               ///< minus the signal number when a signal ended the child
  bool exit_code_is_lost = false;  ///< the host reaps every child itself; `exit_code` is -1 then
  std::string standard_output;
  std::string standard_error;  ///< both are cut at 1 MiB
  bool stopped = false;        ///< `stop_requested` ended the child
};

/// Runs one program without a shell, standard input empty, and waits until it has ended. The child gets no
/// descriptor of this process but its output. Throws `OSError` when it cannot be started. No child is left
/// behind on any way out.
ChildResult run_child(const ChildCommand& command);

/// The first executable regular file named `name` on the search path; absent when there is none.
std::optional<std::string> find_executable(const std::string& name);

}  // namespace tidalcrest::sync
