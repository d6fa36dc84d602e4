// The side of C++ of bench/python_face.py: face_bench DATA_DIR SERVER_URL TOKEN WALLET_SECRET_HEX ROUNDS
// prints, one line each, the microseconds of every no-change poll and of every sync with nothing new.
#include <fmt/format.h>

#include <chrono>
#include <string>
#include <tidalcrest/sync/sync.hpp>

namespace {

namespace sync = tidalcrest::sync;

std::string bytes_of_hex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

template <class Work>
void measure(const char* name, int rounds, Work work) {
  for (int round = 0; round < rounds; ++round) {
    const auto started = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - started;
    fmt::print("{} {:.1f}\n", name, took.count());
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return 2;
  sync::SyncOptions options{.data_dir = argv[1], .server_url = argv[2]};
  options.get_token = [token = std::string(argv[3])] { return token; };
  options.get_wallet_secret = [secret = bytes_of_hex(argv[4])] { return secret; };
  sync::SyncManager manager(options);
  const int rounds = std::stoi(argv[5]);
  manager.sync();
  measure("poll", rounds, [&] { manager.needs_sync(); });
  measure("sync", rounds, [&] { manager.sync(); });
  return 0;
}
