#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tidalcrest::origin {

/// A content that follows from two numbers: the same on every platform, and never held in memory whole.
struct GeneratedBytes {
  std::uint64_t size = 0;
  std::uint64_t number = 0;
};

/// Hands out the bytes of a `GeneratedBytes` from its beginning.
class ByteGenerator {
 public:
  explicit ByteGenerator(GeneratedBytes content) : _left(content.size), _state(content.number) {}
  /// Replaces `into` by the next bytes, at most `limit` (a multiple of 8); empty at the end.
  void next(std::string& into, std::size_t limit);

 private:
  std::uint64_t _left;
  std::uint64_t _state;
};

std::string generated_bytes(std::uint64_t size, std::uint64_t number);

/// A number that depends on every bit of both arguments.
std::uint64_t derived_number(std::uint64_t number, std::string_view purpose);

/// 32 bytes that depend on every bit of both arguments.
std::string derived_secret(std::uint64_t number, std::string_view purpose);

/// The bytes that an even number of hexadecimal digits stands for.
std::string from_hex(const std::string& hex);

}  // namespace tidalcrest::origin
