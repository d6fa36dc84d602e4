#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "host/descriptor.hpp"

namespace tidalcrest::sync {

/// Two descriptors that no child inherits.
struct Pipe {
  Descriptor read_end;
  Descriptor write_end;
};
Pipe open_pipe();

/// Starts the program at the path `arguments[0]`: standard input empty, its output on the two descriptors, no
/// other descriptor of this process, no signal blocked, a broken pipe not
/// ignored. With `ends_with_caller` the child dies with the thread that started it, whatever ends that one:
/// what it writes may belong to a later process by then. With `most_file_bytes` above 0 a write that would
/// make a file longer than that fails. The caller waits for it. Throws `OSError` when it cannot be started.
pid_t launch_child(const std::vector<std::string>& arguments, int output, int error, bool ends_with_caller,
                   std::int64_t most_file_bytes);

}  // namespace tidalcrest::sync
