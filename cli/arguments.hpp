#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "tidalcrest/sync/sync_manager.hpp"

namespace tidalcrest::cli {

/// A check for options that take a number above zero.
CLI::Validator positive_number();

/// The arguments of every command.
struct CommonArguments {
  std::string data_dir;
  bool json = false;
  bool verbose = false;

  void add_to(CLI::App& command, const std::string& json_help = "Print one JSON object on standard output");
};

/// The arguments of every command that asks the server, and so builds a manager.
struct ManagerArguments {
  CommonArguments common;
  std::string server_url;
  std::string token_file;
  std::string wallet_secret_file;
  std::int64_t market_id = sync::DEFAULT_AGENT_MARKET_ID;
  std::string transport;
  std::int64_t chunk_bytes = 0;
  std::int64_t concurrency = 0;

  void add_to(CLI::App& command, const std::string& json_help = "Print one JSON object on standard output");
  /// Reads the secret files. Throws `OSError` and `ValueError`.
  sync::SyncOptions options(std::shared_ptr<sync::SyncProgress> progress) const;
};

/// `--wallet-secret-file`, which also commands without a server take.
void add_wallet_secret_file(CLI::App& command, std::string& wallet_secret_file);
/// A supplier of the secret that the file holds. Throws as `read_wallet_secret_file`.
std::function<std::optional<std::string>()> wallet_secret_supplier(const std::string& wallet_secret_file);

}  // namespace tidalcrest::cli
