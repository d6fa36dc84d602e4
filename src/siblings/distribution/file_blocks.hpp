#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

/// Moving the bytes of opened files. Every operation throws `OSError`, with `what` naming the file.
namespace tidalcrest::sync::client_manifest {

inline constexpr std::int64_t MIN_BLOCK_BYTES = 512 * 1024;
inline constexpr std::int64_t DEFAULT_BLOCK_BYTES = 1024 * 1024;
inline constexpr std::int64_t MAX_BLOCK_BYTES = 8 * 1024 * 1024;

/// Up to `size` bytes at the current offset; 0 at the end. Repeats after a signal.
std::size_t read_some(int descriptor, char* buffer, std::size_t size, const std::string& what);
/// All bytes from the current offset on. `size_hint` is what the file is expected to hold.
std::string read_to_end(int descriptor, std::int64_t size_hint, const std::string& what);
/// Whether the bytes from the current offset on are exactly the expected ones. Keeps one block of them.
bool holds_exactly(int descriptor, std::string_view expected, const std::string& what);
void write_all(int descriptor, std::string_view bytes, const std::string& what);
/// Digest of the `size` bytes from the current offset on, in blocks of at most `block_bytes`. Absent bytes
/// are a failure: the file became shorter meanwhile. `after_block` may end it by throwing.
std::string hash_exactly(int descriptor, std::int64_t size, std::int64_t block_bytes, const std::string& what,
                         const std::function<void()>& after_block = {});
/// Copies a whole file of `size` bytes into an empty one: shares the blocks where the file system can, else
/// copies inside the kernel, else reads and writes.
void copy_contents(int from, int to, std::int64_t size, const std::string& what);

}  // namespace tidalcrest::sync::client_manifest
