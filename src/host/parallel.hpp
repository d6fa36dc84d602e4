#pragma once

#include <cstddef>
#include <functional>

namespace tidalcrest::sync {

/// A text of this size, of some thousand files, takes longer to parse than a thread to start.
inline constexpr std::size_t WORTH_A_THREAD_BYTES = 256 * 1024;

/// Calls `work(0)` to `work(count - 1)` on up to `workers` threads, the caller's among them, and returns when
/// all have ended. Items start in order. After a failure no later item is started, every earlier one still
/// ends, and the failure of the lowest index is thrown: what the caller sees is what a plain loop would have
/// shown.
void parallel_in_order(std::size_t count, std::size_t workers, const std::function<void(std::size_t)>& work);

}  // namespace tidalcrest::sync
