#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "tidalcrest/sync/sync_manager.hpp"

namespace tidalcrest::cli {

/// The arguments of every command that builds a manager.
struct ManagerArguments {
  std::string data_dir;
  std::string server_url;
  std::string token_file;
  std::string wallet_secret_file;
  std::int64_t market_id = sync::DEFAULT_AGENT_MARKET_ID;
  std::string transport;
  std::int64_t chunk_bytes = 0;
  std::int64_t concurrency = 0;
  bool json = false;
  bool verbose = false;

  void add_to(CLI::App& command);
  /// Reads the secret files. Throws `OSError` and `ValueError`.
  sync::SyncOptions options(std::shared_ptr<sync::SyncProgress> progress) const;
};

}  // namespace tidalcrest::cli
