// One sync from C++: sync_once DATA_DIR SERVER_URL TOKEN WALLET_SECRET_HEX
#include <cstdio>
#include <iostream>
#include <string>
#include <tidalcrest/sync/sync.hpp>

namespace {

std::string bytes_of_hex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

}  // namespace

int main(int argc, char** argv) {
  namespace sync = tidalcrest::sync;
  if (argc != 5) {
    std::fprintf(stderr, "usage: sync_once DATA_DIR SERVER_URL TOKEN WALLET_SECRET_HEX\n");
    return 2;
  }
  try {
    sync::SyncOptions options{.data_dir = argv[1], .server_url = argv[2]};
    options.token = argv[3];
    options.get_wallet_secret = [secret = bytes_of_hex(argv[4])] { return secret; };
    const auto manager = sync::SyncManager::get_or_create(options);

    const sync::SyncResult result = manager->sync();

    std::cout << "era " << result.era_number << ": " << result.active_relative_paths.size()
              << " members below " << manager->active_data_dir() << ", " << result.bytes_downloaded
              << " bytes fetched\n";
    return 0;
  } catch (const sync::SyncUnavailableError& failure) {
    std::cerr << "not now: " << failure.what() << "\n";
    return 3;
  } catch (const std::exception& failure) {
    std::cerr << "failed: " << failure.what() << "\n";
    return 1;
  }
}
