#include "host/seams.hpp"

#include <openssl/rand.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "host/failures.hpp"

namespace tidalcrest::sync {
namespace {

double seconds_of(auto time_point) {
  return std::chrono::duration<double>(time_point.time_since_epoch()).count();
}

std::string secure_random_bytes(std::size_t count) {
  std::string bytes(count, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) != 1) {
    throw OSError("the cryptographic random source gave no bytes");
  }
  return bytes;
}

std::int64_t volume_free_bytes(const std::string& path) {
  struct statvfs volume {};
  if (statvfs(path.c_str(), &volume) != 0) throw_os_error(errno, "free space of " + path);
  return static_cast<std::int64_t>(volume.f_bavail) * static_cast<std::int64_t>(volume.f_frsize);
}

}  // namespace

Seams Seams::real() {
  return Seams{
      .monotonic_seconds = [] { return seconds_of(std::chrono::steady_clock::now()); },
      .wall_seconds = [] { return seconds_of(std::chrono::system_clock::now()); },
      .sleep = [](double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); },
      .random_bytes = secure_random_bytes,
      .free_bytes = volume_free_bytes,
  };
}

}  // namespace tidalcrest::sync
