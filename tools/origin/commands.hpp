#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tidalcrest/sync/document.hpp"

/// The commands of `tidalcrest-origin`. Each prints what it did and gives the exit code; failures are thrown.
namespace tidalcrest::origin {

struct BuildCommand {
  std::filesystem::path out;
  std::string recipe_file;
  std::string from_folder;
  std::string wallet_secret_file;
  std::string data_base_url;
  /// Recipe members given as flags; they win over the file.
  sync::Document members = sync::Document::object();
  int run() const;
};

struct EvolveCommand {
  std::filesystem::path out;
  std::string change = "0", add = "0", remove = "0";
  bool next_era = false;
  bool hold = false;          ///< write the release, leave the current one current
  bool release_held = false;  ///< make the held release current, write none
  std::string state, next_closing_at, min_library_version;
  int run() const;
};

struct ServeCommand {
  std::filesystem::path out;
  std::optional<int> api_port, data_port;
  std::string data_base_url;
  std::string token_file;
  std::string ready_file;
  std::vector<std::string> faults;
  bool verbose = false;
  /// Ends on SIGINT or SIGTERM.
  int run() const;
};

inline constexpr int DEFAULT_API_PORT = 8700;
inline constexpr const char* DEFAULT_DATA_URL = "http://127.0.0.1:8701";

}  // namespace tidalcrest::origin
