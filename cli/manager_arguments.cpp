#include "manager_arguments.hpp"

#include "secret_files.hpp"

namespace tidalcrest::cli {

void ManagerArguments::add_to(CLI::App& command) {
  command.add_option("--data-dir", data_dir, "Directory to keep in step; it must exist")->required();
  command.add_option("--server-url", server_url, "Address of the API server (https, or http on loopback)")
      ->required();
  command.add_option("--token-file", token_file, "File that holds the bearer token")->required();
  command
      .add_option("--wallet-secret-file", wallet_secret_file,
                  "File that holds the wallet secret: 32 bytes, raw or as 64 hexadecimal digits")
      ->required();
  command.add_option("--market-id", market_id, "Market of the distribution")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  command
      .add_option("--transport", transport, "How public files are fetched: auto, urllib (in process) or curl")
      ->check(CLI::IsMember({"auto", "urllib", "curl"}));
  command
      .add_option("--chunk-bytes", chunk_bytes,
                  "Size of one ranged request; larger files are fetched in ranges when resumed")
      ->check(CLI::PositiveNumber);
  command.add_option("--concurrency", concurrency, "How many files are fetched at a time")
      ->check(CLI::PositiveNumber);
  command.add_flag("--json", json, "Print one JSON object on standard output and no progress");
  command.add_flag("--verbose", verbose, "Also print informational and debug lines");
}

sync::SyncOptions ManagerArguments::options(std::shared_ptr<sync::SyncProgress> progress) const {
  sync::SyncOptions options{.data_dir = data_dir, .server_url = server_url};
  options.token = read_token_file(token_file);
  options.get_wallet_secret = [secret = read_wallet_secret_file(wallet_secret_file)] {
    return std::optional(secret);
  };
  options.market_id = market_id;
  if (!transport.empty()) options.sync_http_transport = transport;
  if (chunk_bytes > 0) options.sync_http_chunk_bytes = chunk_bytes;
  if (concurrency > 0) options.sync_max_concurrency = concurrency;
  options.progress = std::move(progress);
  return options;
}

}  // namespace tidalcrest::cli
