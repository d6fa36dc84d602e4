#include "origin/generated_bytes.hpp"

#include <algorithm>

#include "host/digest.hpp"

namespace tidalcrest::origin {
namespace {

/// The splitmix64 generator.
std::uint64_t next_word(std::uint64_t& state) {
  state += 0x9E3779B97F4A7C15ULL;
  std::uint64_t word = state;
  word = (word ^ (word >> 30)) * 0xBF58476D1CE4E5B9ULL;
  word = (word ^ (word >> 27)) * 0x94D049BB133111EBULL;
  return word ^ (word >> 31);
}

std::string secret_hex(std::uint64_t number, std::string_view purpose) {
  return sync::sha256_hex(std::to_string(number) + "|" + std::string(purpose));
}

}  // namespace

void ByteGenerator::next(std::string& into, std::size_t limit) {
  into.resize(std::min<std::uint64_t>(limit, _left));
  for (std::size_t at = 0; at < into.size(); at += 8) {
    const auto word = next_word(_state);
    const auto count = std::min<std::size_t>(8, into.size() - at);
    for (std::size_t i = 0; i < count; ++i) into[at + i] = static_cast<char>(word >> (8 * i));
  }
  _left -= into.size();
}

std::string generated_bytes(std::uint64_t size, std::uint64_t number) {
  std::string bytes;
  ByteGenerator({size, number}).next(bytes, size);
  return bytes;
}

std::uint64_t derived_number(std::uint64_t number, std::string_view purpose) {
  return std::stoull(secret_hex(number, purpose).substr(0, 16), nullptr, 16);
}

std::string derived_secret(std::uint64_t number, std::string_view purpose) {
  return from_hex(secret_hex(number, purpose));
}

std::string from_hex(const std::string& hex) {
  std::string bytes;
  for (std::size_t at = 0; at + 1 < hex.size(); at += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
  }
  return bytes;
}

}  // namespace tidalcrest::origin
