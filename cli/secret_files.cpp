#include "secret_files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::cli {
namespace {

constexpr std::size_t LARGEST_SECRET_FILE = 64 * 1024;
constexpr std::size_t WALLET_SECRET_BYTES = 32;

[[noreturn]] void throw_unreadable(const std::string& what, const std::string& path, int error_number) {
  throw sync::OSError(
      "Unable to read " + what + " " + path + ": " + std::generic_category().message(error_number),
      error_number);
}

std::string read_small_file(const std::string& path, const std::string& what) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw_unreadable(what, path, errno);
  std::string content;
  char buffer[4096];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      const int error_number = errno;
      ::close(fd);
      throw_unreadable(what, path, error_number);
    }
    if (got == 0) break;
    content.append(buffer, static_cast<std::size_t>(got));
    if (content.size() > LARGEST_SECRET_FILE) {
      ::close(fd);
      throw sync::ValueError(what + " " + path + " is too large to be one");
    }
  }
  ::close(fd);
  return content;
}

std::string stripped(std::string text) {
  const auto is_space = [](unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
  text.erase(std::find_if_not(text.rbegin(), text.rend(), is_space).base(), text.end());
  text.erase(text.begin(), std::find_if_not(text.begin(), text.end(), is_space));
  return text;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string read_token_file(const std::string& path) {
  std::string token = stripped(read_small_file(path, "token file"));
  if (token.empty()) throw sync::ValueError("token file " + path + " is empty");
  const bool one_line =
      std::all_of(token.begin(), token.end(), [](unsigned char c) { return c > ' ' && c != 127; });
  if (!one_line) throw sync::ValueError("token file " + path + " must hold one token and nothing else");
  return token;
}

std::string read_wallet_secret_file(const std::string& path) {
  const std::string content = read_small_file(path, "wallet secret file");
  if (content.size() == WALLET_SECRET_BYTES) return content;
  const std::string digits = stripped(content);
  const bool is_hex = digits.size() == 2 * WALLET_SECRET_BYTES &&
                      std::all_of(digits.begin(), digits.end(), [](char c) { return hex_digit(c) >= 0; });
  if (!is_hex) {
    throw sync::ValueError("wallet secret file " + path +
                           " must hold 32 bytes, raw or as 64 hexadecimal digits");
  }
  std::string secret;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    secret += static_cast<char>(hex_digit(digits[i]) * 16 + hex_digit(digits[i + 1]));
  }
  return secret;
}

}  // namespace tidalcrest::cli
