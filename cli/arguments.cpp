#include "arguments.hpp"

#include <cmath>

#include "secret_files.hpp"

namespace tidalcrest::cli {

CLI::Validator positive_number() {
  const auto refusal = [](const std::string& given) -> std::string {
    double number = 0;
    const bool is_positive = CLI::detail::lexical_cast(given, number) && number > 0 && std::isfinite(number);
    return is_positive ? "" : "must be a positive number, not " + given;
  };
  return CLI::Validator(refusal, "POSITIVE");
}

void CommonArguments::add_to(CLI::App& command, const std::string& json_help) {
  command.add_option("--data-dir", data_dir, "The local data directory; it must exist")->required();
  command.add_flag("--json", json, json_help + ", and no progress");
  command.add_flag("--verbose", verbose, "Also print informational and debug lines");
}

void ManagerArguments::add_to(CLI::App& command, const std::string& json_help) {
  common.add_to(command, json_help);
  command.add_option("--server-url", server_url, "Address of the API server (https, or http on loopback)")
      ->required();
  command.add_option("--token-file", token_file, "File that holds the bearer token")->required();
  add_wallet_secret_file(command, wallet_secret_file);
  command.add_option("--market-id", market_id, "Market of the distribution")
      ->check(positive_number())
      ->capture_default_str();
  const std::string transfers = "Transfers";
  command
      .add_option("--transport", transport, "How public files are fetched: auto, urllib (in process) or curl")
      ->check(CLI::IsMember({"auto", "urllib", "curl"}))
      ->group(transfers);
  command
      .add_option("--chunk-bytes", chunk_bytes,
                  "Size of one ranged request; larger files are fetched in ranges when resumed")
      ->check(positive_number())
      ->group(transfers);
  command.add_option("--concurrency", concurrency, "How many files are fetched at a time")
      ->check(positive_number())
      ->group(transfers);
}

sync::SyncOptions ManagerArguments::options(std::shared_ptr<sync::SyncProgress> progress) const {
  sync::SyncOptions options{.data_dir = common.data_dir, .server_url = server_url};
  options.token = read_token_file(token_file);
  options.get_wallet_secret = wallet_secret_supplier(wallet_secret_file);
  options.market_id = market_id;
  if (!transport.empty()) options.sync_http_transport = transport;
  if (chunk_bytes > 0) options.sync_http_chunk_bytes = chunk_bytes;
  if (concurrency > 0) options.sync_max_concurrency = concurrency;
  options.progress = std::move(progress);
  return options;
}

void add_wallet_secret_file(CLI::App& command, std::string& wallet_secret_file) {
  command
      .add_option("--wallet-secret-file", wallet_secret_file,
                  "File that holds the wallet secret, which opens the shuffle seed: 32 bytes, raw or as 64 "
                  "hexadecimal digits")
      ->required();
}

std::function<std::optional<std::string>()> wallet_secret_supplier(const std::string& wallet_secret_file) {
  return [secret = read_wallet_secret_file(wallet_secret_file)] { return std::optional(secret); };
}

}  // namespace tidalcrest::cli
