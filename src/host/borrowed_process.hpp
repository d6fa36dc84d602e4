#pragma once

#include <functional>
#include <optional>

namespace tidalcrest::sync {

/// Runs `body` in a child process and gives what it returned (0 to 255); absent where no child can be made or
/// somebody else took its status. For questions whose answer depends on who asks, such as locks.
///
/// The child borrows the memory of this process and the calling thread stands still until it has ended, so it
/// costs little however large the host is; `body` makes system calls and nothing else. The host's handlers
/// and its waiting for children of its own see nothing of it.
std::optional<int> in_borrowed_process(const std::function<int()>& body);

}  // namespace tidalcrest::sync
